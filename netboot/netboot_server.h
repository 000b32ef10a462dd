// The network boot server: while network booting is enabled it serves BOOTP
// (through the responder) and TFTP on the interface chosen for the client
// address, sending each client the boot image of its class. It restarts
// itself when that interface goes away and takes new settings from a queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "app/clock.h"
#include "app/sync.h"
#include "app/thread.h"
#include "netboot/boot_server_watch.h"
#include "netboot/bootp.h"
#include "netboot/datagram.h"
#include "netboot/interfaces.h"
#include "netboot/tftp.h"

namespace tarnlift::netboot {

// Settings value names (under the program's settings key).
inline constexpr const char* kPxeEnabledValue = "PXE Enabled";
inline constexpr const char* kPxeClientAddressValue = "PXE Client Address";
inline constexpr const char* kBootFileName = "/image";

// What the server runs on; the defaults are the real system. Tests give an
// in-memory network, a fake adapter list and a sleep that does not wait.
struct NetbootEnvironment {
  DatagramNetwork* network = nullptr;
  InterfaceSource* interfaces = nullptr;
  std::function<void(uint32_t milliseconds)> sleep;
  // Whether a BOOTP request from this client (6 bytes of MAC) may be
  // answered; unset: every client. A refused client is logged once.
  std::function<bool(const uint8_t* mac)> mayAnswer;
  // Times the watch for other boot servers (once per server per minute).
  const app::Clock* clock = &app::SteadyClock::instance();
  static NetbootEnvironment system();
};

class NetbootServer {
 public:
  enum class CycleResult { Restart, Stop };

  // Reads "PXE Enabled" and "PXE Client Address" from the settings store.
  NetbootServer(std::string kernelOverridePath, NetbootEnvironment environment = NetbootEnvironment::system());
  ~NetbootServer();
  NetbootServer(const NetbootServer&) = delete;
  NetbootServer& operator=(const NetbootServer&) = delete;

  // The thread body: cycles while a cycle answers restart.
  void run();
  CycleResult cycle();

  // Queues a settings change; it is applied at the top of a later cycle.
  void queueSettings(bool enabled, uint32_t clientAddress);
  app::Event& stopEvent() { return stopEvent_; }

  bool enabled() const { return enabled_; }
  uint32_t clientAddress() const { return clientAddress_; }
  int currentClass() const { return currentClass_; }
  void setCurrentClass(int clientClass) { currentClass_ = clientClass; }
  size_t queuedSettings();

 private:
  bool handleBootp();
  void handleReadRequest();
  void sendContent(const uint8_t* content, uint32_t length, uint16_t clientPort);
  void closeSockets();
  void openWatch();
  void handleWatch();

  NetbootEnvironment environment_;
  std::string kernelOverridePath_;
  app::Event stopEvent_{true};
  app::Mutex queueMutex_;
  app::Event queueEvent_{true};
  std::deque<std::pair<bool, uint32_t>> settingsQueue_;
  bool enabled_ = false;
  uint32_t clientAddress_ = 0;
  int currentClass_ = kClassNone;
  BootpResponder responder_;
  std::unique_ptr<DatagramSocket> tftpSocket_;
  uint8_t request_[kTftpRequestSize] = {};
  size_t requestLength_ = 0;
  uint16_t clientPort_ = 0;
  std::set<std::string> refusedClients_;  // MACs not answered, already logged
  BootServerWatch watch_;
  std::unique_ptr<DatagramSocket> watchSocket_;
  std::string watchOffLogged_;  // why the watch is off, as last logged
};

// The "PXE Booter" thread that owns the server for the life of the program.
class NetbootThread : public app::Thread {
 public:
  explicit NetbootThread(std::string kernelOverridePath, NetbootEnvironment environment = NetbootEnvironment::system());
  ~NetbootThread() override;

  // Hands a settings change to the running server: waits up to 5000 ms for
  // the thread's started signal; no server by then is fatal ("no code!!!").
  void changeSettings(bool enabled, uint32_t clientAddress);
  // Sets the server's stop event and waits for the thread to end.
  void stopServer();
  NetbootServer* server() { return server_.load(); }

 protected:
  uint32_t run() override;

 private:
  std::string kernelOverridePath_;
  NetbootEnvironment environment_;
  app::Event started_{true};
  std::atomic<NetbootServer*> server_{nullptr};
};

}  // namespace tarnlift::netboot

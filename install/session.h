// The installation session of one router (Installator), the sender of one
// file (PackageSender) and the server that owns the transport, runs the
// receiving loop and holds every session (InstallServer).
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/clock.h"
#include "app/sync.h"
#include "app/thread.h"
#include "install/connection.h"
#include "install/discovery.h"
#include "install/router_record.h"
#include "install/sent_package_file.h"
#include "install/transport.h"

namespace tarnlift::install {

enum class InstallState : uint32_t {
  AwaitAccept = 0,
  AwaitStart = 1,
  Transfer = 2,
  AwaitTerminate = 3,
  Finished = 4,
};

inline constexpr uint64_t kOfferTimeoutUs = 60'000'000;
inline constexpr uint64_t kFormatTimeoutUs = 86'400'000'000;
inline constexpr uint64_t kTransferTimeoutUs = 30'000'000;
inline constexpr uint64_t kAfterTerminateUs = 3'000'000;
inline constexpr int64_t kRediscoveryGraceUs = 5'000'000;

// Makes the autorun script for a request: its path, or empty with failure
// set (or empty without failure when no script is wanted).
using AutorunScriptMaker = std::function<std::string(const RouterRecord& request, std::string& failure)>;

// What a session sent last: a retransmission sends it again as it stands.
struct SentDatagram {
  const uint8_t* data = nullptr;
  size_t length = 0;
};

// Room for the next chunks of a file, each behind the room for its header,
// so that one read brings several chunks and each is sent from where it
// was read. A session keeps its room from one file to the next.
class ChunkRoom {
 public:
  static constexpr size_t kChunks = 16;
  static constexpr size_t kStride = kHeaderSize + kChunkSize;
  // The datagram that carries chunk i (its header in the first 20 bytes).
  uint8_t* datagram(size_t i);

 private:
  // Allocated (zero-filled: the reserved header bytes stay zero) on first use.
  std::unique_ptr<uint8_t[]> bytes_;
};

// Sends one file: its header, then a chunk of up to 1452 bytes per request,
// then an empty chunk.
class PackageSender {
 public:
  // The header and the empty chunk are written into datagram; the chunks go
  // out of room. last is set to whatever was sent.
  PackageSender(const std::string& path, const std::string& remoteName, DatagramTransport& transport,
                InstallConnection& connection, uint8_t* datagram, ChunkRoom& room, SentDatagram& last);
  ~PackageSender() = default;
  PackageSender(const PackageSender&) = delete;
  PackageSender& operator=(const PackageSender&) = delete;

  // Sends the next chunk; returns its payload size (0: the end of the file).
  size_t sendNextChunk();
  const std::string& remoteName() const { return remoteName_; }
  int32_t length() const { return length_; }
  int32_t bytesRead() const { return bytesRead_; }

 private:
  void send(uint8_t* datagram, size_t payloadLength);
  void readAhead();

  PackageFile file_;
  int32_t length_ = 0;
  int32_t bytesRead_ = 0;
  std::string remoteName_;
  DatagramTransport& transport_;
  InstallConnection& connection_;
  uint8_t* datagram_;
  ChunkRoom& room_;
  SentDatagram& last_;
  size_t nextChunk_ = 0;   // the next chunk of the room to send
  size_t chunksRead_ = 0;  // chunks of the room that hold data
  int64_t roomBytes_ = 0;  // bytes the last read brought
};

struct SessionStatus {
  uint32_t status = kStatusNone;
  uint32_t total = 0;
  uint32_t progress = 0;
  std::string statusText;
  // The router answered the end of the file list ("FILE\n") with "WTRM":
  // it has everything. A session that ends without it only knows what it sent.
  bool confirmed = false;
};

class Installator {
 public:
  Installator(const RouterRecord& request, bool install, DatagramTransport& transport, const app::Clock& clock,
              const AutorunScriptMaker& makeScript);
  ~Installator();
  Installator(const Installator&) = delete;
  Installator& operator=(const Installator&) = delete;

  void onDatagram(const uint8_t* datagram, size_t length);
  // The same with the time already known (the receiving loop reads the
  // clock once for all datagrams that arrived together).
  void onDatagram(const uint8_t* datagram, size_t length, uint64_t nowUs);
  void onTimeout();
  void reboot();
  void shutdown();
  void fail(const std::string& reason);

  SessionStatus status() const {
    return {request_.status, request_.totalSize, request_.progress, request_.statusText, confirmed_};
  }
  InstallState state() const { return state_; }
  uint64_t deadline() const { return deadline_; }
  uint64_t timeout() const { return timeout_; }
  const RouterRecord& request() const { return request_; }
  const InstallConnection& connection() const { return connection_; }
  const std::string& autorunPath() const { return autorunPath_; }
  bool removalRequested = false;
  // The receiving loop's mark of the batch of datagrams that last reached
  // this session (its own bookkeeping; see InstallServer::pollOnce).
  uint64_t batchMark = 0;

 private:
  void sendPayload(size_t payloadLength);
  void sendText(const std::string& payload);
  void handleTransfer();
  void startNextFile();

  RouterRecord request_;
  InstallConnection connection_;
  DatagramTransport& transport_;
  const app::Clock& clock_;
  uint8_t datagram_[kDatagramBufferSize];
  SentDatagram last_;
  ChunkRoom room_;
  std::unique_ptr<PackageSender> sender_;
  InstallState state_ = InstallState::Finished;
  uint64_t timeout_ = 0;
  uint64_t deadline_ = 0;
  std::string autorunPath_;
  bool confirmed_ = false;  // "WTRM" heard
};

// The "Router installer": owns the sessions and runs the receiving loop on
// its own thread. Every call from another thread takes the session lock.
class InstallServer : public app::Thread {
 public:
  InstallServer(DatagramTransport& transport, const app::Clock& clock, AutorunScriptMaker makeScript = nullptr);
  ~InstallServer() override;

  using app::Thread::start;
  void start(const RouterRecord& request, bool install);
  SessionStatus status(const MacAddress& mac);
  void reboot(const MacAddress& mac);
  void shutdown(const MacAddress& mac);
  void remove(const MacAddress& mac);
  // Sets the session's removalRequested; the loop destroys it at its next pass.
  void requestRemoval(const MacAddress& mac);

  // One pass of the receiving loop: time-out scan, one wait and the
  // dispatch of what arrived. The thread repeats it; tests call it directly.
  // Returns whether a datagram arrived.
  bool pollOnce();
  // The discovery hook, on the receiving thread.
  void onAnnouncement(const MacAddress& source, const uint8_t* payload, size_t length);

  DiscoveredRouterQueue& discovered() { return queue_; }
  app::Mutex& sessionLock() { return sessionLock_; }
  // For tests and diagnosis; call with the session lock held.
  Installator* session(const MacAddress& mac);
  size_t sessionCount();
  // The longest wait of one pass, µs (1 s; tests shorten it).
  void setMaxWaitUs(uint64_t us) { maxWaitUs_ = us; }

 protected:
  uint32_t run() override;

 private:
  static constexpr size_t kReceiveBatch = 64;
  // The time-out scan and removal; returns how long the next wait may be.
  uint64_t scanSessions();
  void dispatch(const uint8_t* datagram, int length, uint64_t nowUs);
  // A deadline somebody set: the next scan is due no later.
  void noteDeadline(uint64_t deadline);
  // Sends what the transport holds back and starts a new batch.
  void flushBatch();

  DatagramTransport& transport_;
  const app::Clock& clock_;
  AutorunScriptMaker makeScript_;
  app::Event stopEvent_;
  DiscoveredRouterQueue queue_;
  uint8_t receiveBuffer_[kDatagramBufferSize];
  app::Mutex sessionLock_;
  std::map<MacAddress, std::unique_ptr<Installator>> sessions_;
  uint64_t maxWaitUs_ = 1'000'000;
  // No session's deadline is before this (0: scan at the next pass).
  uint64_t nextScanUs_ = 0;
  bool scanDue_ = true;
  uint64_t batch_ = 1;
  bool inBatch_ = false;
};

}  // namespace tarnlift::install

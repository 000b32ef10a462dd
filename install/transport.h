// The installation protocol's UDP endpoint, behind a small interface that
// the sessions and the receiving loop use, so that tests can run them over
// an in-memory transport and a hand-moved clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/settings_store.h"
#include "install/install_datagram.h"
#include "net/udp_socket.h"

namespace tarnlift::install {

class DatagramTransport {
 public:
  virtual ~DatagramTransport() = default;
  // Sends length bytes (header and payload) to every peer; returns what the
  // system returned (negative on failure).
  virtual int send(const uint8_t* buffer, size_t length) = 0;
  // Waits at most timeoutUs µs (0: without limit) for a datagram of at most
  // kDatagramBufferSize bytes; its length, or -1 when nothing usable came.
  virtual int waitReceive(uint8_t* buffer, uint64_t timeoutUs) = 0;
  // The MAC of the interface the transport serves.
  virtual MacAddress localMac() const = 0;

  // Receiving and sending in batches, where the platform allows it. By
  // default a transport takes one datagram per wait and sends each at once.
  //
  // How many datagrams one waitReceiveBatch may bring.
  virtual size_t receiveBatchSize() const { return 1; }
  struct Received {
    const uint8_t* data;
    int length;  // -1: nothing usable
  };
  // Waits like waitReceive for a first datagram, then takes those that are
  // already waiting, at most count (<= receiveBatchSize()), and returns how
  // many entries of received it filled. The datagrams stay where they are
  // until the next call; scratch (kDatagramBufferSize bytes) is where a
  // transport without batches receives its one.
  virtual size_t waitReceiveBatch(uint8_t* scratch, Received* received, size_t count, uint64_t timeoutUs) {
    (void)count;
    received[0] = {scratch, waitReceive(scratch, timeoutUs)};
    return 1;
  }
  // After holdSends, send may only take note of a datagram (and return its
  // length); flushSends sends what was noted, in order. The caller leaves
  // each noted buffer unchanged until flushSends.
  virtual void holdSends() {}
  virtual void flushSends() {}
};

// What the transport learns about the interface that reaches the client
// address. address 0: no interface.
struct InstallInterface {
  uint32_t address = 0;  // network order
  MacAddress mac{};      // all zero when unknown
  std::string name;      // the system's name of the interface
};

// Picks the served interface for a client address and publishes it.
using InstallInterfaceResolver = std::function<InstallInterface(uint32_t clientAddress)>;
// The program's own resolver (interface discovery of the boot services).
InstallInterfaceResolver defaultInstallInterfaceResolver();

class InstallTransport : public DatagramTransport {
 public:
  struct Options {
    std::shared_ptr<app::SettingsStore> store;  // null: the default store
    InstallInterfaceResolver resolver;     // null: the program's own
    uint16_t backupPort = kInstallBackupPort;
    uint32_t broadcastAddress = 0xFFFFFFFFu;  // network order
    std::function<void(uint32_t)> sleep;      // null: sleepMilliseconds
  };

  InstallTransport();
  explicit InstallTransport(Options options);
  ~InstallTransport() override;
  InstallTransport(const InstallTransport&) = delete;
  InstallTransport& operator=(const InstallTransport&) = delete;

  // Stores the three values and opens. label: logged at each open, if given.
  void init(const MacAddress& localMac, std::optional<std::string> label, uint16_t port);
  void open();
  int send(const uint8_t* buffer, size_t length) override;
  int receive(uint8_t* buffer);
  int waitReceive(uint8_t* buffer, uint64_t timeoutUs) override;
  void close();
  MacAddress localMac() const override { return localMac_; }
  // Batches where the socket has them (Linux); the plain path elsewhere.
  size_t receiveBatchSize() const override;
  size_t waitReceiveBatch(uint8_t* scratch, Received* received, size_t count, uint64_t timeoutUs) override;
  void holdSends() override;
  void flushSends() override;

  uint16_t port() const { return port_; }
  bool isOpen() const { return socket_.isOpen(); }
  uint32_t clientAddress() const { return clientAddress_; }
  uint32_t servedAddress() const { return served_.address; }
  uint32_t sourceAddress() const { return sourceAddress_; }
  // The socket's system handle, for diagnosis and tests.
  intptr_t socketHandle() const { return socket_.nativeHandle(); }

 private:
  // After a wait that brought nothing: a failed receive is fatal; otherwise
  // the probe of the interface.
  void afterSilence(int result);

  Options options_;
  MacAddress localMac_{};
  std::optional<std::string> label_;
  uint16_t port_ = kInstallPort;
  net::UdpSocket socket_;
  uint32_t clientAddress_ = 0;
  InstallInterface served_;
  uint32_t sourceAddress_ = 0;
  uint16_t sourcePort_ = 0;
  bool holding_ = false;
  size_t heldCount_ = 0;
  net::UdpSocket::Outgoing held_[net::UdpSocket::kBatchLimit];
  // The last batch received: its messages, and which datagram is next
  // (a joined message holds several).
  bool joined_ = false;  // the socket hands over joined runs of datagrams
  std::unique_ptr<uint8_t[]> receiveArea_;
  net::UdpSocket::Incoming incoming_[net::UdpSocket::kBatchLimit];
  size_t incomingCount_ = 0;
  size_t nextMessage_ = 0;
  size_t nextOffset_ = 0;
};

// The "you have to etherboot" broadcast that asks routers on the segment to
// boot over the network. At most one exists in the process (InstallServices
// holds it).
class InstallBeacon {
 public:
  ~InstallBeacon() { destroy(); }
  bool create();
  // Sends the 21 bytes to 255.255.255.255, port 5010 (or the given target).
  void send(uint32_t address = 0xFFFFFFFFu, uint16_t port = kBeaconPort);
  void destroy();
  bool exists() const { return socket_.isOpen(); }

 private:
  net::UdpSocket socket_;
};

}  // namespace tarnlift::install

// An in-memory datagram network for the boot service engines: sockets with
// inboxes that tests fill, a record of everything sent, and time-outs that
// cost no time.
#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "netboot/boot_images.h"
#include "netboot/datagram.h"

namespace tarnlift::netboot::testing {

struct FakeDatagram {
  std::vector<uint8_t> bytes;
  uint32_t address = 0;
  uint16_t port = 0;
};

struct SentDatagram {
  std::string role;  // "bootp", "tftp" or "transfer"
  std::vector<uint8_t> bytes;
  uint32_t address = 0;
  uint16_t port = 0;
};

// The TFTP opcode of a sent datagram: its first two bytes.
inline uint16_t opcode(const SentDatagram& d) { return static_cast<uint16_t>(d.bytes[0] << 8 | d.bytes[1]); }

class FakeNetwork;

class FakeSocket : public DatagramSocket {
 public:
  FakeSocket(FakeNetwork& network, std::string socketRole, uint32_t address, uint16_t port)
      : network_(network), role(std::move(socketRole)), localAddress(address), localPort(port) {}
  ~FakeSocket() override;

  int sendTo(const void* data, size_t size, uint32_t address, uint16_t port) override;
  int receiveFrom(void* buffer, size_t size, uint32_t* address, uint16_t* port) override {
    if (inbox.empty()) {
      wouldBlock_ = true;
      return -1;
    }
    wouldBlock_ = false;
    FakeDatagram datagram = std::move(inbox.front());
    inbox.pop_front();
    size_t n = datagram.bytes.size() < size ? datagram.bytes.size() : size;
    if (n != 0) std::memcpy(buffer, datagram.bytes.data(), n);
    if (address != nullptr) *address = datagram.address;
    if (port != nullptr) *port = datagram.port;
    return static_cast<int>(n);
  }
  bool wouldBlock() const override { return wouldBlock_; }

  void deliver(std::vector<uint8_t> bytes, uint32_t from = 0, uint16_t fromPort = 0) {
    inbox.push_back({std::move(bytes), from, fromPort});
  }

  FakeNetwork& network_;
  std::string role;
  uint32_t localAddress;
  uint16_t localPort;
  std::deque<FakeDatagram> inbox;
  bool failSends = false;
  uint16_t failPort = 0;  // sends to this port fail

 private:
  bool wouldBlock_ = false;
};

class FakeNetwork : public DatagramNetwork {
 public:
  std::vector<SentDatagram> sent;
  // Called after each send (the peer's reaction), and on each time-out.
  std::function<void(FakeSocket& socket, const SentDatagram& datagram)> onSend;
  std::function<void()> onIdle;
  // Called when a socket is opened, before the caller gets it.
  std::function<void(FakeSocket& socket)> onOpen;
  int timeouts = 0;
  uint32_t lastWaitMs = 0;
  int opens = 0;
  bool failWait = false;
  FakeSocket* bootp = nullptr;
  FakeSocket* tftp = nullptr;
  FakeSocket* transfer = nullptr;
  FakeSocket* watch = nullptr;
  // Set: port 68 cannot be had, for this reason.
  std::string refuseWatch;

  std::unique_ptr<DatagramSocket> openBootp(uint32_t serverAddress) override {
    return open("bootp", serverAddress, 67, bootp);
  }
  std::unique_ptr<DatagramSocket> openTftp(uint32_t serverAddress) override {
    return open("tftp", serverAddress, 69, tftp);
  }
  std::unique_ptr<DatagramSocket> openTransfer(uint32_t serverAddress, uint16_t port) override {
    return open("transfer", serverAddress, port, transfer);
  }

  std::unique_ptr<DatagramSocket> openWatch(uint32_t serverAddress, std::string& why) override {
    if (!refuseWatch.empty()) {
      why = refuseWatch;
      return nullptr;
    }
    return open("watch", serverAddress, 68, watch);
  }

  int waitReadable(DatagramSocket* const* sockets, size_t count, uint32_t waitMs, bool* readable) override {
    lastWaitMs = waitMs;
    if (failWait) return -1;
    int ready = countReady(sockets, count, readable);
    if (ready != 0) return ready;
    ++timeouts;
    if (onIdle) onIdle();
    return 0;
  }

  std::vector<SentDatagram> sentBy(const std::string& role) const {
    std::vector<SentDatagram> result;
    for (const SentDatagram& datagram : sent) {
      if (datagram.role == role) result.push_back(datagram);
    }
    return result;
  }

  void forget(FakeSocket* socket) {
    if (bootp == socket) bootp = nullptr;
    if (tftp == socket) tftp = nullptr;
    if (transfer == socket) transfer = nullptr;
    if (watch == socket) watch = nullptr;
  }

 private:
  std::unique_ptr<DatagramSocket> open(const char* role, uint32_t address, uint16_t port, FakeSocket*& slot) {
    auto socket = std::make_unique<FakeSocket>(*this, role, address, port);
    slot = socket.get();
    ++opens;
    if (onOpen) onOpen(*socket);
    return socket;
  }

  static int countReady(DatagramSocket* const* sockets, size_t count, bool* readable) {
    int ready = 0;
    for (size_t i = 0; i < count; ++i) {
      readable[i] = !static_cast<FakeSocket*>(sockets[i])->inbox.empty();
      if (readable[i]) ++ready;
    }
    return ready;
  }
};

inline FakeSocket::~FakeSocket() { network_.forget(this); }

inline int FakeSocket::sendTo(const void* data, size_t size, uint32_t address, uint16_t port) {
  if (failSends || (failPort != 0 && port == failPort)) return -1;
  const auto* bytes = static_cast<const uint8_t*>(data);
  network_.sent.push_back({role, std::vector<uint8_t>(bytes, bytes + size), address, port});
  SentDatagram copy = network_.sent.back();
  if (network_.onSend) network_.onSend(*this, copy);
  return static_cast<int>(size);
}

// A boot image store whose records tests make up.
class FakeBootImageStore : public BootImageStore {
 public:
  std::map<int, std::vector<uint8_t>> records;
  std::vector<int> lookups;

  void add(int number, std::vector<uint8_t> content, size_t padding = 0) {
    std::vector<uint8_t> record = makeBootImageRecord(content.data(), content.size());
    record.resize(record.size() + padding, 0xEE);
    records[number] = std::move(record);
  }
  void addSized(int number, size_t length) {
    std::vector<uint8_t> content(length);
    for (size_t i = 0; i < length; ++i) content[i] = static_cast<uint8_t>(i * 7 + number);
    add(number, std::move(content));
  }
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    lookups.push_back(number);
    auto it = records.find(number);
    if (it == records.end()) return false;
    record = it->second.data();
    storedSize = it->second.size();
    return true;
  }
};

// Installs a store for the length of a test.
class ScopedBootImageStore {
 public:
  explicit ScopedBootImageStore(BootImageStore& store) { setBootImageStore(&store); }
  ~ScopedBootImageStore() { setBootImageStore(nullptr); }
};

}  // namespace tarnlift::netboot::testing

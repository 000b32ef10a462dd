#include "install/transport.h"

#include <algorithm>
#include <cstdio>

#include "app/failure.h"
#include "app/log.h"
#include "app/registry.h"
#include "app/sync.h"

namespace tarnlift::install {

InstallTransport::InstallTransport() : InstallTransport(Options{}) {}

InstallTransport::InstallTransport(Options options) : options_(std::move(options)) {
  if (!options_.resolver) options_.resolver = defaultInstallInterfaceResolver();
  if (!options_.sleep) options_.sleep = [](uint32_t ms) { app::sleepMilliseconds(ms); };
}

InstallTransport::~InstallTransport() { close(); }

void InstallTransport::init(const MacAddress& localMac, std::optional<std::string> label, uint16_t port) {
  localMac_ = localMac;
  label_ = std::move(label);
  port_ = port;
  socket_.close();
  open();
}

void InstallTransport::open() {
  socket_.close();
  {
    app::Registry settings;
    settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, options_.store);
    clientAddress_ = settings.readInt("PXE Client Address", 0);
  }
  served_ = options_.resolver(clientAddress_);
  if (served_.address == 0) return;
  // The MAC given to init stays ours across reopens: sessions and routers
  // already address us by it. Only a caller that knew none (all zero) gets
  // the served interface's, since routers cannot answer an all-zero MAC.
  if (isZeroMac(localMac_)) localMac_ = served_.mac;
  if (label_) app::logLine() << "socket(): " << *label_;

  if (!socket_.open()) {
    std::string message = "socket() failed";
    app::reportSocketFailure(message, true);
  }
  if (!socket_.setBroadcast()) {
    std::string message = "setsockopt() SO_BROADCAST failed";
    app::reportSocketFailure(message, true);
  }
  if (!socket_.setReuseAddress()) {
    std::string message = "setsockopt() SO_REUSEADDR failed";
    app::reportSocketFailure(message, true);
  }
  socket_.ignoreConnectionResets();
  if (!isZeroMac(localMac_)) socket_.dropDatagramsFrom(localMac_.data());
  // Where batches exist, runs of datagrams (our own looped back, a
  // router's) come in one piece instead of being cut up one by one.
  incomingCount_ = nextMessage_ = nextOffset_ = 0;
  joined_ = net::UdpSocket::batchesAvailable() && socket_.receiveJoined();
  if (!socket_.bindOnInterface(served_.address, port_, served_.name)) {
    if (socket_.bindOnInterface(served_.address, options_.backupPort, served_.name)) {
      app::logLine() << "bound to backup port";
      port_ = options_.backupPort;
    } else {
      // Deliberately quiet: the socket stays open and unbound and the
      // program goes on; the text is only kept for a debugger.
      char text[64];
      std::snprintf(text, sizeof text, "bind() failed(port=%d,%d)", static_cast<int16_t>(port_),
                    static_cast<int>(options_.backupPort));
      (void)text;
    }
  }
}

int InstallTransport::send(const uint8_t* buffer, size_t length) {
  if (holding_) {
    if (heldCount_ == net::UdpSocket::kBatchLimit) {
      flushSends();
      holding_ = true;
    }
    held_[heldCount_++] = {buffer, length};
    return static_cast<int>(length);
  }
  if (!socket_.isOpen()) open();
  if (!socket_.isOpen()) return -1;
  return socket_.sendTo(buffer, length, options_.broadcastAddress, port_);
}

void InstallTransport::holdSends() { holding_ = net::UdpSocket::batchesAvailable(); }

void InstallTransport::flushSends() {
  holding_ = false;
  if (heldCount_ == 0) return;
  size_t count = heldCount_;
  heldCount_ = 0;
  if (!socket_.isOpen()) open();
  if (!socket_.isOpen()) return;
  socket_.sendBatch(held_, count, options_.broadcastAddress, port_);
}

size_t InstallTransport::receiveBatchSize() const {
  return net::UdpSocket::batchesAvailable() ? net::UdpSocket::kBatchLimit : 1;
}

int InstallTransport::receive(uint8_t* buffer) {
  int count = socket_.receiveFrom(buffer, kDatagramBufferSize, &sourceAddress_, &sourcePort_);
  if (count < 0) {
    std::string message = "recvfrom() failed";
    app::reportSocketFailure(message, true);
  }
  if (sourcePort_ != port_) return -1;
  return count;
}

int InstallTransport::waitReceive(uint8_t* buffer, uint64_t timeoutUs) {
  if (!socket_.isOpen()) {
    options_.sleep(1000);
    open();
    return -1;
  }
  int count = socket_.receiveWithin(buffer, kDatagramBufferSize, timeoutUs, &sourceAddress_, &sourcePort_);
  if (count >= 0) return sourcePort_ == port_ ? count : -1;
  afterSilence(count);
  return -1;
}

void InstallTransport::afterSilence(int result) {
  if (result != net::UdpSocket::kTimedOut && result != net::UdpSocket::kWaitFailed) {
    std::string message = "recvfrom() failed";
    app::reportSocketFailure(message, true);
  }
  // Nothing came, or the wait itself failed (a socket that the system no
  // longer knows): check that the interface is still there by sending one
  // byte to our own address; a failure means it went away, so start again.
  uint8_t probe = 0;
  if (socket_.sendTo(&probe, 1, served_.address, kProbePort) < 0) open();
}

size_t InstallTransport::waitReceiveBatch(uint8_t* scratch, Received* received, size_t count, uint64_t timeoutUs) {
  if (count <= 1 || !socket_.isOpen() || !net::UdpSocket::batchesAvailable()) {
    received[0] = {scratch, waitReceive(scratch, timeoutUs)};
    return 1;
  }
  // A joined message can be as long as a UDP datagram can; a plain one is
  // cut at the receive buffer's size, as a single receive would cut it.
  size_t messageSize = joined_ ? 65536 : kDatagramBufferSize;
  if (nextMessage_ == incomingCount_) {
    if (!receiveArea_) {
      // Not cleared: only the pages that datagrams reach become resident.
      receiveArea_ = std::make_unique_for_overwrite<uint8_t[]>(net::UdpSocket::kBatchLimit * 65536);
    }
    for (size_t i = 0; i < net::UdpSocket::kBatchLimit; ++i) {
      incoming_[i] = {receiveArea_.get() + i * messageSize, messageSize, -1, 0, 0, 0};
    }
    int got = socket_.receiveBatchWithin(incoming_, net::UdpSocket::kBatchLimit, timeoutUs);
    if (got <= 0) {
      incomingCount_ = nextMessage_ = 0;
      received[0] = {scratch, -1};
      afterSilence(got);
      return 1;
    }
    incomingCount_ = static_cast<size_t>(got);
    nextMessage_ = nextOffset_ = 0;
  }
  // Hand out the datagrams one by one, those of a joined message too.
  size_t n = 0;
  while (n < count && nextMessage_ < incomingCount_) {
    const net::UdpSocket::Incoming& message = incoming_[nextMessage_];
    size_t total = static_cast<size_t>(std::max(message.length, 0));
    size_t piece = message.segmentSize != 0 ? message.segmentSize : total;
    piece = std::min(piece, total - nextOffset_);
    int length = static_cast<int>(std::min(piece, kDatagramBufferSize));
    // As receive does for each: only datagrams from our own port count.
    sourceAddress_ = message.address;
    sourcePort_ = message.port;
    received[n++] = {static_cast<const uint8_t*>(message.buffer) + nextOffset_, message.port == port_ ? length : -1};
    nextOffset_ += piece;
    if (nextOffset_ >= total) {
      ++nextMessage_;
      nextOffset_ = 0;
    }
  }
  return n;
}

void InstallTransport::close() { socket_.close(); }

bool InstallBeacon::create() {
  if (!socket_.open()) {
    app::logLine() << "UDP: socket: " << net::UdpSocket::lastError();
    return false;
  }
  if (!socket_.setBroadcast()) {
    app::logLine() << "UDP: setsockopt() SO_BROADCAST: " << net::UdpSocket::lastError();
    socket_.close();
    return false;
  }
  if (!socket_.setReuseAddress()) {
    app::logLine() << "UDP: setsockopt() SO_REUSEADDR: " << net::UdpSocket::lastError();
    socket_.close();
    return false;
  }
  return true;
}

void InstallBeacon::send(uint32_t address, uint16_t port) {
  if (!socket_.isOpen()) return;
  static const char kText[] = "you have to etherboot";
  int sent = socket_.sendTo(kText, 21, address, port);
  if (sent < 21) app::logLine() << "UDP: sendto: " << net::UdpSocket::lastError();
}

void InstallBeacon::destroy() { socket_.close(); }

}  // namespace tarnlift::install

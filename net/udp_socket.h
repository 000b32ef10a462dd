// A UDP socket shared by the boot services and the installation transport:
// creation, options, binding on an interface, send, receive and waiting.
// Calls report failure by their result; the caller decides whether that is
// fatal (it usually is: reportSocketFailure(message, true)).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnlift::net {

// The limited broadcast address, network order.
inline constexpr uint32_t kBroadcastAddress = 0xFFFFFFFFu;

// Starts the platform's socket library once per process (Winsock); nothing
// to do on Linux. Front ends start it themselves; tests call this.
void startSocketLibrary();

// An IPv4 socket of type (SOCK_DGRAM, SOCK_STREAM) that no child process
// inherits: close-on-exec on Linux, WSA_FLAG_NO_HANDLE_INHERIT on Windows,
// so that a command started later never holds a port of ours. The
// system's handle, or -1 (INVALID_SOCKET) when it refuses.
intptr_t openPrivateSocket(int type);

class UdpSocket {
 public:
  UdpSocket() = default;
  ~UdpSocket() { close(); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  UdpSocket(UdpSocket&& other) noexcept : handle_(other.handle_), armedTimeoutUs_(other.armedTimeoutUs_) {
    other.handle_ = kNoHandle;
  }
  UdpSocket& operator=(UdpSocket&& other) noexcept;

  bool open();
  bool isOpen() const { return handle_ != kNoHandle; }
  void close();

  bool setReuseAddress();
  bool setBroadcast();
  // Windows reports an ICMP port-unreachable as an error of the next
  // receive; this switches that off (result ignored). Nothing to do on Linux.
  void ignoreConnectionResets();
  bool setNonBlocking();

  // Plain bind to (address, port); address 0 is any, port 0 lets the system pick.
  bool bind(uint32_t address, uint16_t port);
  // Binds so that the socket hears datagrams arriving on the interface that
  // holds address, broadcasts to 255.255.255.255 included, and sends its
  // broadcasts out of that interface. Linux ties the socket to device (by
  // SO_BINDTODEVICE, which needs root or CAP_NET_RAW) and binds the wildcard
  // address; where that is not permitted or device is empty it logs and
  // falls back to bind(address, port). Windows binds (address, port), which
  // hears that interface's broadcasts already.
  bool bindOnInterface(uint32_t address, uint16_t port, const std::string& device);

  // Bytes sent, or -1.
  int sendTo(const void* data, size_t size, uint32_t address, uint16_t port);
  // Asks the system to discard, before they wake anybody, arriving datagrams
  // whose payload starts with mac: the copies of our own broadcasts that the
  // system hands back to us. Does nothing where the platform has no such
  // filter; callers drop those datagrams anyway.
  void dropDatagramsFrom(const uint8_t* mac);

  // Waits at most timeoutUs (0: without limit) and receives: the byte count,
  // kTimedOut when nothing came, kWaitFailed when the wait itself failed
  // (nothing was received), -1 when the receive failed. One system call per
  // datagram where the platform allows (a receive time-out kept on the socket).
  static constexpr int kTimedOut = -2;
  static constexpr int kWaitFailed = -3;
  int receiveWithin(void* buffer, size_t size, uint64_t timeoutUs, uint32_t* address, uint16_t* port);

  // The last error of a socket call on this thread.
  static uint32_t lastError();

  // Bytes received, or -1 (wouldBlock() tells a non-blocking socket's "nothing now").
  int receiveFrom(void* buffer, size_t size, uint32_t* address = nullptr, uint16_t* port = nullptr);
  static bool wouldBlock();

  // Network-order address and host-order port the socket is bound to.
  uint16_t localPort() const;

  // Waits up to milliseconds until one of the sockets is readable. Returns -1
  // on error, 0 on time-out, else the number readable; readable[i] tells which.
  static int waitReadable(UdpSocket* const* sockets, size_t count, uint32_t milliseconds, bool* readable);
  bool waitReadable(uint32_t milliseconds);

  intptr_t nativeHandle() const { return handle_; }

  // Many datagrams per system call where the platform allows it (Linux);
  // elsewhere these take one call per datagram.
  static constexpr size_t kBatchLimit = 64;
  // Whether the platform moves several datagrams per call.
  static bool batchesAvailable();
  struct Outgoing {
    const void* data;
    size_t size;
  };
  // Sends the datagrams to (address, port) in their order. Linux sends them
  // in one call, and a run of datagrams of one size (the last may be
  // shorter) as one segmented send that the system cuts into the same
  // datagrams. Returns how many the system took.
  size_t sendBatch(const Outgoing* datagrams, size_t count, uint32_t address, uint16_t port);
  // Lets the system hand over a run of datagrams that came as one
  // segmented send (or that the device joined) in one piece, without
  // cutting it up first; receiveBatchWithin then tells the size of the
  // pieces. Returns whether the platform does this (Linux).
  bool receiveJoined();
  struct Incoming {
    void* buffer;
    size_t size;
    // Filled in: the bytes received; with receiveJoined, segmentSize > 0
    // says they are several datagrams of that size (the last may be shorter).
    int length;
    uint16_t segmentSize;
    uint32_t address;
    uint16_t port;
  };
  // Waits at most timeoutUs (0: without limit) for a first datagram like
  // receiveWithin, then takes those already waiting, at most count (up to
  // kBatchLimit). Returns how many were received, kTimedOut or -1.
  int receiveBatchWithin(Incoming* datagrams, size_t count, uint64_t timeoutUs);

 private:
  static constexpr intptr_t kNoHandle = -1;
  intptr_t handle_ = kNoHandle;
  uint64_t armedTimeoutUs_ = 0;  // the receive time-out the socket is set to; 0 none
  bool segmentedSends_ = true;   // false once the system refused a segmented send
};

}  // namespace tarnlift::net

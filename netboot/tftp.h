// The read side of TFTP: the read request and its options, and one transfer
// of a whole content to one client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "netboot/datagram.h"

namespace tarnlift::netboot {

inline constexpr uint16_t kTftpPort = 69;
inline constexpr uint32_t kTftpDefaultBlockSize = 512;
inline constexpr uint32_t kTftpMaxBlockSize = 1468;
inline constexpr size_t kTftpRequestSize = 4096;
inline constexpr uint16_t kTftpOpRead = 1;
inline constexpr uint16_t kTftpOpData = 3;
inline constexpr uint16_t kTftpOpAck = 4;
inline constexpr uint16_t kTftpOpError = 5;
inline constexpr uint16_t kTftpOpOack = 6;
// Time-outs before the first answer, and after any datagram (each 200 ms).
inline constexpr int kTftpFirstBudget = 50;
inline constexpr int kTftpBudget = 10;
inline constexpr uint32_t kTftpWaitMs = 200;
// RFC 7440 window sizes: a request may name 1 to 65,535 blocks per
// acknowledgement; the server grants at most 64 (a burst a small switch or a
// firmware's receive ring still takes whole).
inline constexpr uint32_t kTftpMaxWindowSize = 64;
inline constexpr long long kTftpWindowSizeLimit = 65535;
// A windowed transfer resends sooner, and backs off: its first wait after
// any datagram is 50 ms (a lost datagram stalls a whole window), each further
// time-out in a row doubles the wait up to 1.6 s, so that a client whose own
// timer restarts with every datagram it gets (and ignores) still gets a
// silence long enough to repeat its lost acknowledgement. It gives up after
// 10 s of silence before the first answer and 4 s after any datagram.
// The OACK is the exception: its first repeat waits kTftpWaitMs, as in lock
// step. A client acknowledges it only once it is ready to receive (firmware
// first makes room for the whole file), and some clients abort a transfer on
// a second OACK ("unexpected OACK"), so repeating it early costs a download.
inline constexpr uint32_t kTftpWindowWaitMs = 50;
inline constexpr uint32_t kTftpWindowMaxWaitMs = 1600;
inline constexpr uint32_t kTftpWindowFirstSilenceMs = 10000;
inline constexpr uint32_t kTftpWindowSilenceMs = 4000;

struct TftpOptions {
  bool wantsTsize = false;
  bool wantsBlksize = false;
  bool wantsWindowsize = false;
  bool needsOack = false;
  uint32_t blockSize = kTftpDefaultBlockSize;
  uint32_t windowSize = 1;
};

struct TftpReadRequest {
  std::string fileName;
  std::string mode;
  TftpOptions options;
};

// True when the datagram is a read request (at least 4 bytes, opcode 1).
bool isTftpReadRequest(const uint8_t* data, size_t length);
// The file name: the NUL-terminated text at offset 2 (cut at the end of the
// datagram when the NUL is missing).
std::string tftpFileName(const uint8_t* data, size_t length);
// Reads the name/value pairs after the file name and mode: "tsize",
// "blksize" (names in any letter case; the block size capped at 1468, no
// lower bound) and "windowsize" (1 to 65,535 is granted up to 64; any other
// value is invalid and the option is ignored, as RFC 7440 says); others are
// ignored. Logs "blksize " and the value, and "windowsize <asked> granted
// <n>" or "windowsize <asked> ignored".
TftpOptions parseTftpOptions(const uint8_t* data, size_t length);
// Both of the above; false when not a read request.
bool parseTftpReadRequest(const uint8_t* data, size_t length, TftpReadRequest& request);

// The OACK for options and a content of fileSize bytes: "tsize" only when
// asked for and the size is not 0, "blksize" and "windowsize" when asked for
// (and granted).
std::vector<uint8_t> makeTftpOack(const TftpOptions& options, uint32_t fileSize);

// One transfer: its own socket on (serverAddress, a pseudo-random port of
// 32768 or above), every packet to (peerAddress, peerPort). Blocks until the
// last block is acknowledged or the retry budget runs out.
//
// Without a granted window of more than one block the transfer goes in lock
// step, one block per acknowledgement, exactly as it always has. With a
// window of W blocks (RFC 7440) it sends W blocks, then waits: an
// acknowledgement of any block it has sent moves the window to start right
// after that block (the client missed the next one, or took them all); a
// repeat of the acknowledgement that started the current window is ignored;
// a time-out sends the window again from the block after the last one
// acknowledged, after shorter time-outs that back off (see below).
class TftpTransfer {
 public:
  TftpTransfer(DatagramNetwork& network, uint32_t serverAddress, uint32_t peerAddress, uint16_t peerPort);

  // Sends content as negotiated by request (the read request's bytes). On
  // completion drains tftpSocket (may be null), logging "flush tftpSk: " for
  // each datagram. True when the client acknowledged every byte.
  bool send(const uint8_t* request, size_t requestLength, const uint8_t* content, uint32_t length,
            DatagramSocket* tftpSocket);

  uint16_t localPort() const { return localPort_; }
  const TftpOptions& options() const { return options_; }

  // Picks the transfer port the way the server does: the generator's low
  // byte with bit 7 set, then its next byte.
  static uint16_t randomTransferPort();

 private:
  void sendPacket(const std::vector<uint8_t>& packet);
  // The two ways of moving the content once the OACK (if any) is out; true
  // when every block was acknowledged.
  bool sendLockStep(const uint8_t* content, uint32_t length);
  bool sendWindowed(const uint8_t* content, uint32_t length);
  // Sends the data block with the given count (1 is the first) of content.
  void sendBlock(uint64_t block, const uint8_t* content, uint32_t length);
  // Waits up to waitMs for one datagram: 1 and an acknowledged block number
  // when an ACK came, 0 for any other datagram, -1 on a time-out.
  int awaitAck(uint32_t waitMs, uint16_t& acked);

  DatagramNetwork& network_;
  uint32_t serverAddress_;
  uint32_t peerAddress_;
  uint16_t peerPort_;
  uint16_t localPort_ = 0;
  uint32_t blockNumber_ = 0;
  TftpOptions options_;
  std::unique_ptr<DatagramSocket> socket_;
  std::vector<uint8_t> lastPacket_;
  std::vector<uint8_t> blockPacket_;
};

}  // namespace tarnlift::netboot

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

struct TftpOptions {
  bool wantsTsize = false;
  bool wantsBlksize = false;
  bool needsOack = false;
  uint32_t blockSize = kTftpDefaultBlockSize;
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
// Reads the name/value pairs after the file name and mode: "tsize" and
// "blksize" (names in any letter case; the block size capped at 1468, no
// lower bound); others are ignored. Logs "blksize " and the value.
TftpOptions parseTftpOptions(const uint8_t* data, size_t length);
// Both of the above; false when not a read request.
bool parseTftpReadRequest(const uint8_t* data, size_t length, TftpReadRequest& request);

// The OACK for options and a content of fileSize bytes: "tsize" only when
// asked for and the size is not 0, "blksize" when asked for.
std::vector<uint8_t> makeTftpOack(const TftpOptions& options, uint32_t fileSize);

// One transfer: its own socket on (serverAddress, a pseudo-random port of
// 32768 or above), every packet to (peerAddress, peerPort). Blocks until the
// last block is acknowledged or the retry budget runs out.
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

  DatagramNetwork& network_;
  uint32_t serverAddress_;
  uint32_t peerAddress_;
  uint16_t peerPort_;
  uint16_t localPort_ = 0;
  uint32_t blockNumber_ = 0;
  TftpOptions options_;
  std::unique_ptr<DatagramSocket> socket_;
  std::vector<uint8_t> lastPacket_;
};

}  // namespace tarnlift::netboot

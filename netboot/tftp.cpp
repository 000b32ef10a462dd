#include "netboot/tftp.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/failure.h"
#include "app/log.h"

namespace tarnlift::netboot {
namespace {

// The text at pos up to its NUL or the end of the datagram; pos moves past
// the NUL.
std::string nextString(const uint8_t* data, size_t length, size_t& pos) {
  size_t start = pos;
  while (pos < length && data[pos] != 0) ++pos;
  std::string text(reinterpret_cast<const char*>(data + start), pos - start);
  if (pos < length) ++pos;
  return text;
}

bool equalsIgnoringCase(const std::string& a, const char* b) {
  size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    if (x != b[i]) return false;
  }
  return true;
}

// A decimal number as the C library reads one: leading blanks, a sign,
// digits up to the first other character; no digits reads as 0. Negative
// values and values beyond a signed 32-bit number give -1.
long long readDecimal(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size() && (text[pos] == ' ' || (text[pos] >= '\t' && text[pos] <= '\r'))) ++pos;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) negative = text[pos++] == '-';
  long long value = 0;
  bool overflow = false;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    value = value * 10 + (text[pos++] - '0');
    if (value > 0x7FFFFFFFLL) overflow = true, value = 0x80000000LL;
  }
  if (overflow || (negative && value != 0)) return -1;
  return value;
}

void appendText(std::vector<uint8_t>& packet, const std::string& text) {
  packet.insert(packet.end(), text.begin(), text.end());
  packet.push_back(0);
}

}  // namespace

bool isTftpReadRequest(const uint8_t* data, size_t length) {
  return length >= 4 && data[0] == 0 && data[1] == kTftpOpRead;
}

std::string tftpFileName(const uint8_t* data, size_t length) {
  size_t pos = 2;
  return length > 2 ? nextString(data, length, pos) : std::string();
}

TftpOptions parseTftpOptions(const uint8_t* data, size_t length) {
  TftpOptions options;
  size_t pos = 2;
  nextString(data, length, pos);  // file name
  nextString(data, length, pos);  // mode
  while (pos < length) {
    std::string name = nextString(data, length, pos);
    std::string value = nextString(data, length, pos);
    if (equalsIgnoringCase(name, "tsize")) {
      options.wantsTsize = true;
      options.needsOack = true;
    } else if (equalsIgnoringCase(name, "blksize")) {
      long long asked = readDecimal(value);
      options.blockSize = (asked < 0 || asked > kTftpMaxBlockSize) ? kTftpMaxBlockSize : static_cast<uint32_t>(asked);
      logLine() << "blksize " << value;
      options.wantsBlksize = true;
      options.needsOack = true;
    }
  }
  return options;
}

bool parseTftpReadRequest(const uint8_t* data, size_t length, TftpReadRequest& request) {
  if (!isTftpReadRequest(data, length)) return false;
  size_t pos = 2;
  request.fileName = nextString(data, length, pos);
  request.mode = nextString(data, length, pos);
  request.options = parseTftpOptions(data, length);
  return true;
}

std::vector<uint8_t> makeTftpOack(const TftpOptions& options, uint32_t fileSize) {
  std::vector<uint8_t> packet{0, static_cast<uint8_t>(kTftpOpOack)};
  if (options.wantsTsize && fileSize != 0) {
    appendText(packet, "tsize");
    char number[16];
    std::snprintf(number, sizeof number, "%u", fileSize);
    appendText(packet, number);
  }
  if (options.wantsBlksize) {
    appendText(packet, "blksize");
    appendText(packet, std::to_string(options.blockSize));
  }
  return packet;
}

uint16_t TftpTransfer::randomTransferPort() {
  uint32_t high = (static_cast<uint32_t>(std::rand()) & 0xFF) | 0x80;
  uint32_t low = static_cast<uint32_t>(std::rand()) & 0xFF;
  return static_cast<uint16_t>(high << 8 | low);
}

TftpTransfer::TftpTransfer(DatagramNetwork& network, uint32_t serverAddress, uint32_t peerAddress, uint16_t peerPort)
    : network_(network), serverAddress_(serverAddress), peerAddress_(peerAddress), peerPort_(peerPort) {}

void TftpTransfer::sendPacket(const std::vector<uint8_t>& packet) {
  // A failed send only costs a retransmission.
  socket_->sendTo(packet.data(), packet.size(), peerAddress_, peerPort_);
}

bool TftpTransfer::send(const uint8_t* request, size_t requestLength, const uint8_t* content, uint32_t length,
                        DatagramSocket* tftpSocket) {
  blockNumber_ = 0;
  localPort_ = randomTransferPort();
  socket_ = network_.openTransfer(serverAddress_, localPort_);
  options_ = parseTftpOptions(request, requestLength);
  lastPacket_.clear();
  if (options_.needsOack) {
    lastPacket_ = makeTftpOack(options_, length);
    sendPacket(lastPacket_);
  }
  logLine() << "sendFile " << length;

  uint32_t sent = 0;
  auto sendNextBlock = [&] {
    uint32_t remaining = length - sent;
    uint32_t chunk = remaining < options_.blockSize ? remaining : options_.blockSize;
    ++blockNumber_;
    lastPacket_.resize(4 + chunk);
    lastPacket_[0] = 0;
    lastPacket_[1] = static_cast<uint8_t>(kTftpOpData);
    lastPacket_[2] = static_cast<uint8_t>(blockNumber_ >> 8);
    lastPacket_[3] = static_cast<uint8_t>(blockNumber_);
    if (chunk != 0) std::memcpy(lastPacket_.data() + 4, content + sent, chunk);
    sent += chunk;
    sendPacket(lastPacket_);
  };

  int budget = kTftpFirstBudget;
  uint8_t buffer[kTftpRequestSize];
  while (true) {
    DatagramSocket* socket = socket_.get();
    bool readable = false;
    int ready = network_.waitReadable(&socket, 1, kTftpWaitMs, &readable);
    if (ready < 0) fatalFailure("select failed");
    if (ready == 0 || !readable) {
      if (budget == 1) {
        logLine() << "TFTP timeout";
        socket_.reset();
        return false;
      }
      // A request without options has nothing to repeat yet: its first
      // time-out sends block 1, as if block 0 had been acknowledged.
      if (lastPacket_.empty()) {
        sendNextBlock();
      } else {
        sendPacket(lastPacket_);
      }
      --budget;
      continue;
    }
    int received = socket_->receiveFrom(buffer, sizeof buffer, nullptr, nullptr);
    if (received < 0) {
      std::string message = "recvfrom failed";
      reportSocketFailure(message, true);
    }
    budget = kTftpBudget;
    if (received != 4 || buffer[0] != 0 || buffer[1] != kTftpOpAck) continue;
    uint16_t acked = static_cast<uint16_t>(buffer[2] << 8 | buffer[3]);
    if (acked == static_cast<uint16_t>(blockNumber_)) {
      if (sent >= length) break;
      // A negotiated block size of 0 moves no data, however long the client
      // keeps acknowledging: give up as a transfer that ran out of time, so
      // that no client can hold the boot server's only thread.
      if (options_.blockSize == 0) {
        logLine() << "TFTP timeout";
        socket_.reset();
        return false;
      }
      sendNextBlock();
    } else if (acked == static_cast<uint16_t>(blockNumber_ - 1) && !lastPacket_.empty()) {
      sendPacket(lastPacket_);
    }
  }

  // Read requests the client repeated meanwhile must not start a second
  // transfer of the same file.
  if (tftpSocket != nullptr) {
    while (true) {
      int flushed = tftpSocket->receiveFrom(buffer, sizeof buffer, nullptr, nullptr);
      if (flushed < 0) break;
      logLine() << "flush tftpSk: " << flushed;
    }
  }
  socket_.reset();
  return true;
}

}  // namespace tarnlift::netboot

#include "netboot/tftp.h"

#include <cstdint>
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
      app::logLine() << "blksize " << value;
      options.wantsBlksize = true;
      options.needsOack = true;
    } else if (equalsIgnoringCase(name, "windowsize")) {
      long long asked = readDecimal(value);
      // Outside 1..65535 the option is invalid: ignored, left out of the
      // OACK, and the transfer goes in lock step.
      if (asked >= 1 && asked <= kTftpWindowSizeLimit) {
        options.windowSize = asked > kTftpMaxWindowSize ? kTftpMaxWindowSize : static_cast<uint32_t>(asked);
        options.wantsWindowsize = true;
        options.needsOack = true;
      }
      app::logLine() << "windowsize " << value << (options.wantsWindowsize ? " granted " : " ignored")
                     << (options.wantsWindowsize ? std::to_string(options.windowSize) : std::string());
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
  if (options.wantsWindowsize) {
    appendText(packet, "windowsize");
    appendText(packet, std::to_string(options.windowSize));
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
  app::logLine() << "sendFile " << length;

  bool done = options_.windowSize > 1 ? sendWindowed(content, length) : sendLockStep(content, length);
  if (!done) {
    socket_.reset();
    return false;
  }

  // Read requests the client repeated meanwhile must not start a second
  // transfer of the same file.
  if (tftpSocket != nullptr) {
    uint8_t buffer[kTftpRequestSize];
    while (true) {
      int flushed = tftpSocket->receiveFrom(buffer, sizeof buffer, nullptr, nullptr);
      if (flushed < 0) break;
      app::logLine() << "flush tftpSk: " << flushed;
    }
  }
  socket_.reset();
  return true;
}

int TftpTransfer::awaitAck(uint32_t waitMs, uint16_t& acked) {
  DatagramSocket* socket = socket_.get();
  bool readable = false;
  int ready = network_.waitReadable(&socket, 1, waitMs, &readable);
  if (ready < 0) app::fatalFailure("select failed");
  if (ready == 0 || !readable) return -1;
  uint8_t buffer[kTftpRequestSize];
  int received = socket_->receiveFrom(buffer, sizeof buffer, nullptr, nullptr);
  if (received < 0) {
    std::string message = "recvfrom failed";
    app::reportSocketFailure(message, true);
  }
  if (received != 4 || buffer[0] != 0 || buffer[1] != kTftpOpAck) return 0;
  acked = static_cast<uint16_t>(buffer[2] << 8 | buffer[3]);
  return 1;
}

bool TftpTransfer::sendLockStep(const uint8_t* content, uint32_t length) {
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
  while (true) {
    uint16_t acked = 0;
    int got = awaitAck(kTftpWaitMs, acked);
    if (got == -1) {
      if (budget == 1) {
        app::logLine() << "TFTP timeout";
        return false;
      }
      --budget;
      // A request without options has nothing to repeat yet: its first
      // time-out sends block 1, as if block 0 had been acknowledged.
      if (lastPacket_.empty()) {
        sendNextBlock();
      } else {
        sendPacket(lastPacket_);
      }
      continue;
    }
    budget = kTftpBudget;
    if (got == 0) continue;
    if (acked == static_cast<uint16_t>(blockNumber_)) {
      if (sent >= length) return true;
      // A negotiated block size of 0 moves no data, however long the client
      // keeps acknowledging: give up as a transfer that ran out of time, so
      // that no client can hold the boot server's only thread.
      if (options_.blockSize == 0) {
        app::logLine() << "TFTP timeout";
        return false;
      }
      sendNextBlock();
    } else if (acked == static_cast<uint16_t>(blockNumber_ - 1) && !lastPacket_.empty()) {
      sendPacket(lastPacket_);
    }
  }
}

void TftpTransfer::sendBlock(uint64_t block, const uint8_t* content, uint32_t length) {
  uint64_t offset = (block - 1) * options_.blockSize;
  uint64_t remaining = offset < length ? length - offset : 0;
  size_t chunk = static_cast<size_t>(remaining < options_.blockSize ? remaining : options_.blockSize);
  blockPacket_.resize(4 + chunk);
  blockPacket_[0] = 0;
  blockPacket_[1] = static_cast<uint8_t>(kTftpOpData);
  blockPacket_[2] = static_cast<uint8_t>(block >> 8);
  blockPacket_[3] = static_cast<uint8_t>(block);
  if (chunk != 0) std::memcpy(blockPacket_.data() + 4, content + offset, chunk);
  sendPacket(blockPacket_);
}

bool TftpTransfer::sendWindowed(const uint8_t* content, uint32_t length) {
  // Block counts run on in 64 bits; on the wire they are the low 16 bits,
  // which roll over to 0 after 65535.
  const uint64_t blockSize = options_.blockSize;
  const uint64_t total =
      blockSize == 0 ? (length == 0 ? 0 : UINT64_MAX) : (uint64_t(length) + blockSize - 1) / blockSize;
  const uint64_t window = options_.windowSize;
  uint64_t acked = 0;     // every block up to this one has been acknowledged
  uint64_t sentUpTo = 0;  // the highest block sent so far
  bool started = false;   // the client acknowledged the OACK
  auto sendWindow = [&] {
    uint64_t last = acked + window < total ? acked + window : total;
    for (uint64_t block = acked + 1; block <= last; ++block) sendBlock(block, content, length);
    if (last > sentUpTo) sentUpTo = last;
  };

  uint32_t wait = kTftpWaitMs;  // the OACK's first repeat; kTftpWindowWaitMs once the client answers
  uint32_t silence = 0;  // waited since the last datagram, in time-outs' worth
  uint32_t silenceLimit = kTftpWindowFirstSilenceMs;
  while (true) {
    uint16_t ack = 0;
    uint32_t thisWait = wait < silenceLimit - silence ? wait : silenceLimit - silence;
    int got = awaitAck(thisWait, ack);
    if (got == -1) {
      silence += thisWait;
      if (silence >= silenceLimit) {
        app::logLine() << "TFTP timeout";
        return false;
      }
      wait = wait * 2 < kTftpWindowMaxWaitMs ? wait * 2 : kTftpWindowMaxWaitMs;
      // The client missed the OACK or the window (or its acknowledgement
      // was lost): go again from the block after the last acknowledged one.
      if (started) {
        sendWindow();
      } else {
        sendPacket(lastPacket_);
      }
      continue;
    }
    wait = kTftpWindowWaitMs;
    silence = 0;
    silenceLimit = kTftpWindowSilenceMs;
    if (got == 0) continue;
    if (!started) {
      if (ack != 0) continue;
      started = true;
    } else {
      // Only blocks sent and not yet acknowledged count: at most a window
      // ahead of the last acknowledged one, so the 16-bit number names one.
      // A repeat of the last acknowledgement (a duplicate datagram, or the
      // client's own time-out) is left to our time-out, which resends the
      // window anyway: answering every copy would double the traffic.
      uint64_t ahead = static_cast<uint16_t>(ack - static_cast<uint16_t>(acked));
      if (ahead == 0 || ahead > sentUpTo - acked) continue;
      acked += ahead;
    }
    if (acked >= total) return true;
    if (blockSize == 0) {
      app::logLine() << "TFTP timeout";
      return false;
    }
    sendWindow();
  }
}

}  // namespace tarnlift::netboot

#include "tools/routersim/sim_router.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace tarnlift::routersim {

namespace {
constexpr uint64_t kFnvPrime = 1099511628211ull;

std::vector<uint8_t> makeDatagram(const net::MacAddress& source, const net::MacAddress& destination, uint16_t seq,
                                  uint16_t ack, const std::string& payload) {
  uint8_t header[install::kHeaderSize] = {};
  std::memcpy(header, source.data(), 6);
  std::memcpy(header + 6, destination.data(), 6);
  install::writeLe16(header + install::kPayloadLengthOffset, static_cast<uint16_t>(payload.size()));
  install::writeLe16(header + install::kSequenceOffset, seq);
  install::writeLe16(header + install::kAcknowledgementOffset, ack);
  std::string bytes(reinterpret_cast<const char*>(header), install::kHeaderSize);
  bytes += payload;
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::string dashedMac(const net::MacAddress& mac) {
  std::string text = install::macText(mac);
  std::replace(text.begin(), text.end(), ':', '-');
  return text;
}
}  // namespace

uint64_t fnv1a(uint64_t hash, const uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i) hash = (hash ^ data[i]) * kFnvPrime;
  return hash;
}

SimRouter::SimRouter(SimRouterConfig config, Sender send) : config_(std::move(config)), send_(std::move(send)) {}

SimRouter::~SimRouter() { closeFile(); }

void SimRouter::send(const std::string& payload, int64_t nowMs) {
  ++seq_;
  last_ = makeDatagram(config_.mac, server_, static_cast<uint16_t>(seq_), static_cast<uint16_t>(ack_), payload);
  lastSentMs_ = nowMs;
  send_(last_.data(), last_.size());
}

void SimRouter::resend(int64_t nowMs) {
  if (last_.empty()) return;
  lastSentMs_ = nowMs;
  send_(last_.data(), last_.size());
}

void SimRouter::announce(int64_t nowMs) {
  std::string payload = "DSCV\n" + install::macText(config_.mac) + "\nsim\n" + config_.label + "\n" +
                        config_.architecture + "\n" + config_.minVersion + "\n" + config_.version + "\n" +
                        config_.branding + "\n" + std::to_string(config_.storage) + "\n";
  std::vector<uint8_t> d = makeDatagram(config_.mac, net::MacAddress{}, 0, 0, payload);
  send_(d.data(), d.size());
  (void)nowMs;
}

void SimRouter::finish(const std::string& outcome) {
  closeFile();
  outcome_ = outcome;
  state_ = SimState::Finished;
}

void SimRouter::error(const std::string& what) { errors_.push_back(what); }

void SimRouter::closeFile() {
  if (out_ != nullptr) std::fclose(out_);
  out_ = nullptr;
  inFile_ = false;
}

void SimRouter::onDatagram(const uint8_t* datagram, size_t length, int64_t nowMs) {
  if (state_ == SimState::Finished || silent_) return;
  if (length < install::kHeaderSize) return;
  if (std::memcmp(install::destinationMacOf(datagram), config_.mac.data(), 6) != 0) return;
  if (std::memcmp(install::sourceMacOf(datagram), config_.mac.data(), 6) == 0) return;
  if (install::payloadLengthOf(datagram) != length - install::kHeaderSize) {
    error("bad header: size " + std::to_string(length) + ", payload " +
          std::to_string(install::payloadLengthOf(datagram)));
    return;
  }
  const uint8_t* payload = datagram + install::kHeaderSize;
  size_t payloadLength = length - install::kHeaderSize;
  if (state_ == SimState::Announcing) {
    if (!install::payloadHasTag(payload, payloadLength, "OFFR")) return;
    server_ = install::toMac(install::sourceMacOf(datagram));
    seq_ = 0;
    ack_ = install::sequenceOf(datagram);
    lastHeardMs_ = nowMs;
    ++offers_;
    offerText_.assign(reinterpret_cast<const char*>(payload), payloadLength);
    if (config_.reannounceMs >= 0 && offers_ == 1) {
      reannounceAtMs_ = nowMs + config_.reannounceMs;
      state_ = SimState::AwaitOfferAck;
      return;
    }
    reannounceAtMs_ = -1;
    send(config_.answer, nowMs);
    if (config_.answer == "YACK") {
      state_ = SimState::AwaitOfferAck;
    } else if (config_.answer == "NACK") {
      finish("refused");
    } else {
      finish("answered " + config_.answer);
    }
    return;
  }
  if (std::memcmp(install::sourceMacOf(datagram), server_.data(), 6) != 0) return;
  // Only the next datagram in order counts. A repeat or a duplicate is
  // dropped, and so is one that comes after a datagram lost on the way (a
  // "TERM" behind a lost "FILE\n"): the router repeats its request until the
  // awaited datagram itself arrives.
  if (static_cast<uint16_t>(install::sequenceOf(datagram) - ack_) != 1) return;
  ack_ = install::sequenceOf(datagram);
  lastHeardMs_ = nowMs;
  handle(payload, payloadLength, nowMs);
}

void SimRouter::handle(const uint8_t* payload, size_t length, int64_t nowMs) {
  switch (state_) {
    case SimState::AwaitOfferAck:
      if (length != 0) {
        error("expected an acknowledgement of the offer answer");
        return;
      }
      state_ = SimState::Formatting;
      formatDoneMs_ = nowMs + config_.formatMs;
      return;
    case SimState::AwaitStartAck:
      if (length != 0) {
        error("expected an acknowledgement of STRT");
        return;
      }
      state_ = SimState::Requesting;
      transferStartMs_ = nowMs;
      send("RETR", nowMs);
      ++retrCount_;
      return;
    case SimState::Requesting:
      handleTransferAnswer(payload, length, nowMs);
      return;
    case SimState::AwaitTerm:
      if (install::payloadHasTag(payload, length, "TERM")) {
        termText_.assign(reinterpret_cast<const char*>(payload), length);
        finish("installed");
      } else {
        error("unexpected message while waiting for TERM");
      }
      return;
    default:
      error("unexpected message in state " + std::to_string(static_cast<int>(state_)));
      return;
  }
}

void SimRouter::handleTransferAnswer(const uint8_t* payload, size_t length, int64_t nowMs) {
  if (!inFile_) {
    std::string text(reinterpret_cast<const char*>(payload), length);
    if (text == "FILE\n") {
      transferEndMs_ = nowMs;
      state_ = SimState::AwaitTerm;
      termDeadlineMs_ = nowMs + config_.termWaitMs;
      send("WTRM", nowMs);
      return;
    }
    size_t nameEnd = text.find('\n', 5);
    if (text.compare(0, 5, "FILE\n") != 0 || nameEnd == std::string::npos || text.back() != '\n') {
      error("bad file header: " + text);
      finish("failed");
      return;
    }
    current_ = ReceivedFile{};
    current_.name = text.substr(5, nameEnd - 5);
    std::string sizeText = text.substr(nameEnd + 1, text.size() - nameEnd - 2);
    char* end = nullptr;
    current_.size = std::strtoull(sizeText.c_str(), &end, 10);
    if (sizeText.empty() || *end != 0) {
      error("bad file size: " + sizeText);
      finish("failed");
      return;
    }
    current_.checksum = kFnvStart;
    currentBytes_ = 0;
    inFile_ = true;
    if (!config_.outputDir.empty()) {
      std::filesystem::path folder = std::filesystem::path(config_.outputDir) / dashedMac(config_.mac);
      std::error_code ignored;
      std::filesystem::create_directories(folder, ignored);
      out_ = std::fopen((folder / current_.name).string().c_str(), "wb");
      if (out_ == nullptr) error("cannot store " + current_.name);
    }
  } else if (length == 0) {
    if (currentBytes_ != current_.size) {
      error("file " + current_.name + " shorter than announced: " + std::to_string(currentBytes_) + " of " +
            std::to_string(current_.size));
    }
    files_.push_back(current_);
    closeFile();
  } else {
    if (length > install::kChunkSize) error("chunk of " + std::to_string(length) + " bytes");
    if (currentBytes_ + length > current_.size) error("file " + current_.name + " longer than announced");
    currentBytes_ += length;
    bytes_ += length;
    current_.checksum = fnv1a(current_.checksum, payload, length);
    if (out_ != nullptr && std::fwrite(payload, 1, length, out_) != length) error("cannot write " + current_.name);
  }
  if (config_.stopAfterRetr >= 0 && retrCount_ >= config_.stopAfterRetr) {
    silent_ = true;
    finish("silent");
    return;
  }
  send("RETR", nowMs);
  ++retrCount_;
}

void SimRouter::tick(int64_t nowMs) {
  int64_t wake = nowMs + 1000;
  switch (state_) {
    case SimState::Announcing:
      if (nowMs >= wakeMs_) {
        announce(nowMs);
        wakeMs_ = nowMs + config_.announceMs;
      }
      return;
    case SimState::AwaitOfferAck:
      if (reannounceAtMs_ >= 0) {
        if (nowMs < reannounceAtMs_) {
          wakeMs_ = reannounceAtMs_;
          return;
        }
        // Announce once more while the offer is pending, then answer it.
        reannounceAtMs_ = -1;
        announce(nowMs);
        lastHeardMs_ = nowMs;
        send(config_.answer, nowMs);
        wakeMs_ = nowMs + config_.repeatMs;
        return;
      }
      [[fallthrough]];
    case SimState::AwaitStartAck:
    case SimState::Requesting:
      if (nowMs - lastHeardMs_ >= config_.giveUpMs) {
        // Nobody answers: start over as a freshly booted router would.
        closeFile();
        state_ = SimState::Announcing;
        server_.fill(0);
        seq_ = 0;
        ack_ = 0;
        last_.clear();
        wakeMs_ = nowMs;
        return;
      }
      if (nowMs - lastSentMs_ >= config_.repeatMs) resend(nowMs);
      wake = std::min(lastSentMs_ + config_.repeatMs, lastHeardMs_ + config_.giveUpMs);
      break;
    case SimState::Formatting:
      if (nowMs >= formatDoneMs_) {
        state_ = SimState::AwaitStartAck;
        lastHeardMs_ = nowMs;
        send("STRT", nowMs);
        wake = nowMs + config_.repeatMs;
      } else {
        wake = formatDoneMs_;
      }
      break;
    case SimState::AwaitTerm:
      if (nowMs >= termDeadlineMs_) {
        finish("installed");
        return;
      }
      // "WTRM" is repeated like any request until "TERM" comes: a lost one,
      // or a lost "TERM", is repaired by the repeat (the installer answers
      // it with its last datagram). Each repeat renews the installer's 3 s
      // wait, which ends 3 s after the last.
      if (nowMs - lastSentMs_ >= config_.repeatMs) resend(nowMs);
      wake = std::min(termDeadlineMs_, lastSentMs_ + config_.repeatMs);
      break;
    case SimState::Finished:
      return;
  }
  wakeMs_ = wake;
}

std::string SimRouter::reportLine() const {
  std::string offerLines;
  size_t start = offerText_.find('\n');
  while (start != std::string::npos && start + 1 < offerText_.size()) {
    size_t end = offerText_.find('\n', start + 1);
    std::string line = offerText_.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
    if (!line.empty()) offerLines += (offerLines.empty() ? "" : ",") + line;
    start = end;
  }
  std::string term = "none";
  if (termText_.find("Installation successful") != std::string::npos) term = "reboot";
  if (termText_.find("shutdown") != std::string::npos) term = "shutdown";
  uint64_t fileBytes = 0;
  for (const ReceivedFile& f : files_) fileBytes += f.size;
  return install::macText(config_.mac) + "\t" + outcome_ + "\tfiles=" + std::to_string(files_.size()) +
         "\tbytes=" + std::to_string(fileBytes) + "\toffers=" + std::to_string(offers_) + "\toffer=" + offerLines +
         "\tterm=" + term + "\terrors=" + std::to_string(errors_.size()) +
         "\ttransfer_ms=" + std::to_string(transferMs());
}

}  // namespace tarnlift::routersim

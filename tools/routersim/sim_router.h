// One simulated router: the router's side of the installation protocol,
// as a router that has booted the network installation image plays it. It
// announces itself, answers the offer, "formats", requests every datagram,
// stores the files it receives and waits for the final command. It keeps
// its own sequence and acknowledgement numbers and repeats its last
// datagram when no answer comes in time.
//
// The object does no I/O of its own: the caller hands it datagrams and the
// time, and it sends through a callback. So it runs over sockets in the
// simulator and in memory in tests and benchmarks.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "install/install_datagram.h"

namespace tarnlift::routersim {

struct SimRouterConfig {
  net::MacAddress mac{};
  std::string label = "SimRouter";
  std::string architecture = "arm";
  std::string minVersion = "6.40";
  std::string version = "6.41";
  std::string branding = "no";
  uint32_t storage = 0;
  std::string answer = "YACK";  // the answer to the offer ("NACK" or any tag)
  int64_t formatMs = 0;         // "formatting" time between YACK and STRT
  int64_t announceMs = 1000;    // interval of the announcements
  int64_t repeatMs = 1000;      // repeat the last datagram after this silence
  int64_t giveUpMs = 10000;     // then go back to announcing
  int64_t termWaitMs = 5000;    // how long to wait for the final command
  int64_t reannounceMs = -1;    // after the offer: wait, announce once, then answer
  int64_t stopAfterRetr = -1;   // go silent after this many requests
  std::string outputDir;        // empty: received data is checked, not stored
};

enum class SimState {
  Announcing,
  AwaitOfferAck,  // answered the offer, waiting for the empty acknowledgement
  Formatting,
  AwaitStartAck,
  Requesting,
  AwaitTerm,
  Finished,
};

// The checksum of received files: FNV-1a, 64 bits, started from kFnvStart.
inline constexpr uint64_t kFnvStart = 1469598103934665603ull;
uint64_t fnv1a(uint64_t hash, const uint8_t* data, size_t length);

struct ReceivedFile {
  std::string name;
  uint64_t size = 0;
  uint64_t checksum = 0;  // FNV-1a of the contents
};

class SimRouter {
 public:
  using Sender = std::function<void(const uint8_t* datagram, size_t length)>;

  SimRouter(SimRouterConfig config, Sender send);
  ~SimRouter();

  // A datagram from the network (any, also ones for others); nowMs is the
  // caller's monotonic time.
  void onDatagram(const uint8_t* datagram, size_t length, int64_t nowMs);
  // Lets time pass: announcements, repeats, formatting, give-up.
  void tick(int64_t nowMs);
  // When tick wants to be called next.
  int64_t nextWakeMs() const { return wakeMs_; }

  bool finished() const { return state_ == SimState::Finished; }
  SimState state() const { return state_; }
  const SimRouterConfig& config() const { return config_; }
  // One line for the report: MAC, outcome and what was received.
  std::string reportLine() const;
  // Anything inconsistent received (bad header, size mismatch, a file
  // shorter or longer than announced, a message out of place).
  const std::vector<std::string>& errors() const { return errors_; }
  const std::vector<ReceivedFile>& files() const { return files_; }
  const std::string& outcome() const { return outcome_; }
  const std::string& offer() const { return offerText_; }
  const std::string& term() const { return termText_; }
  int offers() const { return offers_; }
  uint64_t bytesReceived() const { return bytes_; }
  // From the first request to the end of the file list, ms (-1: not yet).
  int64_t transferMs() const { return transferEndMs_ < 0 ? -1 : transferEndMs_ - transferStartMs_; }

 private:
  void send(const std::string& payload, int64_t nowMs);
  void resend(int64_t nowMs);
  void announce(int64_t nowMs);
  void finish(const std::string& outcome);
  void error(const std::string& what);
  void handle(const uint8_t* payload, size_t length, int64_t nowMs);
  void handleTransferAnswer(const uint8_t* payload, size_t length, int64_t nowMs);
  void closeFile();

  SimRouterConfig config_;
  Sender send_;
  SimState state_ = SimState::Announcing;
  net::MacAddress server_{};
  uint32_t seq_ = 0;
  uint32_t ack_ = 0;
  std::vector<uint8_t> last_;
  int64_t lastSentMs_ = 0;
  int64_t lastHeardMs_ = 0;
  int64_t wakeMs_ = 0;
  int64_t formatDoneMs_ = 0;
  int64_t reannounceAtMs_ = -1;
  int64_t termDeadlineMs_ = 0;
  int retrCount_ = 0;
  int64_t transferStartMs_ = -1;
  int64_t transferEndMs_ = -1;
  int offers_ = 0;
  bool silent_ = false;
  bool inFile_ = false;
  ReceivedFile current_;
  uint64_t currentBytes_ = 0;
  std::FILE* out_ = nullptr;
  std::vector<ReceivedFile> files_;
  uint64_t bytes_ = 0;
  std::vector<std::string> errors_;
  std::string outcome_ = "unfinished";
  std::string offerText_;
  std::string termText_;
};

}  // namespace tarnlift::routersim

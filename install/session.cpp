#include "install/session.h"

#include <algorithm>
#include <cstring>

#include "app/failure.h"
#include "app/log.h"
#include "install/autorun_script.h"
#include "install/session_paths.h"

namespace tarnlift::install {

// ---- PackageSender ----------------------------------------------------------

uint8_t* ChunkRoom::datagram(size_t i) {
  if (!bytes_) bytes_ = std::make_unique<uint8_t[]>(kChunks * kStride);  // value-initialised: zero
  return bytes_.get() + i * kStride;
}

PackageSender::PackageSender(const std::string& path, const std::string& remoteName, DatagramTransport& transport,
                             InstallConnection& connection, uint8_t* datagram, ChunkRoom& room, SentDatagram& last)
    : transport_(transport), connection_(connection), datagram_(datagram), room_(room), last_(last) {
  if (!file_.open(path)) app::fatalFailure("_open() package failed");
  size_t slash = remoteName.find_last_of('\\');
  remoteName_ = slash == std::string::npos ? remoteName : remoteName.substr(slash + 1);
  length_ = static_cast<int32_t>(file_.length());
  bytesRead_ = 0;
  int written = std::snprintf(reinterpret_cast<char*>(datagram_ + kHeaderSize), kMaxPayload, "FILE\n%s\n%d\n",
                              remoteName_.c_str(), static_cast<int>(length_));
  size_t payload = std::min(static_cast<size_t>(std::max(written, 0)), kMaxPayload - 1);
  send(datagram_, payload);
  app::logLine() << "sending " << remoteName_ << ", size: " << length_;
}

void PackageSender::send(uint8_t* datagram, size_t payloadLength) {
  connection_.buildHeader(datagram, static_cast<uint16_t>(payloadLength));
  last_ = {datagram, kHeaderSize + payloadLength};
  transport_.send(datagram, kHeaderSize + payloadLength);
}

void PackageSender::readAhead() {
  // As many chunks as the file still promises, at most a room full.
  int64_t left = static_cast<int64_t>(length_) - bytesRead_;
  size_t wanted = static_cast<size_t>(std::min<int64_t>((left + kChunkSize - 1) / kChunkSize, ChunkRoom::kChunks));
  uint8_t* pieces[ChunkRoom::kChunks];
  for (size_t i = 0; i < wanted; ++i) pieces[i] = room_.datagram(i) + kHeaderSize;
  roomBytes_ = file_.readPieces(pieces, wanted, kChunkSize);
  if (roomBytes_ < 0) app::fatalFailure("_read() package failed");
  chunksRead_ = static_cast<size_t>((roomBytes_ + static_cast<int64_t>(kChunkSize) - 1) / kChunkSize);
  nextChunk_ = 0;
}

size_t PackageSender::sendNextChunk() {
  if (bytesRead_ < length_) {
    if (nextChunk_ == chunksRead_) readAhead();
    if (nextChunk_ < chunksRead_) {
      int64_t offset = static_cast<int64_t>(nextChunk_) * static_cast<int64_t>(kChunkSize);
      size_t count = static_cast<size_t>(std::min<int64_t>(roomBytes_ - offset, kChunkSize));
      bytesRead_ += static_cast<int32_t>(count);
      send(room_.datagram(nextChunk_++), count);
      return count;
    }
  }
  // The end of the file (or of what it still holds): an empty chunk.
  send(datagram_, 0);
  return 0;
}

// ---- Installator ------------------------------------------------------------

namespace {
bool endsWith(const std::string& text, const char* tail) {
  size_t n = std::strlen(tail);
  return text.size() >= n && text.compare(text.size() - n, n, tail) == 0;
}

}  // namespace

Installator::Installator(const RouterRecord& request, bool install, DatagramTransport& transport,
                         const app::Clock& clock, const AutorunScriptMaker& makeScript)
    : request_(request), transport_(transport), clock_(clock) {
  connection_.reset();
  std::memset(datagram_, 0, sizeof datagram_);
  last_ = {datagram_, kHeaderSize};
  connection_.localMac = transport_.localMac();
  connection_.peerMac = request_.mac;
  if (!install) {
    state_ = InstallState::Finished;
    request_.status = kStatusDone;
    return;
  }
  state_ = InstallState::AwaitAccept;
  if (request_.modeScriptEnabled && !request_.modeScriptPath.empty()) {
    app::logLine() << "mode script: " << request_.modeScriptPath;
    request_.files.push_back(request_.modeScriptPath);
  }
  app::logLine() << "script: " << request_.scriptPath;
  std::string failure;
  std::string path = makeScript ? makeScript(request_, failure) : makeAutorunScript(request_, failure);
  if (!failure.empty()) {
    fail(failure);
    return;
  }
  if (!path.empty()) {
    autorunPath_ = path;
    request_.files.push_back(path);
  }
  request_.status = kStatusInstalling;
  request_.progress = 0;
  request_.statusText = "Sending offer...";
  std::string offer = "OFFR\n";
  if (request_.keepConfig) offer += "keep\n";
  if (request_.hasBranding && !request_.keepBranding) offer += "removeBranding\n";
  timeout_ = kOfferTimeoutUs;
  sendText(offer);
  deadline_ = clock_.nowMicros() + timeout_;
}

Installator::~Installator() {
  sender_.reset();
  if (!autorunPath_.empty()) std::remove(autorunPath_.c_str());
  app::logLine() << "~Installator()";
}

void Installator::sendPayload(size_t payloadLength) {
  connection_.buildHeader(datagram_, static_cast<uint16_t>(payloadLength));
  last_ = {datagram_, kHeaderSize + payloadLength};
  transport_.send(datagram_, kHeaderSize + payloadLength);
}

void Installator::sendText(const std::string& payload) {
  size_t length = std::min(payload.size(), kMaxPayload);
  std::memcpy(datagram_ + kHeaderSize, payload.data(), length);
  sendPayload(length);
}

void Installator::onDatagram(const uint8_t* datagram, size_t length) {
  onDatagram(datagram, length, clock_.nowMicros());
}

void Installator::onDatagram(const uint8_t* datagram, size_t length, uint64_t nowUs) {
  int result = connection_.accept(datagram, length);
  if (result < 0) {
    app::logLine() << "bad packet received: ";
    if (length < kHeaderSize) return;
    uint16_t payload = payloadLengthOf(datagram);
    app::logLine() << "Src: " << macText(sourceMacOf(datagram)) << "\tDst: " << macText(destinationMacOf(datagram));
    app::logLine() << "Payload: " << payload;
    app::logLine() << "SeqNum: " << sequenceOf(datagram) << "\tAckNum: " << acknowledgementOf(datagram);
    if (payload != 0 && length == kHeaderSize + payload) {
      app::logLine() << "Data: " << std::string(reinterpret_cast<const char*>(datagram + kHeaderSize), payload);
    }
    return;
  }
  if (result == 0) {
    // The router repeats itself when our answer got lost: send it again.
    if (acknowledgementOf(datagram) < connection_.seq) transport_.send(last_.data, last_.length);
  } else {
    const uint8_t* payload = datagram + kHeaderSize;
    size_t payloadLength = length - kHeaderSize;
    switch (state_) {
      case InstallState::AwaitAccept:
        if (payloadHasTag(payload, payloadLength, "YACK")) {
          state_ = InstallState::AwaitStart;
          request_.statusText = "Formatting harddrive...";
          timeout_ = kFormatTimeoutUs;
          sendPayload(0);
          app::logLine() << "prepare ok";
        } else if (payloadHasTag(payload, payloadLength, "NACK")) {
          fail("router refused installation");
        } else {
          fail("bad router response");
        }
        break;
      case InstallState::AwaitStart:
        if (payloadHasTag(payload, payloadLength, "STRT")) {
          app::logLine() << "format ok";
          state_ = InstallState::Transfer;
          timeout_ = kTransferTimeoutUs;
          sendPayload(0);
        } else {
          fail("bad router response");
        }
        break;
      case InstallState::Transfer:
        if (payloadHasTag(payload, payloadLength, "RETR")) {
          handleTransfer();
        } else {
          sender_.reset();
          fail("bad router response");
        }
        break;
      case InstallState::AwaitTerminate:
        if (payloadHasTag(payload, payloadLength, "WTRM")) {
          timeout_ = kAfterTerminateUs;
          confirmed_ = true;
        } else {
          fail("bad router response");
        }
        break;
      case InstallState::Finished:
        app::logLine() << "finished";
        break;
    }
  }
  deadline_ = timeout_ != 0 ? nowUs + timeout_ : 0;
}

void Installator::handleTransfer() {
  if (sender_) {
    size_t count = sender_->sendNextChunk();
    if (count > 0) {
      request_.progress += static_cast<uint32_t>(count);
    } else {
      sender_.reset();
    }
    return;
  }
  if (request_.files.empty()) {
    sendText("FILE\n");
    request_.status = kStatusWaitingReboot;
    request_.statusText = "Done";
    state_ = InstallState::AwaitTerminate;
    timeout_ = kTransferTimeoutUs;
    return;
  }
  startNextFile();
}

void Installator::startNextFile() {
  std::string path = request_.files.front();
  std::string remoteName;
  std::string openPath = path;
  request_.statusText = "Transferring: ";
  if (path == request_.modeScriptPath) {
    remoteName = "mode.scr";
    request_.statusText += "mode script";
  } else if (request_.files.size() == 1 && endsWith(path, "scr")) {
    remoteName = "autorun.scr";
    request_.statusText += "configuration";
  } else {
    if (isRelativePackagePath(path)) openPath = packageFilePath(request_.packageDir, path);
    remoteName = remoteFileName(path);
    request_.statusText += path;
  }
  sender_ = std::make_unique<PackageSender>(openPath, remoteName, transport_, connection_, datagram_, room_, last_);
  request_.files.erase(request_.files.begin());
}

void Installator::onTimeout() {
  if (state_ == InstallState::AwaitTerminate) {
    // Also when "WTRM" never came: the wait after the last file simply ends
    // in success. Routers that finish quietly rely on it.
    request_.status = kStatusDone;
    request_.statusText = "Installation finished successfully";
    state_ = InstallState::Finished;
    timeout_ = 0;
    deadline_ = 0;
    return;
  }
  fail("No response from router, timeout");
}

void Installator::fail(const std::string& reason) {
  app::logLine(app::LogPriority::Warning) << "fail: " << reason;
  request_.status = kStatusFailed;
  request_.progress = 0;
  request_.statusText = "Installation failed: " + reason;
  state_ = InstallState::Finished;
  timeout_ = 0;
  deadline_ = 0;
}

void Installator::reboot() {
  request_.statusText = "Sending reboot command...";
  app::logLine() << "rebooting";
  std::string payload = "TERM\nInstallation successful\n";
  app::logLine() << "sending: " << payload;
  sendText(payload);
}

void Installator::shutdown() {
  request_.statusText = "Sending shutdown command...";
  app::logLine() << "shutting down";
  std::string payload = "TERM\nshutdown\n";
  app::logLine() << "sending: " << payload;
  sendText(payload);
}

// ---- InstallServer ----------------------------------------------------------

InstallServer::InstallServer(DatagramTransport& transport, const app::Clock& clock, AutorunScriptMaker makeScript)
    : app::Thread("Router installer"),
      transport_(transport),
      clock_(clock),
      makeScript_(std::move(makeScript)),
      stopEvent_(true) {
  std::memset(receiveBuffer_, 0, sizeof receiveBuffer_);
  setStopSignal(&stopEvent_);
}

InstallServer::~InstallServer() {
  destroy();
  app::MutexLock hold(sessionLock_, 10000);
  sessions_.clear();
}

void InstallServer::start(const RouterRecord& request, bool install) {
  app::MutexLock hold(sessionLock_, 10000);
  sessions_.erase(request.mac);
  auto session = std::make_unique<Installator>(request, install, transport_, clock_, makeScript_);
  noteDeadline(session->deadline());
  sessions_[request.mac] = std::move(session);
}

SessionStatus InstallServer::status(const MacAddress& mac) {
  app::MutexLock hold(sessionLock_, 10000);
  auto it = sessions_.find(mac);
  if (it == sessions_.end()) return {};
  return it->second->status();
}

void InstallServer::reboot(const MacAddress& mac) {
  app::MutexLock hold(sessionLock_, 10000);
  auto it = sessions_.find(mac);
  if (it != sessions_.end()) it->second->reboot();
}

void InstallServer::shutdown(const MacAddress& mac) {
  app::MutexLock hold(sessionLock_, 10000);
  auto it = sessions_.find(mac);
  if (it != sessions_.end()) it->second->shutdown();
}

void InstallServer::remove(const MacAddress& mac) {
  app::MutexLock hold(sessionLock_, 10000);
  sessions_.erase(mac);
}

void InstallServer::requestRemoval(const MacAddress& mac) {
  app::MutexLock hold(sessionLock_, 10000);
  auto it = sessions_.find(mac);
  if (it == sessions_.end()) return;
  it->second->removalRequested = true;
  scanDue_ = true;
}

Installator* InstallServer::session(const MacAddress& mac) {
  auto it = sessions_.find(mac);
  return it == sessions_.end() ? nullptr : it->second.get();
}

size_t InstallServer::sessionCount() {
  app::MutexLock hold(sessionLock_, 10000);
  return sessions_.size();
}

void InstallServer::noteDeadline(uint64_t deadline) {
  if (deadline != 0 && deadline < nextScanUs_) nextScanUs_ = deadline;
}

uint64_t InstallServer::scanSessions() {
  app::MutexLock hold(sessionLock_, 10000);
  uint64_t now = clock_.nowMicros();
  // Deadlines only move when a session is started, hears a datagram or
  // times out, and each of those tells noteDeadline. So until the earliest
  // of them nothing can time out, and the sessions need not be looked at:
  // with many routers busy that look would cost more than the datagram.
  if (!scanDue_ && now < nextScanUs_) return std::min<uint64_t>(maxWaitUs_, nextScanUs_ - now);
  uint64_t wait = maxWaitUs_;
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    Installator& session = *it->second;
    if (session.removalRequested) {
      it = sessions_.erase(it);
      continue;
    }
    if (session.deadline() != 0) {
      int64_t remaining = static_cast<int64_t>(session.deadline()) - static_cast<int64_t>(now);
      if (remaining < 1) {
        session.onTimeout();
        remaining = session.deadline() != 0 ? static_cast<int64_t>(session.deadline()) - static_cast<int64_t>(now)
                                            : static_cast<int64_t>(wait);
      }
      wait = std::min<uint64_t>(wait, static_cast<uint64_t>(std::max<int64_t>(remaining, 1)));
    }
    ++it;
  }
  scanDue_ = false;
  nextScanUs_ = now + wait;
  return wait;
}

bool InstallServer::pollOnce() {
  uint64_t wait = scanSessions();
  DatagramTransport::Received received[kReceiveBatch];
  size_t capacity = std::clamp<size_t>(transport_.receiveBatchSize(), 1, kReceiveBatch);
  size_t count = transport_.waitReceiveBatch(receiveBuffer_, received, capacity, std::max<uint64_t>(wait, 1));
  bool arrived = false;
  for (size_t i = 0; i < count; ++i) arrived = arrived || received[i].length >= 0;
  if (!arrived) return false;
  // One time for the whole batch: the datagrams arrived together.
  uint64_t now = clock_.nowMicros();
  app::MutexLock hold(sessionLock_, 10000);
  // The answers go out together after the batch (where the transport can);
  // until then each stays in its session's buffer.
  inBatch_ = true;
  transport_.holdSends();
  for (size_t i = 0; i < count; ++i) {
    if (received[i].length >= 0) dispatch(received[i].data, received[i].length, now);
  }
  inBatch_ = false;
  flushBatch();
  return true;
}

void InstallServer::flushBatch() {
  transport_.flushSends();
  ++batch_;
  // In the middle of a batch the rest of it is held again.
  if (inBatch_) transport_.holdSends();
}

void InstallServer::dispatch(const uint8_t* datagram, int length, uint64_t nowUs) {
  if (length < static_cast<int>(kHeaderSize)) return;
  if (static_cast<size_t>(length) - kHeaderSize != payloadLengthOf(datagram)) return;
  if (isZeroMac(sourceMacOf(datagram))) return;
  MacAddress source = toMac(sourceMacOf(datagram));
  if (isZeroMac(destinationMacOf(datagram))) {
    onAnnouncement(source, datagram + kHeaderSize, static_cast<size_t>(length) - kHeaderSize);
    return;
  }
  auto it = sessions_.find(source);
  if (it == sessions_.end()) return;
  Installator& session = *it->second;
  // A second datagram for the same session in one batch (a repeat, a
  // duplicate): its first answer must leave before the buffer changes.
  if (session.batchMark == batch_) flushBatch();
  session.batchMark = batch_;
  session.onDatagram(datagram, static_cast<size_t>(length), nowUs);
  noteDeadline(session.deadline());
}

void InstallServer::onAnnouncement(const MacAddress& source, const uint8_t* payload, size_t length) {
  RouterRecord record;
  int64_t now = static_cast<int64_t>(clock_.nowMicros());
  AnnouncementKind kind = parseAnnouncement(source, payload, length, now, record);
  if (kind == AnnouncementKind::Dropped) return;
  app::MutexLock hold(sessionLock_, 10000);
  // A session may go below, and with it the buffers of answers held back.
  flushBatch();
  auto it = sessions_.find(source);
  if (kind == AnnouncementKind::Discover) {
    if (it != sessions_.end()) {
      Installator& session = *it->second;
      // Still answering our offer: its announcements cross ours for a while.
      if (session.state() != InstallState::Finished && now <= session.request().lastSeen + kRediscoveryGraceUs) return;
      // Otherwise it was started into installation mode again.
      sessions_.erase(it);
      return;
    }
    queue_.push(record);
    return;
  }
  if (it != sessions_.end()) sessions_.erase(it);
}

uint32_t InstallServer::run() {
  // Looking at the stop event costs a timed wait on some platforms (tens of
  // microseconds each), which would double the cost of a round trip during a
  // transfer. So it is looked at after every pass that waited in vain, and
  // otherwise after every 64 datagrams: a stop is still seen within a second.
  unsigned busyPasses = 0;
  while (true) {
    if (busyPasses == 0 && stopEvent_.waitFor(0)) break;
    busyPasses = pollOnce() ? (busyPasses + 1) % 64 : 0;
  }
  return 0;
}

}  // namespace tarnlift::install

#include "netboot/netboot_server.h"

#include <cstdio>
#include <fstream>
#include <vector>

#include "app/failure.h"
#include "app/log.h"
#include "app/registry.h"
#include "netboot/boot_images.h"
#include "netboot/netboot_activity.h"

namespace tarnlift::netboot {

NetbootEnvironment NetbootEnvironment::system() {
  NetbootEnvironment environment;
  environment.network = &systemDatagramNetwork();
  environment.interfaces = &platformInterfaceSource();
  environment.sleep = [](uint32_t milliseconds) { app::sleepMilliseconds(milliseconds); };
  return environment;
}

NetbootServer::NetbootServer(std::string kernelOverridePath, NetbootEnvironment environment)
    : environment_(std::move(environment)),
      kernelOverridePath_(std::move(kernelOverridePath)),
      responder_(*environment_.network),
      watch_(*environment_.clock) {
  app::Registry registry;
  registry.openRoot(app::kSettingsKeyPath);
  enabled_ = registry.readInt(kPxeEnabledValue, 0) != 0;
  clientAddress_ = registry.readInt(kPxeClientAddressValue, 0);
}

NetbootServer::~NetbootServer() { closeSockets(); }

void NetbootServer::run() {
  while (cycle() == CycleResult::Restart) {
  }
}

void NetbootServer::queueSettings(bool enabled, uint32_t clientAddress) {
  app::MutexLock lock(queueMutex_);
  if (settingsQueue_.empty()) queueEvent_.set();
  settingsQueue_.emplace_back(enabled, clientAddress);
}

size_t NetbootServer::queuedSettings() {
  app::MutexLock lock(queueMutex_);
  return settingsQueue_.size();
}

void NetbootServer::closeSockets() {
  watchSocket_.reset();
  tftpSocket_.reset();
  responder_.close();
}

NetbootServer::CycleResult NetbootServer::cycle() {
  // Settings are taken here only, one change per cycle.
  if (queueEvent_.waitFor(0)) {
    std::pair<bool, uint32_t> change;
    {
      app::MutexLock lock(queueMutex_);
      if (settingsQueue_.size() == 1) queueEvent_.reset();
      change = settingsQueue_.front();
      settingsQueue_.pop_front();
    }
    enabled_ = change.first;
    clientAddress_ = change.second;
  }

  findInterface(clientAddress_, *environment_.interfaces);
  if (serverAddress() == 0) {
    environment_.sleep(1000);
    return stopEvent_.waitFor(0) ? CycleResult::Stop : CycleResult::Restart;
  }

  responder_.open(kBootFileName);
  tftpSocket_.reset();
  tftpSocket_ = environment_.network->openTftp(serverAddress());
  openWatch();

  while (true) {
    if (stopEvent_.waitFor(0)) {
      closeSockets();
      return CycleResult::Stop;
    }
    if (!enabled_) {
      environment_.sleep(1000);
      continue;
    }
    // The interface is still there while a datagram to our own address on
    // it can be sent.
    uint8_t probe = 0;
    if (responder_.socket()->sendTo(&probe, 1, serverAddress(), kTestPort) < 0) {
      environment_.sleep(1000);
      closeSockets();
      return CycleResult::Restart;
    }
    DatagramSocket* sockets[3] = {responder_.socket(), tftpSocket_.get(), watchSocket_.get()};
    bool readable[3] = {false, false, false};
    size_t count = watchSocket_ != nullptr ? 3 : 2;
    int ready = environment_.network->waitReadable(sockets, count, 1000, readable);
    if (ready < 0) {
      std::string message = "select failed";
      app::reportSocketFailure(message, true);
    }
    if (ready == 0) continue;
    // A request and another server's answer to it may wake us together: the
    // request is taken first so that its client is known to the watch.
    bool answered = readable[0] && handleBootp();
    if (readable[2]) handleWatch();
    if (answered) continue;
    if (readable[1] && currentClass_ != kClassNone) handleReadRequest();
  }
}

bool NetbootServer::handleBootp() {
  uint8_t buffer[kBootpBufferSize] = {};
  int received = responder_.socket()->receiveFrom(buffer, sizeof buffer, nullptr, nullptr);
  if (received < 0) {
    std::string message = "recv failed";
    app::reportSocketFailure(message, true);
  }
  app::logLine() << "bootp recv bytes: " << received << " mac=" << formatMac(buffer + 28);
  // Every client that asks is one we serve, answered or not, unless the
  // front end said it is not ours.
  if (!environment_.mayAnswer || environment_.mayAnswer(buffer + 28)) {
    watch_.noteRequest(buffer, static_cast<size_t>(received));
  }
  if (!responder_.classify(buffer, static_cast<size_t>(received))) {
    app::logLine() << "\tinvalid request";
    return false;
  }
  app::logLine() << "bootp req received";
  if (environment_.mayAnswer && !environment_.mayAnswer(buffer + 28)) {
    // Not one of ours: another machine network-booting on the segment.
    std::string mac = formatMac(buffer + 28);
    if (refusedClients_.insert(mac).second) app::logLine() << "netboot: unknown client " << mac << " not answered";
    return true;
  }
  if (responder_.reply(buffer, clientAddress_)) {
    currentClass_ = responder_.clientClass();
    recordBootpReply(formatMac(buffer + 28), currentClass_);
  } else {
    app::logLine() << "FAILED TO REPLY";
  }
  return true;
}

void NetbootServer::openWatch() {
  watch_.setOwnAddress(serverAddress());
  std::string why;
  watchSocket_ = environment_.network->openWatch(serverAddress(), why);
  if (watchSocket_ != nullptr) {
    watchOffLogged_.clear();
    return;
  }
  // Said once, not at every restart of the cycle.
  if (why == watchOffLogged_) return;
  watchOffLogged_ = why;
  app::logLine(app::LogPriority::Warning) << "netboot: not watching for other boot servers: " << why;
}

void NetbootServer::handleWatch() {
  // A burst of replies is read at once, but never without end: serving
  // comes first.
  for (int i = 0; i < 16; ++i) {
    uint8_t buffer[kBootpBufferSize];
    uint32_t address = 0;
    uint16_t port = 0;
    int received = watchSocket_->receiveFrom(buffer, sizeof buffer, &address, &port);
    if (received < 0) return;
    ForeignReply reply;
    if (watch_.hearReply(buffer, static_cast<size_t>(received), address, port, reply)) {
      std::string line = foreignReplyText(reply);
      app::logLine(app::LogPriority::Warning) << line;
      // The window shows it where its status lines go.
      recordOtherServer(line);
    }
  }
}

void NetbootServer::handleReadRequest() {
  uint16_t port = 0;
  int received = tftpSocket_->receiveFrom(request_, sizeof request_, nullptr, &port);
  if (received < 0) return;
  requestLength_ = static_cast<size_t>(received);
  if (!isTftpReadRequest(request_, requestLength_)) return;
  clientPort_ = port;
  std::string fileName = tftpFileName(request_, requestLength_);
  app::logLine() << "onTftp " << currentClass_ << " " << fileName;

  if (!kernelOverridePath_.empty()) {
    app::logLine() << "send kernel override";
    std::ifstream file(kernelOverridePath_, std::ios::binary | std::ios::ate);
    if (!file) return;
    std::streamoff size = file.tellg();
    if (size < 0) return;
    app::logLine() << "override len: " << size;
    std::vector<uint8_t> content(static_cast<size_t>(size));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(content.data()), size);
    sendContent(content.data(), static_cast<uint32_t>(content.size()), clientPort_);
    return;
  }

  int number;
  if (currentClass_ == 0) {
    return;
  } else if (currentClass_ == kClassPxe) {
    if (fileName.find("image") != std::string::npos) {
      number = kImageBiosPxe;
    } else if (fileName.find("ldlinux") != std::string::npos) {
      number = kImageLdlinux;
    } else if (fileName.find("pxelinux.cfg") != std::string::npos) {
      number = kImagePxelinuxConfig;
    } else {
      app::logLine() << "unknown file name=" << fileName;
      return;
    }
  } else {
    number = currentClass_;
  }
  BootImage image = loadBootImage(number);
  app::logLine() << "sendRes=" << number;
  sendContent(image.data, image.length, clientPort_);
}

void NetbootServer::sendContent(const uint8_t* content, uint32_t length, uint16_t clientPort) {
  TftpTransfer transfer(*environment_.network, serverAddress(), clientAddress_, clientPort);
  if (transfer.send(request_, requestLength_, content, length, tftpSocket_.get())) recordTftpTransfer(length);
}

NetbootThread::NetbootThread(std::string kernelOverridePath, NetbootEnvironment environment)
    : app::Thread("PXE Booter"),
      kernelOverridePath_(std::move(kernelOverridePath)),
      environment_(std::move(environment)) {}

NetbootThread::~NetbootThread() { destroy(); }

uint32_t NetbootThread::run() {
  auto* server = new NetbootServer(kernelOverridePath_, environment_);
  server_ = server;
  started_.set();
  server->run();
  bool locked = ownMutex().waitFor(10000);
  server_ = nullptr;
  delete server;
  if (locked) ownMutex().unlock();
  return 0;
}

void NetbootThread::changeSettings(bool enabled, uint32_t clientAddress) {
  started_.waitFor(5000);
  NetbootServer* server = server_.load();
  if (server == nullptr) app::fatalFailure("no code!!!");
  server->queueSettings(enabled, clientAddress);
}

void NetbootThread::stopServer() {
  if (!running()) return;
  started_.waitFor(5000);
  if (NetbootServer* server = server_.load()) server->stopEvent().set();
  waitFor(app::kWaitInfinite);
}

}  // namespace tarnlift::netboot

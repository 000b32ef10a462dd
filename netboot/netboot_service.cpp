#include "netboot/netboot_service.h"

#include <fstream>

#include "app/log.h"
#include "app/registry.h"
#include "netboot/boot_images.h"
#include "netboot/netboot_server.h"
#include "netboot/netboot_settings.h"

namespace tarnlift::netboot {

NetbootService::NetbootService() = default;

NetbootService::~NetbootService() { stop(); }

bool NetbootService::start(uint32_t clientAddress, const NetbootServeOptions& options, std::string& error) {
  if (thread_ != nullptr) return true;
  if (!options.bootImageDir.empty()) {
    if (!directoryExists(options.bootImageDir)) {
      error = "no boot image directory " + options.bootImageDir;
      return false;
    }
    setBootImageDirectory(options.bootImageDir);
  }
  if (!options.kernelFile.empty() && !std::ifstream(options.kernelFile, std::ios::binary)) {
    error = "cannot read kernel file " + options.kernelFile;
    return false;
  }
  {
    app::Registry registry;
    registry.openRoot(app::kSettingsKeyPath);
    writeNetbootSettings(registry, {true, clientAddress});
  }
  app::logLine() << "netboot: client " << formatIpv4(clientAddress) << ", boot images from " << bootImageSearchText()
                 << (options.kernelFile.empty() ? std::string() : ", kernel " + options.kernelFile);
  NetbootEnvironment environment = NetbootEnvironment::system();
  environment.mayAnswer = options.mayAnswer;
  thread_ = std::make_unique<NetbootThread>(options.kernelFile, environment);
  thread_->start();
  return true;
}

bool NetbootService::running() const { return thread_ != nullptr; }

void NetbootService::stop() {
  if (thread_ == nullptr) return;
  thread_->stopServer();
  thread_.reset();
}

}  // namespace tarnlift::netboot

#include "netboot/netboot_service.h"

#include <fstream>

#include "app/log.h"
#include "app/registry.h"
#include "netboot/boot_images.h"
#include "netboot/netboot_server.h"
#include "netboot/netboot_settings.h"

namespace tarnlift::netboot {

const char* const kNetbootOptionsUsage =
    "  --netboot             also serve BOOTP/PXE and TFTP on the client address's interface\n"
    "  --boot-images DIR     boot image records (<number>.bin) to serve from\n"
    "  --kernel FILE         serve FILE in place of every boot image\n";

bool extractNetbootOptions(std::vector<std::string>& arguments, NetbootServeOptions& options, std::string& error) {
  std::vector<std::string> rest;
  bool sawValueOption = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    auto takeValue = [&](const std::string& name, std::string& value) -> bool {
      if (argument == name) {
        if (i + 1 >= arguments.size() || arguments[i + 1].empty()) {
          error = name + " needs a value";
          return false;
        }
        value = arguments[++i];
        return true;
      }
      value = argument.substr(name.size() + 1);
      if (value.empty()) {
        error = name + " needs a value";
        return false;
      }
      return true;
    };
    if (argument == "--netboot") {
      options.netboot = true;
    } else if (argument == "--boot-images" || argument.rfind("--boot-images=", 0) == 0) {
      if (!takeValue("--boot-images", options.bootImageDir)) return false;
      sawValueOption = true;
    } else if (argument == "--kernel" || argument.rfind("--kernel=", 0) == 0) {
      if (!takeValue("--kernel", options.kernelFile)) return false;
      sawValueOption = true;
    } else {
      rest.push_back(argument);
    }
  }
  if (sawValueOption && !options.netboot) {
    error = "--boot-images and --kernel need --netboot";
    return false;
  }
  arguments = std::move(rest);
  return true;
}

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
    Registry registry;
    registry.openRoot(kSettingsKeyPath);
    writeNetbootSettings(registry, {true, clientAddress});
  }
  logLine() << "netboot: client " << formatIpv4(clientAddress) << ", boot images from " << bootImageSearchText()
            << (options.kernelFile.empty() ? std::string() : ", kernel " + options.kernelFile);
  thread_ = std::make_unique<NetbootThread>(options.kernelFile);
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

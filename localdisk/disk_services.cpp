#include <cstdio>
#include <filesystem>

#include "localdisk/disk_access.h"
#include "netboot/boot_images.h"

namespace tarnlift::localdisk {
namespace {

class BootImageProgramSource : public app::ProgramSource {
 public:
  bool findRecord(uint32_t id, const uint8_t*& record, size_t& storedSize) override {
    return netboot::currentBootImageStore().findRecord(static_cast<int>(id), record, storedSize);
  }
};

class HostSourceFiles : public SourceFiles {
 public:
  int size(const std::string& path, uint64_t& size) override {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return 1;
    std::fclose(file);
    std::error_code error;
    uintmax_t bytes = std::filesystem::file_size(path, error);
    if (error) return 2;
    size = bytes;
    return 0;
  }
};

struct PlatformServices {
  std::unique_ptr<DiskAccess> devices = makePlatformDiskAccess();
  std::unique_ptr<DriveFormatter> formatter = makePlatformFormatter();
  std::unique_ptr<VolumeFiles> files = makePlatformVolumeFiles();
  std::unique_ptr<SourceFiles> sources = makeSourceFiles();
  DiskServices services;
  PlatformServices() {
    services.devices = devices.get();
    services.formatter = formatter.get();
    services.files = files.get();
    services.sources = sources.get();
    services.makeBootLoaderRunner = [] {
      return std::make_unique<app::ProgramRunner>(kImageDiskSyslinuxInstaller, bootLoaderInstallerName(),
                                                  &bootImageProgramSource());
    };
  }
};

}  // namespace

std::unique_ptr<SourceFiles> makeSourceFiles() { return std::make_unique<HostSourceFiles>(); }

app::ProgramSource& bootImageProgramSource() {
  static BootImageProgramSource source;
  return source;
}

DiskServices& platformDiskServices() {
  static PlatformServices platform;
  return platform.services;
}

}  // namespace tarnlift::localdisk

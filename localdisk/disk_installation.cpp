#include "localdisk/disk_installation.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <vector>

#include "app/failure.h"
#include "app/log.h"
#include "netboot/boot_images.h"
#include "packages/package_folder.h"

namespace tarnlift::localdisk {

namespace {
constexpr uint32_t kSectorSize = 512;
constexpr size_t kScriptPiece = 4096;
}  // namespace

std::string baudRateLine(uint32_t baudRate) {
  char text[96];
  std::snprintf(text, sizeof text, "\n/port set [/port find] baud-rate=%d\n", static_cast<int>(baudRate));
  return text;
}

std::string sectorDumpText(const uint8_t* sector, size_t size) {
  std::string text;
  char piece[16];
  for (size_t offset = 0; offset + 1 < size; offset += 2) {
    if (offset % 16 == 0) {
      std::snprintf(piece, sizeof piece, "\n%08x ", static_cast<unsigned>(offset));
      text += piece;
    }
    unsigned word = static_cast<unsigned>(sector[offset] | sector[offset + 1] << 8);
    std::snprintf(piece, sizeof piece, "%04x ", word);
    text += piece;
  }
  return text;
}

bool printSector(Device& device) {
  uint8_t sector[kSectorSize];
  if (device.read(sector, kSectorSize) != static_cast<int>(kSectorSize)) return false;
  app::logStream() << sectorDumpText(sector, kSectorSize) << std::endl;
  return true;
}

DiskInstallation::DiskInstallation(const install::RouterRecord& row, DiskServices* services)
    : app::Thread("Unnamed"), row_(row), services_(services != nullptr ? *services : platformDiskServices()) {
  drive_ = driveIdOf(row_);
  setStopSignal(&stopEvent_);
  // Never left running: a stop ends the children and then the thread, so
  // ending it waits as long as that takes instead of killing it.
  setStopTimeout(app::kWaitInfinite);
  app::MutexLock lock(mutex_);
  status_.state = install::kStatusInstalling;
  status_.statusText = "Preparing for installation...";
  status_.total = row_.totalSize;
  status_.progress = 0;
  post();
}

DiskInstallation::~DiskInstallation() { destroy(); }

void DiskInstallation::cancel() {
  stopEvent_.set();
  waitFor(app::kWaitInfinite);
}

DiskStatus DiskInstallation::status() {
  app::MutexLock lock(mutex_);
  return status_;
}

bool DiskInstallation::nextNotification(DiskStatus& status) {
  app::MutexLock lock(mutex_);
  if (notifications_.empty()) return false;
  status = notifications_.front();
  notifications_.pop_front();
  return true;
}

void DiskInstallation::post() {
  app::MutexLock lock(mutex_);
  notifications_.push_back(status_);
  notificationEvent_.set();
}

void DiskInstallation::update(const std::string& text, uint32_t amount) {
  app::MutexLock lock(mutex_);
  status_.statusText = text;
  status_.progress += amount;
  post();
}

bool DiskInstallation::fail(const std::string& text) {
  app::MutexLock lock(mutex_);
  status_.errorText = text;
  return false;
}

bool DiskInstallation::refuse(const std::string& reason, const std::string& text) {
  app::logLine() << "refused: " << reason;
  return fail(text);
}

bool DiskInstallation::stillHeld(const std::string& text) {
  if (stopping()) return fail(kInstallationCancelled);
  std::string reason;
  return held_->unchanged(reason) || refuse(reason, text);
}

uint32_t DiskInstallation::run() {
  if (!install()) {
    std::string errorText;
    {
      app::MutexLock lock(mutex_);
      errorText = status_.errorText;
      status_.state = install::kStatusFailed;
      post();
    }
    app::logLine() << "failed: " << errorText;
  }
  stopEvent_.waitFor(app::kWaitInfinite);
  return 0;
}

bool DiskInstallation::writeBootImageFile(const std::string& name, int number) {
  netboot::BootImage image = netboot::loadBootImage(number);
  std::unique_ptr<OutputFile> file = services_.files->createNew(target_, name);
  if (file == nullptr) {
    std::cerr << "Cannot create file" << std::endl;
    return false;
  }
  bool written = file->write(image.data, image.length);
  return file->close() && written;
}

bool DiskInstallation::writeMbrFile(const uint8_t* sector) {
  std::unique_ptr<OutputFile> file = services_.files->createNew(target_, "mbr");
  if (file == nullptr) {
    app::logLine() << "Cannot create file";
    return false;
  }
  bool written = file->write(sector, kSectorSize);
  return file->close() && written;
}

bool DiskInstallation::writeAutorun() {
  std::unique_ptr<OutputFile> file = services_.files->createNew(target_, "autorun.scr");
  if (file == nullptr) {
    app::logLine() << "Cannot create file";
    return false;
  }
  bool ok = true;
  if (row_.scriptEnabled) {
    std::FILE* script = std::fopen(row_.scriptPath.c_str(), "rb");
    if (script == nullptr) {
      app::logLine() << "Cannot open script";
      ok = false;
    } else {
      std::vector<uint8_t> piece(kScriptPiece);
      while (ok) {
        size_t count = std::fread(piece.data(), 1, piece.size(), script);
        if (count == 0) break;
        ok = file->write(piece.data(), count);
      }
      std::fclose(script);
    }
  }
  if (ok && row_.baudRate != 0) {
    std::string line = baudRateLine(row_.baudRate);
    ok = file->write(reinterpret_cast<const uint8_t*>(line.data()), line.size());
  }
  bool closed = file->close();
  return ok && closed;
}

bool DiskInstallation::install() {
  bool completed = installSteps();
  // The drive is let go before anyone hears of the end.
  held_.reset();
  if (completed) {
    app::MutexLock lock(mutex_);
    status_.statusText = "Installation completed";
    status_.state = install::kStatusDone;
    status_.progress = row_.totalSize;
    post();
  }
  return completed;
}

bool DiskInstallation::installSteps() {
  // 1-6: sector 0 of the disk that holds the volume is saved and cleared.
  update("Formatting drive...", 0);
  std::string reason;
  // 2: the drive is held from here (or from the caller's check) to the end.
  pauseForTest("open");
  if (held_ == nullptr) {
    held_ = services_.devices->hold(drive_, reason);
    if (held_ == nullptr) return refuse(reason, "Cannot open device");
  } else if (!stillHeld("Cannot open device")) {
    return false;
  }
  std::unique_ptr<Device> volume = held_->openVolume();
  if (volume == nullptr) return fail("Cannot open device");
  StorageDeviceNumber number;
  if (volume->deviceNumber(number) < kStorageDeviceNumberSize) app::fatalFailure("IOCTL_GET_DEVICE_NUMBER failed");
  app::logLine() << "device number: " << number.deviceNumber;
  app::logLine() << "partition number: " << number.partitionNumber;
  volume->close();
  volume.reset();

  pauseForTest("physical");
  if (!stillHeld("Cannot open physical device")) return false;
  std::unique_ptr<Device> disk = held_->openPhysical(number.deviceNumber, reason);
  if (disk == nullptr) return refuse(reason, "Cannot open physical device");
  uint8_t oldSector[kSectorSize] = {};
  if (!disk->seek(0)) return fail("Cannot seek physical device");
  if (disk->read(oldSector, kSectorSize) < static_cast<int>(kSectorSize)) return fail("Cannot seek read device");
  const uint8_t zeros[kSectorSize] = {};
  if (!disk->seek(0)) return fail("Cannot MBR on device");
  if (disk->write(zeros, kSectorSize) < static_cast<int>(kSectorSize)) return fail("Cannot MBR on device");
  disk->close();
  disk.reset();

  // 7: the label "y" is also the answer to the formatter's question. The
  // formatter opens the drive itself; the hold lends it its exclusive claim.
  pauseForTest("format");
  if (!stillHeld("Cannot format device")) return false;
  target_ = held_->reach();
  DriveFormatter& formatter = *services_.formatter;
  held_->lendToFormatter();
  bool formatted = formatter.format(target_, "y", true, &stopEvent_) &&
                   (!formatter.formatsTwice() || formatter.format(target_, "y", true, &stopEvent_));
  bool takenBack = held_->takeBack(reason);
  if (stopping()) return fail(kInstallationCancelled);
  if (!formatted) return fail("Cannot format device");
  if (!takenBack) return refuse(reason, "Cannot format device");

  // 8-10: the boot files and the old sector 0.
  update("Copying system files...", 0);
  pauseForTest("files");
  if (!stillHeld("Cannot copy system files")) return false;
  if (!writeBootImageFile("linux", kImageDiskKernel)) return fail("Cannot copy system files");
  if (!writeBootImageFile("initrd.rgz", kImageDiskInitrd)) return fail("Cannot copy system files");
  if (!writeBootImageFile("syslinux.cfg", kImageDiskSyslinuxConfig)) return fail("Cannot copy system files");
  if (!writeMbrFile(oldSector)) return fail("Cannot copy system files");

  // 11: the boot loader's own installer writes the boot code. A disk
  // without it cannot boot, so an installer that could not be written out
  // or started fails the step.
  pauseForTest("bootloader");
  if (!stillHeld("Cannot copy system files")) return false;
  std::unique_ptr<app::ProgramRunner> bootLoader = services_.makeBootLoaderRunner();
  // From here on every failure releases the installer's process and file.
  auto failAfterBootLoader = [&](const std::string& text) {
    bootLoader->cleanUp();
    return fail(text);
  };
  auto stillHeldAfterBootLoader = [&](const std::string& text) {
    if (stillHeld(text)) return true;
    bootLoader->cleanUp();
    return false;
  };
  if (!bootLoader->run({"-s", held_->bootLoaderTarget()})) return failAfterBootLoader("Cannot copy system files");
  while (bootLoader->isRunning()) {
    app::logLine() << "still syslinux";
    if (stopEvent_.waitFor(100)) return failAfterBootLoader(kInstallationCancelled);
  }

  // 12: the packages, counting copied bytes.
  pauseForTest("packages");
  SourceFiles& sources = *services_.sources;
  uint32_t previousSize = 0;
  for (const std::string& name : row_.files) {
    update("Copying file: " + name, previousSize);
    if (!stillHeldAfterBootLoader("Cannot copy packages")) return false;
    std::string source = packages::joinFolderPath(row_.packageDir, name);
    uint64_t size = 0;
    int sized = sources.size(source, size);
    if (sized != 0) {
      app::logLine() << (sized == 1 ? "Cannot open file" : "Cannot get file size");
      return failAfterBootLoader("Cannot get package size");
    }
    if (!services_.files->copyInto(target_, source, name)) return failAfterBootLoader("Cannot copy packages");
    previousSize = static_cast<uint32_t>(size);
  }

  // 13-14: the scripts.
  if (!stillHeldAfterBootLoader("Cannot copy config")) return false;
  if (!writeAutorun()) return failAfterBootLoader("Cannot copy config");
  if (row_.modeScriptEnabled && !row_.modeScriptPath.empty() &&
      !services_.files->copyInto(target_, row_.modeScriptPath, "mode.scr")) {
    return failAfterBootLoader("Cannot copy mode script");
  }

  // 15: opening and closing the volume makes the platform flush it.
  if (!stillHeldAfterBootLoader("Cannot open device")) return false;
  volume = held_->openVolume();
  if (volume == nullptr) return failAfterBootLoader("Cannot open device");
  volume->close();
  volume.reset();
  bootLoader->cleanUp();
  return true;
}

void pauseForTest(const char* point) {
  const char* setting = std::getenv("TARNLIFT_TEST_PAUSE");
  if (setting == nullptr) return;
  std::string text = setting;
  size_t colon = text.find(':');
  if (colon == std::string::npos || text.compare(0, colon, point) != 0) return;
  std::string file = text.substr(colon + 1);
  std::ofstream(file + ".reached") << point << '\n';
  for (int i = 0; i < 1200 && !std::filesystem::exists(file + ".go"); ++i) app::sleepMilliseconds(50);
}

LocalDiskInstaller::~LocalDiskInstaller() {
  for (auto& [mac, installation] : installations_) installation->stopEvent().set();
  installations_.clear();
}

void LocalDiskInstaller::start(const install::RouterRecord& row) {
  cancel(row.mac);
  auto installation = std::make_unique<DiskInstallation>(row, services_);
  installation->start();
  installations_[row.mac] = std::move(installation);
}

bool LocalDiskInstaller::news(const net::MacAddress& mac, DiskStatus& status) {
  auto it = installations_.find(mac);
  if (it == installations_.end()) return false;
  DiskStatus waiting;
  while (it->second->nextNotification(waiting)) {
  }
  status = it->second->status();
  return true;
}

bool LocalDiskInstaller::hasNews(const net::MacAddress& mac) {
  auto it = installations_.find(mac);
  return it != installations_.end() && it->second->notificationEvent().waitFor(0);
}

void LocalDiskInstaller::cancel(const net::MacAddress& mac) {
  auto it = installations_.find(mac);
  if (it == installations_.end()) return;
  it->second->cancel();
  installations_.erase(it);
}

}  // namespace tarnlift::localdisk

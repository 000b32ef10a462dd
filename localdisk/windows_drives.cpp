#include "localdisk/windows_drives.h"

#include <algorithm>
#include <cctype>

#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {

namespace {

char upper(char letter) { return static_cast<char>(std::toupper(static_cast<unsigned char>(letter))); }

std::string rootOf(char letter) { return std::string(1, upper(letter)) + ":\\"; }

// A volume as the user knows it: its first mount path without the last
// backslash ("C:"), or its name when it has no drive letter.
std::string volumeText(const WindowsVolume& volume) {
  if (volume.paths.empty()) return "a volume without a drive letter (" + volume.name + ")";
  std::string path = volume.paths.front();
  if (path.size() > 1 && path.back() == '\\') path.pop_back();
  return path;
}

// The disk number the volume answers; false when it does not answer.
bool diskNumberOf(Device& volume, uint32_t& number) {
  StorageDeviceNumber answer;
  if (volume.deviceNumber(answer) < kStorageDeviceNumberSize) return false;
  number = answer.deviceNumber;
  return true;
}

class WindowsDriveEnumerator : public DriveEnumerator {
 public:
  explicit WindowsDriveEnumerator(WindowsStorage& storage) : storage_(storage) {}
  std::vector<DriveCandidate> candidates() override {
    std::string system = storage_.systemDirectory();
    char systemLetter = system.empty() ? 0 : upper(system[0]);
    std::vector<DriveCandidate> result;
    for (const std::string& root : storage_.driveRoots()) {
      if (root.empty()) continue;
      DriveCandidate candidate;
      candidate.label = root;
      candidate.letter = static_cast<uint8_t>(root[0]);
      candidate.type = storage_.driveType(root);
      candidate.system = upper(root[0]) == systemLetter;
      bool listed = (candidate.type == kDriveRemovable || candidate.type == kDriveFixed) && !candidate.system;
      if (listed) describe(root[0], candidate);
      result.push_back(candidate);
    }
    return result;
  }

 private:
  // "disk 1, 16.0 GB, Maker Model": what an installation would erase.
  void describe(char letter, DriveCandidate& candidate) {
    std::unique_ptr<WindowsDevice> volume = storage_.openVolume(letter, false);
    uint32_t number = 0;
    if (volume == nullptr || !diskNumberOf(*volume, number)) return;
    DiskDescription disk;
    candidate.description = "disk " + std::to_string(number);
    if (storage_.describeDisk(number, disk)) {
      std::string details = diskDescription(disk.bytes, disk.model);
      if (!details.empty()) candidate.description += ", " + details;
      candidate.size = diskSizeText(disk.bytes);
    }
  }

  WindowsStorage& storage_;
};

bool listedDrive(WindowsStorage& storage, char letter, std::string& reason) {
  WindowsDriveEnumerator enumerator(storage);
  for (const install::RouterRecord& row : listLocalDrives(enumerator)) {
    if (upper(static_cast<char>(row.mac[5])) == upper(letter)) return true;
  }
  reason = std::string("drive ") + upper(letter) + ": is not a removable or fixed drive other than the system's";
  return false;
}

// The drive, held from step 2 to the end of the installation: the volume
// handle, and from step 4 the physical drive's handle.
class WindowsHeldDrive : public HeldDrive {
 public:
  WindowsHeldDrive(WindowsStorage& storage, char letter, std::unique_ptr<WindowsDevice> volume)
      : storage_(storage), letter_(letter), volume_(std::move(volume)), volumeName_(storage.volumeOf(rootOf(letter))) {}
  ~WindowsHeldDrive() override {
    if (locked_) volume_->unlockVolume();
  }
  std::unique_ptr<Device> openVolume() override { return volume_->duplicate(); }
  std::unique_ptr<Device> openPhysical(uint32_t deviceNumber, std::string& reason) override {
    // What else is on that disk decides, before anything is touched.
    if (!windowsDiskErasable(storage_, letter_, deviceNumber, reason)) return nullptr;
    // Nobody may write through the file system while sector 0 goes.
    if (!volume_->lockVolume()) {
      reason = drive() + " is in use by another program and cannot be locked: close what uses it";
      return nullptr;
    }
    locked_ = true;
    if (!volume_->dismountVolume()) {
      reason = drive() + " cannot be dismounted";
      return nullptr;
    }
    physical_ = storage_.openPhysicalDrive(deviceNumber, true);
    if (physical_ == nullptr) {
      reason = "physical disk " + std::to_string(deviceNumber) + " of " + drive() + " cannot be opened";
      return nullptr;
    }
    diskNumber_ = deviceNumber;
    // Disks are numbered anew when one comes or goes: the disk opened by
    // number must be the one under the held volume.
    if (!sameDisk(reason)) return nullptr;
    return physical_->duplicate();
  }
  bool unchanged(std::string& reason) override {
    if (storage_.volumeOf(rootOf(letter_)) != volumeName_) {
      reason = drive() + " names another volume than the one that was checked";
      return false;
    }
    return physical_ == nullptr || sameDisk(reason);
  }
  void lendToFormatter() override {
    // The formatter locks and dismounts the volume itself.
    if (locked_) volume_->unlockVolume();
    locked_ = false;
  }
  bool takeBack(std::string& reason) override {
    // The formatter's dismount leaves the held volume handle without its
    // volume: the letter is opened again and must lead to the held disk.
    std::unique_ptr<WindowsDevice> volume = storage_.openVolume(letter_, true);
    if (volume == nullptr) {
      reason = drive() + " cannot be opened after the format";
      return false;
    }
    volume_ = std::move(volume);
    return unchanged(reason);
  }
  DriveId reach() const override {
    DriveId id;
    id.letter = letter_;
    return id;
  }
  std::string bootLoaderTarget() const override { return std::string(1, letter_) + ":"; }

 private:
  std::string drive() const { return std::string(1, upper(letter_)) + ":"; }
  // Both held handles still answer the disk number of step 4.
  bool sameDisk(std::string& reason) {
    std::string disk = "physical disk " + std::to_string(diskNumber_);
    uint32_t number = 0;
    if (!diskNumberOf(*physical_, number) || number != diskNumber_) {
      reason = disk + " is no longer the disk that was opened";
      return false;
    }
    if (!diskNumberOf(*volume_, number) || number != diskNumber_) {
      reason = drive() + " is no longer on " + disk;
      return false;
    }
    return true;
  }

  WindowsStorage& storage_;
  char letter_;
  std::unique_ptr<WindowsDevice> volume_;
  std::string volumeName_;
  std::unique_ptr<WindowsDevice> physical_;
  uint32_t diskNumber_ = 0;
  bool locked_ = false;
};

class WindowsDiskAccess : public DiskAccess {
 public:
  explicit WindowsDiskAccess(WindowsStorage& storage) : storage_(storage) {}
  bool check(const DriveId& drive, std::string& reason) override {
    if (!listedDrive(storage_, drive.letter, reason)) return false;
    std::unique_ptr<WindowsDevice> volume = storage_.openVolume(drive.letter, false);
    uint32_t number = 0;
    if (volume == nullptr || !diskNumberOf(*volume, number)) {
      reason = std::string("drive ") + upper(drive.letter) + ": does not say which physical disk it is on";
      return false;
    }
    return windowsDiskErasable(storage_, drive.letter, number, reason);
  }
  std::unique_ptr<HeldDrive> hold(const DriveId& drive, std::string& reason) override {
    if (!listedDrive(storage_, drive.letter, reason)) return nullptr;
    std::unique_ptr<WindowsDevice> volume = storage_.openVolume(drive.letter, true);
    if (volume == nullptr) {
      reason = std::string("drive ") + upper(drive.letter) + ": cannot be opened";
      return nullptr;
    }
    return std::make_unique<WindowsHeldDrive>(storage_, drive.letter, std::move(volume));
  }

 private:
  WindowsStorage& storage_;
};

}  // namespace

std::unique_ptr<DriveEnumerator> makeWindowsDriveEnumerator(WindowsStorage& storage) {
  return std::make_unique<WindowsDriveEnumerator>(storage);
}

std::unique_ptr<DiskAccess> makeWindowsDiskAccess(WindowsStorage& storage) {
  return std::make_unique<WindowsDiskAccess>(storage);
}

bool windowsDiskErasable(WindowsStorage& storage, char letter, uint32_t diskNumber, std::string& reason) {
  std::string drive = std::string(1, upper(letter)) + ":";
  std::string chosen = storage.volumeOf(rootOf(letter));
  if (chosen.empty()) {
    reason = drive + " is not a volume of a disk";
    return false;
  }
  // What the running system needs, by the volume it lies on.
  std::vector<std::pair<std::string, std::string>> uses{{storage.volumeOf(storage.systemDirectory()), "the system volume"},
                                                         {storage.volumeOf(storage.windowsDirectory()), "the Windows folder"}};
  for (const std::string& pageFile : storage.pageFiles()) uses.push_back({storage.volumeOf(pageFile), "a page file"});
  auto usesOf = [&uses](const std::string& volume) {
    std::string text;
    for (const auto& [name, what] : uses) {
      if (!name.empty() && name == volume && text.find(what) == std::string::npos) text += (text.empty() ? "" : ", ") + what;
    }
    return text;
  };
  std::string disk = "physical disk " + std::to_string(diskNumber);
  std::string own = usesOf(chosen);
  if (!own.empty()) {
    reason = drive + " cannot be erased: it holds " + own;
    return false;
  }
  std::vector<std::string> others;
  for (const WindowsVolume& volume : storage.volumes()) {
    bool onDisk = std::find(volume.disks.begin(), volume.disks.end(), diskNumber) != volume.disks.end();
    if (volume.name == chosen) {
      if (volume.disks.size() > 1) {
        reason = drive + " cannot be erased: it spans several physical disks";
        return false;
      }
      if (!volume.disks.empty() && !onDisk) {
        reason = drive + " lies on physical disk " + std::to_string(volume.disks.front()) + ", not on " + disk;
        return false;
      }
      continue;
    }
    if (!onDisk) continue;
    std::string what = usesOf(volume.name);
    others.push_back(volumeText(volume) + (what.empty() ? "" : " (" + what + ")"));
  }
  if (others.empty()) return true;
  std::string list;
  for (size_t i = 0; i < others.size(); ++i) {
    list += (i == 0 ? "" : i + 1 == others.size() ? " and " : ", ") + others[i];
  }
  reason = drive + " cannot be erased: " + disk + " holds it together with " + list +
           ", and the whole disk would be erased";
  return false;
}

}  // namespace tarnlift::localdisk

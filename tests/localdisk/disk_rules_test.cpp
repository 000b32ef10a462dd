// Which drives may be erased, on made-up machines of both platforms: the
// Windows rules (what else lives on the physical disk, the disk number asked
// again, the lock and dismount before sector 0) and the Linux ones
// (partitions, mounts, swap, mapped devices, loop devices, links).
#include <gtest/gtest.h>

#include <algorithm>

#include "localdisk/disk_installation.h"
#include "localdisk/linux_disks.h"
#include "localdisk/windows_drives.h"
#include "tests/app/capture_log.h"
#include "tests/localdisk/fake_disk.h"
#include "tests/localdisk/fake_machines.h"

namespace tarnlift::localdisk {
namespace {

using namespace localdisk::testing;

// ---- Windows -------------------------------------------------------------------

std::string refusal(FakeWindowsStorage& storage, char letter) {
  std::unique_ptr<DiskAccess> access = makeWindowsDiskAccess(storage);
  DriveId drive;
  drive.letter = letter;
  std::string reason;
  return access->check(drive, reason) ? std::string() : reason;
}

std::vector<std::string> rowTexts(FakeWindowsStorage& storage) {
  std::unique_ptr<DriveEnumerator> enumerator = makeWindowsDriveEnumerator(storage);
  std::vector<std::string> texts;
  for (const install::RouterRecord& row : listLocalDrives(*enumerator))
    texts.push_back(row.label + "|" + row.driveDescription + "|" + row.driveSize);
  return texts;
}

size_t at(const std::vector<std::string>& journal, const std::string& entry, size_t from = 0) {
  auto found = std::find(journal.begin() + static_cast<std::ptrdiff_t>(from), journal.end(), entry);
  return static_cast<size_t>(found - journal.begin());
}

TEST(WindowsDrives, ADataVolumeOnTheSystemDiskIsRefusedNamingTheDiskAndItsVolumes) {
  FakeWindowsStorage storage;
  storage.addVolume('D', kDriveFixed, 0);
  // Listed as the drive list always did (its letter is not the system's),
  // with what it lies on.
  EXPECT_EQ(rowTexts(storage), (std::vector<std::string>{"D:\\|disk 0, 500.1 GB, WDC WD5000AAKX|500.1 GB"}));
  EXPECT_EQ(refusal(storage, 'D'),
            "D: cannot be erased: physical disk 0 holds it together with C: (the system volume, the Windows folder, "
            "a page file), and the whole disk would be erased");
}

TEST(WindowsDrives, AUsbStickAloneOnItsDiskMayBeErased) {
  FakeWindowsStorage storage;
  storage.addDisk(1, 16008609792ull, "SanDisk Cruzer Blade");
  storage.addVolume('E', kDriveRemovable, 1);
  EXPECT_EQ(rowTexts(storage), (std::vector<std::string>{"E:\\|disk 1, 16.0 GB, SanDisk Cruzer Blade|16.0 GB"}));
  EXPECT_EQ(refusal(storage, 'E'), "");
}

TEST(WindowsDrives, ADiskWithTwoDataVolumesIsRefusedNamingTheOther) {
  FakeWindowsStorage storage;
  storage.addDisk(1, 2000398934016ull, "Seagate Expansion");
  storage.addVolume('E', kDriveFixed, 1);
  storage.addVolume('F', kDriveFixed, 1);
  EXPECT_EQ(refusal(storage, 'E'),
            "E: cannot be erased: physical disk 1 holds it together with F:, and the whole disk would be erased");
  EXPECT_EQ(refusal(storage, 'F'),
            "F: cannot be erased: physical disk 1 holds it together with E:, and the whole disk would be erased");
}

TEST(WindowsDrives, VolumesWithoutALetterAndPageFilesCountToo) {
  FakeWindowsStorage storage;
  storage.addDisk(1, 256060514304ull, "Samsung SSD");
  storage.addVolume('E', kDriveFixed, 1);
  storage.addVolume('P', kDriveFixed, 1);
  storage.volumeList.push_back({0, "\\\\?\\Volume{efi}\\", kDriveFixed, {1}});
  storage.pageFileList.push_back("P:\\pagefile.sys");
  EXPECT_EQ(refusal(storage, 'E'),
            "E: cannot be erased: physical disk 1 holds it together with P: (a page file) and a volume without a drive "
            "letter (\\\\?\\Volume{efi}\\), and the whole disk would be erased");
}

TEST(WindowsDrives, TheSystemsOwnVolumesAreRefusedWhateverTheirLetter) {
  FakeWindowsStorage storage;
  storage.addDisk(1, 1000204886016ull, "Data Disk");
  storage.addVolume('W', kDriveFixed, 1);
  storage.windowsDirectoryPath = "W:\\Windows";
  EXPECT_EQ(refusal(storage, 'W'), "W: cannot be erased: it holds the Windows folder");
  // C: itself is never a row at all.
  EXPECT_EQ(refusal(storage, 'C'), "drive C: is not a removable or fixed drive other than the system's");
}

TEST(WindowsDrives, AVolumeSpanningDisksIsRefused) {
  FakeWindowsStorage storage;
  storage.addDisk(1, 1000204886016ull, "A");
  storage.addDisk(2, 1000204886016ull, "B");
  storage.addVolume('S', kDriveFixed, 1).disks.push_back(2);
  EXPECT_EQ(refusal(storage, 'S'), "S: cannot be erased: it spans several physical disks");
}

// A whole installation over the made-up machine: the engine's steps go
// through the held volume and physical drive.
class WindowsInstallation : public ::testing::Test {
 protected:
  void SetUp() override {
    store_.add(kImageDiskKernel, "K");
    store_.add(kImageDiskInitrd, "I");
    store_.add(kImageDiskSyslinuxConfig, "C");
    netboot::setBootImageStore(&store_);
    storage_.addDisk(1, 16008609792ull, "SanDisk Cruzer Blade");
    storage_.addVolume('E', kDriveRemovable, 1);
    services_.devices = access_.get();
    services_.formatter = &formatter_;
    services_.files = &files_;
    services_.sources = &sources_;
    services_.makeBootLoaderRunner = [this] { return std::make_unique<FakeRunner>(runner_); };
    row_ = makeDriveRow("E:\\", 'E', kDriveRemovable);
  }
  void TearDown() override { netboot::setBootImageStore(nullptr); }

  // The formatter notes its run into the machine's journal.
  class JournalFormatter : public FakeFormatter {
   public:
    JournalFormatter(FakeVolume& volume, FakeWindowsStorage& storage) : FakeFormatter(volume), storage_(storage) {}
    bool format(const DriveId& drive, const std::string& label, bool fat32, app::Waitable* stop) override {
      storage_.note(std::string("format ") + drive.letter);
      return FakeFormatter::format(drive, label, fat32, stop);
    }

   private:
    FakeWindowsStorage& storage_;
  };

  std::string install(bool expectSuccess) {
    DiskInstallation installation(row_, &services_);
    EXPECT_EQ(installation.install(), expectSuccess);
    return installation.status().errorText;
  }
  bool diskUntouched(uint32_t number) {
    const std::vector<uint8_t>& bytes = storage_.disk(number)->bytesAtStart;
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0xAB; });
  }

  FakeStore store_;
  FakeWindowsStorage storage_;
  std::unique_ptr<DiskAccess> access_ = makeWindowsDiskAccess(storage_);
  FakeVolume volume_;
  JournalFormatter formatter_{volume_, storage_};
  FakeVolumeFiles files_{volume_};
  FakeSourceFiles sources_;
  FakeRunnerLog runner_;
  DiskServices services_;
  install::RouterRecord row_;
};

TEST_F(WindowsInstallation, TheVolumeIsLockedAndDismountedAndTheDiskNumberAskedAgainBeforeSectorZero) {
  install(true);
  const std::vector<std::string>& j = storage_.journal;
  size_t lock = at(j, "volume E lock");
  size_t dismount = at(j, "volume E dismount");
  size_t physical = at(j, "open physical 1 rw");
  size_t read = at(j, "physical 1 read 512");
  size_t write = at(j, "physical 1 write 512");
  ASSERT_LT(write, j.size()) << ::testing::PrintToString(j);
  EXPECT_LT(at(j, "open volume E rw"), lock) << "the volume is held first";
  EXPECT_LT(lock, dismount);
  EXPECT_LT(dismount, physical);
  EXPECT_LT(physical, read);
  EXPECT_LT(read, write);
  // Between opening the physical drive and touching it, both held handles
  // are asked for the disk number again.
  EXPECT_LT(at(j, "physical 1 device number", physical), read);
  EXPECT_LT(at(j, "volume E device number", physical), read);
  // The lock is given up for the formatter, which dismounts the volume;
  // afterwards the letter is opened again.
  size_t unlock = at(j, "volume E unlock");
  size_t format = at(j, "format E");
  EXPECT_LT(write, unlock);
  EXPECT_LT(unlock, format);
  EXPECT_LT(format, at(j, "open volume E rw", format));
  // Sector 0 of the stick's disk was saved and cleared; the system disk is
  // untouched.
  EXPECT_EQ(volume_.files["mbr"], std::string(512, '\xAB'));
  EXPECT_EQ(storage_.disk(1)->bytesAtStart[0], 0);
  EXPECT_TRUE(diskUntouched(0));
}

TEST_F(WindowsInstallation, ADriveOnTheSystemDiskIsNeverLockedOrWritten) {
  storage_.addVolume('D', kDriveFixed, 0);
  row_ = makeDriveRow("D:\\", 'D', kDriveFixed);
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(install(false), "Cannot open physical device");
  EXPECT_TRUE(log.contains("refused: D: cannot be erased: physical disk 0 holds it together with C:")) << log.text();
  EXPECT_EQ(at(storage_.journal, "volume D lock"), storage_.journal.size());
  EXPECT_TRUE(diskUntouched(0));
}

TEST_F(WindowsInstallation, APhysicalDriveThatAnswersAnotherNumberIsNotWritten) {
  // The disks were numbered anew between the volume's answer and the open.
  storage_.addDisk(2, 500107862016ull, "Other");
  storage_.renumbered[1] = 2;
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(install(false), "Cannot open physical device");
  EXPECT_TRUE(log.contains("refused: physical disk 1 is no longer the disk that was opened\n")) << log.text();
  EXPECT_TRUE(diskUntouched(1));
  EXPECT_TRUE(diskUntouched(2));
}

TEST_F(WindowsInstallation, AVolumeMovedToAnotherDiskDuringTheFormatStopsTheInstallation) {
  storage_.addDisk(2, 500107862016ull, "Other");
  storage_.onJournal = [this](const std::string& entry) {
    if (entry == "format E") storage_.byLetter('E')->disks = {2};
  };
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(install(false), "Cannot format device");
  EXPECT_TRUE(log.contains("refused: E: is no longer on physical disk 1\n")) << log.text();
  EXPECT_TRUE(volume_.files.empty());
}

TEST_F(WindowsInstallation, ALetterThatNamesAnotherVolumeLaterStopsTheInstallation) {
  storage_.onJournal = [this](const std::string& entry) {
    if (entry == "format E") storage_.byLetter('E')->name = "\\\\?\\Volume{other}\\";
  };
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(install(false), "Cannot format device");
  EXPECT_TRUE(log.contains("refused: E: names another volume than the one that was checked\n")) << log.text();
}

TEST_F(WindowsInstallation, AVolumeThatCannotBeLockedIsNotWritten) {
  storage_.lockFails = true;
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(install(false), "Cannot open physical device");
  EXPECT_TRUE(log.contains("refused: E: is in use by another program and cannot be locked")) << log.text();
  EXPECT_EQ(at(storage_.journal, "open physical 1 rw"), storage_.journal.size());
  EXPECT_TRUE(diskUntouched(1));
}

// ---- Linux ---------------------------------------------------------------------

std::string linuxRefusal(FakeLinuxSystem& system, const std::string& path) {
  LinuxTarget target;
  std::string reason;
  return checkLinuxTarget(system, path, target, reason) ? std::string() : reason;
}

TEST(LinuxDrives, APartitionIsRefusedNamingTheWholeDisk) {
  FakeLinuxSystem system;
  system.addDisk("sdb", 8, 16, 2, true);
  system.addDisk("loop0", 7, 0, 1);
  system.addDisk("nvme0n1", 259, 0, 1);
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb1"),
            "/dev/sdb1 is a partition of /dev/sdb: a disk is erased whole, so name the whole disk /dev/sdb instead");
  EXPECT_EQ(linuxRefusal(system, "/dev/loop0p1"), "/dev/loop0p1 is a partition of /dev/loop0: a disk is erased whole, "
                                                  "so name the whole disk /dev/loop0 instead");
  EXPECT_EQ(linuxRefusal(system, "/dev/nvme0n1p1"), "/dev/nvme0n1p1 is a partition of /dev/nvme0n1: a disk is erased "
                                                    "whole, so name the whole disk /dev/nvme0n1 instead");
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "");
  EXPECT_EQ(linuxRefusal(system, "/dev/loop0"), "") << "loop devices may be named";
}

TEST(LinuxDrives, ALinkIsResolvedOnceAndNamedAsGiven) {
  FakeLinuxSystem system;
  system.addDisk("sdc", 8, 32, 1, true);
  system.links["/dev/disk/by-id/usb-Stick"] = "/dev/sdc";
  system.links["/dev/disk/by-id/usb-Stick-part1"] = "/dev/sdc1";
  LinuxTarget target;
  std::string reason;
  EXPECT_TRUE(checkLinuxTarget(system, "/dev/disk/by-id/usb-Stick", target, reason)) << reason;
  EXPECT_EQ(target.resolved, "/dev/sdc");
  EXPECT_EQ(target.disk, "sdc");
  EXPECT_TRUE(target.device);
  EXPECT_EQ(linuxRefusal(system, "/dev/disk/by-id/usb-Stick-part1"),
            "/dev/disk/by-id/usb-Stick-part1 is a partition of /dev/sdc: a disk is erased whole, so name the whole "
            "disk /dev/sdc instead");
}

TEST(LinuxDrives, ADiskWithAMountedPartitionIsRefused) {
  FakeLinuxSystem system;
  system.addDisk("sdb", 8, 16, 2, true);
  system.mountList.push_back({deviceNumber(8, 18), 0, "/media/stick"});
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "/dev/sdb has a mounted file system (/media/stick): unmount it first");
  // A file system whose own device number is not the disk's (btrfs) is
  // found by its source.
  system.mountList = {{deviceNumber(0, 45), deviceNumber(8, 16), "/srv"}};
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "/dev/sdb has a mounted file system (/srv): unmount it first");
}

TEST(LinuxDrives, TheSystemsDiskAndSwapAreRefused) {
  FakeLinuxSystem system;
  system.addDisk("sda", 8, 0, 2);
  system.addDisk("sdb", 8, 16, 1);
  system.mountList.push_back({deviceNumber(8, 2), 0, "/"});
  EXPECT_EQ(linuxRefusal(system, "/dev/sda"), "/dev/sda holds the running system");
  EXPECT_TRUE(diskUse(system, "sda").holdsSystem());
  system.swapList.push_back({"/dev/sdb1", system.paths["/dev/sdb1"]});
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "/dev/sdb is used for swap");
  EXPECT_TRUE(diskUse(system, "sdb").holdsSystem()) << "a swap disk is left out of the drive list";
}

TEST(LinuxDrives, ADiskUnderAMappedRaidOrLvmDeviceIsRefusedNamingIt) {
  FakeLinuxSystem system;
  system.addDisk("sdb", 8, 16, 1);
  system.membersOf["sdb"].holders = {"md0", "dm-2"};
  system.membersOf["sdb"].holderDevices = {deviceNumber(9, 0), deviceNumber(253, 2)};
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "/dev/sdb is in use by /dev/md0, /dev/dm-2 (a mapped, RAID or LVM device)");
  // What is mounted from a holder counts as mounted from the disk.
  system.mountList.push_back({deviceNumber(253, 2), 0, "/data"});
  EXPECT_EQ(linuxRefusal(system, "/dev/sdb"), "/dev/sdb has a mounted file system (/data): unmount it first");
}

TEST(LinuxDrives, AnImageBehindALoopDeviceIsFoundByDeviceAndInodeNotByName) {
  FakeLinuxSystem system;
  system.addFile("/srv/images/disk.img", 2049, 77);
  system.addFile("/srv/images/other.img", 2049, 78);
  // Attached under a name that is gone now (renamed since).
  system.loopList.push_back({"loop3", "/srv/images/old-name.img", 2049, 77, 0});
  // Another file that happens to carry the attached name.
  system.addFile("/srv/images/old-name.img", 2049, 90);
  EXPECT_EQ(linuxRefusal(system, "/srv/images/disk.img"),
            "/srv/images/disk.img is the backing file of /dev/loop3: detach it first (losetup -d /dev/loop3)");
  EXPECT_EQ(linuxRefusal(system, "/srv/images/old-name.img"), "");
  EXPECT_EQ(linuxRefusal(system, "/srv/images/other.img"), "");
  // The same inode on another file system is another file.
  system.addFile("/mnt/disk.img", 2050, 77);
  EXPECT_EQ(linuxRefusal(system, "/mnt/disk.img"), "");
}

TEST(LinuxDrives, ADiskBehindALoopDeviceAndASwapFileAreRefused) {
  FakeLinuxSystem system;
  system.addDisk("sdd", 8, 48);
  system.loopList.push_back({"loop5", "/dev/sdd", 5, deviceNumber(8, 48), deviceNumber(8, 48)});
  EXPECT_EQ(linuxRefusal(system, "/dev/sdd"), "/dev/sdd is the backing device of /dev/loop5: detach it first "
                                              "(losetup -d /dev/loop5)");
  system.addFile("/swapfile", 2049, 12);
  system.swapList.push_back({"/swapfile", system.paths["/swapfile"]});
  EXPECT_EQ(linuxRefusal(system, "/swapfile"), "/swapfile is used for swap");
}

TEST(LinuxDrives, WhatIsNoDiskIsRefusedByKind) {
  FakeLinuxSystem system;
  system.addDisk("sr0", 11, 0);
  system.addDisk("zram0", 252, 0);
  system.addDisk("nbd0", 43, 0);
  system.addDisk("md0", 9, 0);
  system.addOther("/dev/null");
  EXPECT_EQ(linuxRefusal(system, "/dev/sr0"), "/dev/sr0 is an optical drive, not a disk");
  EXPECT_EQ(linuxRefusal(system, "/dev/zram0"), "/dev/zram0 is a RAM disk, not a disk");
  EXPECT_EQ(linuxRefusal(system, "/dev/nbd0"), "/dev/nbd0 is a network block device, not a local disk");
  EXPECT_EQ(linuxRefusal(system, "/dev/md0"), "/dev/md0 is a mapped, RAID or floppy device, not a disk");
  EXPECT_EQ(linuxRefusal(system, "/dev/null"), "/dev/null is neither a disk nor a disk image file");
  EXPECT_EQ(linuxRefusal(system, "/dev/sdz"), "/dev/sdz does not exist");
  EXPECT_EQ(linuxRefusal(system, ""), "no drive named");
}

TEST(LinuxDrives, BlockDeviceKinds) {
  EXPECT_EQ(blockDiskType("sr0", false), kDriveCdRom);
  EXPECT_EQ(blockDiskType("ram0", false), kDriveRamDisk);
  EXPECT_EQ(blockDiskType("zram0", false), kDriveRamDisk);
  EXPECT_EQ(blockDiskType("nbd0", false), kDriveRemote);
  EXPECT_EQ(blockDiskType("loop3", false), kDriveUnknown);
  EXPECT_EQ(blockDiskType("dm-0", false), kDriveUnknown);
  EXPECT_EQ(blockDiskType("md127", false), kDriveUnknown);
  EXPECT_EQ(blockDiskType("fd0", false), kDriveUnknown);
  EXPECT_EQ(blockDiskType("sdb", true), kDriveRemovable);
  EXPECT_EQ(blockDiskType("sdb", false), kDriveFixed);
}

TEST(DiskDescription, SizeAsMakersCountAndModel) {
  EXPECT_EQ(diskDescription(16008609792ull, "SanDisk Cruzer Blade"), "16.0 GB, SanDisk Cruzer Blade");
  EXPECT_EQ(diskDescription(268435456ull, ""), "268.4 MB");
  EXPECT_EQ(diskDescription(0, "Card Reader"), "Card Reader");
  EXPECT_EQ(diskDescription(0, ""), "");
}

}  // namespace
}  // namespace tarnlift::localdisk

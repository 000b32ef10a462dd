#include "netboot/boot_images.h"

#include <gtest/gtest.h>

#include <cstdio>
#ifdef _WIN32
#include <windows.h>
#include <io.h>
#define dup2 _dup2
#define fileno _fileno
#else
#include <unistd.h>
#endif
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "netboot/bootp.h"
#include "netboot/resource_lookup.h"
#include "tests/app/capture_log.h"
#include "tests/netboot/fake_network.h"

namespace tarnlift::netboot {
namespace {

using testing::FakeBootImageStore;
using testing::ScopedBootImageStore;

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "tl_bootimg_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
         "_" + name;
}

void writeRecord(const std::string& path, const std::string& content) {
  std::vector<uint8_t> record = makeBootImageRecord(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
}

bool makeDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path);
}

// Sets an environment variable for the length of a test ("" removes it).
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    set(value);
  }
  ~ScopedEnvironment() { set(had_ ? old_ : std::string()); }

 private:
  void set(const std::string& value) {
#ifdef _WIN32
    _putenv_s(name_, value.c_str());
    SetEnvironmentVariableA(name_, value.empty() ? nullptr : value.c_str());
#else
    if (value.empty()) {
      unsetenv(name_);
    } else {
      setenv(name_, value.c_str(), 1);
    }
#endif
  }
  const char* name_;
  bool had_ = false;
  std::string old_;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(BootImageRecord, PaddingBehindTheContentIsIgnored) {
  FakeBootImageStore store;
  store.add(130, {1, 2, 3, 4, 5}, 11);
  ScopedBootImageStore scoped(store);
  BootImage image = loadBootImage(130);
  ASSERT_EQ(image.length, 5u);
  EXPECT_EQ(std::vector<uint8_t>(image.data, image.data + 5), (std::vector<uint8_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(image.data, store.records[130].data() + 4) << "a view, not a copy";
}

TEST(BootImageRecord, ParseRejectsCutRecords) {
  BootImage image;
  const uint8_t tooShort[3] = {0, 0, 0};
  EXPECT_FALSE(parseBootImageRecord(tooShort, 3, image));
  const uint8_t lying[6] = {3, 0, 0, 0, 9, 9};
  EXPECT_FALSE(parseBootImageRecord(lying, 6, image));
  const uint8_t empty[4] = {0, 0, 0, 0};
  EXPECT_TRUE(parseBootImageRecord(empty, 4, image));
  EXPECT_EQ(image.length, 0u);
  std::vector<uint8_t> made = makeBootImageRecord(reinterpret_cast<const uint8_t*>("abc"), 3);
  EXPECT_EQ(made, (std::vector<uint8_t>{3, 0, 0, 0, 'a', 'b', 'c'}));
}

TEST(BootImageWrite, WritesTheContentToANewFile) {
  FakeBootImageStore store;
  store.add(137, {'h', 'e', 'l', 'l', 'o'}, 2);
  ScopedBootImageStore scoped(store);
  std::string path = tempPath("new");
  std::remove(path.c_str());
  EXPECT_TRUE(writeBootImage(path, 137));
  EXPECT_EQ(readFile(path), "hello");
  std::remove(path.c_str());
}

TEST(BootImageWrite, ExistingFileIsNotTouched) {
  FakeBootImageStore store;
  store.add(137, {'n', 'e', 'w'});
  ScopedBootImageStore scoped(store);
  std::string path = tempPath("existing");
  {
    std::ofstream out(path, std::ios::binary);
    out << "previous contents";
  }
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(writeBootImage(path, 137));
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("Cannot create file"), std::string::npos);
  EXPECT_EQ(readFile(path), "previous contents");
  std::remove(path.c_str());
}

TEST(BootImageDeathTest, MissingEntryIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        FakeBootImageStore store;
        setBootImageStore(&store);
        loadBootImage(126);
      },
      ::testing::ExitedWithCode(1), "BOX\\[FindResource");
}

TEST(BootImageDeathTest, MissingEntryPrintsItsNumber) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        FakeBootImageStore store;
        setBootImageStore(&store);
        // The number goes to standard output; join it to standard error so
        // that the death test sees it.
        std::fflush(stdout);
        dup2(fileno(stderr), fileno(stdout));
        loadBootImage(142);
      },
      ::testing::ExitedWithCode(1), "ResourceID=142");
}

void loadCutRecord() {
  tarnlift::testing::fatalToStderr();
  FakeBootImageStore store;
  store.records[131] = std::vector<uint8_t>{200, 0, 0, 0, 1};
  setBootImageStore(&store);
  loadBootImage(131);
}

TEST(BootImageDeathTest, CutRecordIsFatal) {
  EXPECT_EXIT(loadCutRecord(), ::testing::ExitedWithCode(1), "BOX\\[LoadResource");
}

// The resource steps: each failure has its own fatal text.
const uint8_t kResourceBytes[] = {1, 0, 0, 0, 42};

ResourceLookup workingLookup() {
  static int handle = 0;
  ResourceLookup steps;
  steps.find = [](int number) -> void* { return number == 143 ? &handle : nullptr; };
  steps.load = [](void* found) -> void* { return found; };
  steps.lock = [](void*) -> const void* { return kResourceBytes; };
  steps.size = [](void*) -> size_t { return sizeof kResourceBytes; };
  return steps;
}

TEST(ResourceLookupTest, FoundLoadedLockedGivesTheRecord) {
  const uint8_t* record = nullptr;
  size_t size = 0;
  ASSERT_TRUE(lookUpResourceRecord(workingLookup(), 143, record, size));
  EXPECT_EQ(record, kResourceBytes);
  EXPECT_EQ(size, sizeof kResourceBytes);
  EXPECT_FALSE(lookUpResourceRecord(workingLookup(), 144, record, size));
}

TEST(BootImageDeathTest, FailedLoadIsFatalLoadResource) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        ResourceLookup steps = workingLookup();
        steps.load = [](void*) -> void* { return nullptr; };
        const uint8_t* record = nullptr;
        size_t size = 0;
        lookUpResourceRecord(steps, 143, record, size);
      },
      ::testing::ExitedWithCode(1), "BOX\\[LoadResource");
}

TEST(BootImageDeathTest, FailedLockIsFatalLockResource) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        ResourceLookup steps = workingLookup();
        steps.lock = [](void*) -> const void* { return nullptr; };
        const uint8_t* record = nullptr;
        size_t size = 0;
        lookUpResourceRecord(steps, 143, record, size);
      },
      ::testing::ExitedWithCode(1), "BOX\\[LockResource");
}

TEST(BootImageDirectory, RecordsAreMappedFromNumberedFiles) {
  std::string directory = ::testing::TempDir();
  std::string path = directory + "/9137.bin";
  std::vector<uint8_t> record = makeBootImageRecord(reinterpret_cast<const uint8_t*>("payload"), 7);
  record.push_back(0);
  {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
  }
  std::unique_ptr<BootImageStore> store = makeDirectoryBootImageStore(directory);
  const uint8_t* bytes = nullptr;
  size_t size = 0;
  ASSERT_TRUE(store->findRecord(9137, bytes, size));
  EXPECT_EQ(size, record.size());
  BootImage image;
  ASSERT_TRUE(parseBootImageRecord(bytes, size, image));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(image.data), image.length), "payload");
  EXPECT_FALSE(store->findRecord(9138, bytes, size));
  std::remove(path.c_str());
}

// The records shipped with the program are the documented test images and
// the placeholder for 143: on Windows from the executable's resources,
// elsewhere from the records the build assembles.
TEST(ShippedBootImages, AreTheTestImagesAndThePlaceholder) {
#ifdef TARNLIFT_DEFAULT_BOOT_IMAGES
  setBootImageDirectory(TARNLIFT_DEFAULT_BOOT_IMAGES);
#endif
  for (int number : {129, 130, 131, 135, 136, 137, 138, 139}) {
    BootImage image = loadBootImage(number);
    std::string head = "TARNLIFT TEST BOOT IMAGE " + std::to_string(number);
    ASSERT_GT(image.length, head.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(image.data), head.size()), head);
  }
  EXPECT_EQ(loadBootImage(131).length, 1468u);
  EXPECT_EQ(loadBootImage(130).length, 4096u) << "padding is not content";
  // A PE32+ UEFI application for x86-64 that says what it is.
  BootImage efi = loadBootImage(kImageEfiX64);
  ASSERT_GT(efi.length, 0x200u);
  std::string bytes(reinterpret_cast<const char*>(efi.data), efi.length);
  EXPECT_EQ(bytes.substr(0, 2), "MZ");
  uint32_t pe = uint32_t(efi.data[0x3C]) | uint32_t(efi.data[0x3D]) << 8;
  ASSERT_LT(pe + 0x60, efi.length);
  EXPECT_EQ(bytes.substr(pe, 4), std::string("PE\0\0", 4));
  EXPECT_EQ(efi.data[pe + 4] | efi.data[pe + 5] << 8, 0x8664) << "x86-64";
  EXPECT_EQ(efi.data[pe + 24] | efi.data[pe + 25] << 8, 0x20B) << "PE32+";
  EXPECT_EQ(efi.data[pe + 24 + 68] | efi.data[pe + 24 + 69] << 8, 10) << "subsystem: EFI application";
  EXPECT_NE(bytes.find("TARNLIFT PLACEHOLDER BOOT IMAGE 143"), std::string::npos);
  // TFTP sends no closing empty block: a length that is a multiple of the
  // client's block size would leave the client waiting.
  EXPECT_EQ(efi.length % 2, 1u) << "an odd length is a multiple of no usual block size";
  std::string wide;
  for (char c : std::string("supplied as record 143")) wide += std::string{c, 0};
  EXPECT_NE(bytes.find(wide), std::string::npos) << "the console text, in UTF-16";
  setBootImageDirectory("");
}

// The BIOS placeholder (125) is a real-mode PXE boot program that says what
// it is and what is missing, then hands the PC back to its firmware.
TEST(ShippedBootImages, BiosPlaceholderSaysWhatIsMissingAndGivesThePcBack) {
  std::string empty = tempPath("bios_placeholder");
  ASSERT_TRUE(makeDirectory(empty));
  setBootImageDirectory(empty);
  BootImageLocation location;
  ASSERT_TRUE(locateBootImage(kImageBiosPxe, location));
  EXPECT_EQ(location.place, "placeholder built into the program");
  BootImage image = loadBootImage(kImageBiosPxe);
  std::string bytes(reinterpret_cast<const char*>(image.data), image.length);
  // Loaded at 0000:7C00 below the firmware's data: a few KiB at most.
  EXPECT_GT(image.length, 100u);
  EXPECT_LT(image.length, 32768u);
  EXPECT_EQ(image.length % 2, 1u) << "an odd length is a multiple of no usual block size";
  EXPECT_NE(bytes.find("Tarnlift placeholder boot image (record 125)"), std::string::npos);
  EXPECT_NE(bytes.find("must be supplied as record 125"), std::string::npos);
  EXPECT_NE(bytes.find("--boot-images DIR"), std::string::npos);
  EXPECT_NE(bytes.find("TARNLIFT PLACEHOLDER BOOT IMAGE 125"), std::string::npos);
  EXPECT_NE(bytes.find(std::string("\xCD\x18", 2)), std::string::npos) << "int 18h: the next boot device";
  setBootImageDirectory("");
}

// A legacy BIOS PC that network-boots on the segment makes the reply look up
// record 125. Whatever folder is given, and even when it holds nothing, the
// lookup finds the placeholder instead of ending the server; option 13
// announces the placeholder's size.
TEST(BiosPxeClient, IsAnsweredWithThePlaceholderWhateverFolderIsGiven) {
  std::string empty = tempPath("bios_client");
  ASSERT_TRUE(makeDirectory(empty));
  setBootImageDirectory(empty);
  BootpClassifier classifier;
  std::vector<uint8_t> request =
      makeBootpRequest(MacAddress{0x52, 0x54, 0x00, 0x12, 0x34, 0x56}, "PXEClient:Arch:00000:UNDI:002001", 0, 7);
  ASSERT_TRUE(classifier.classify(request.data(), request.size()));
  ASSERT_EQ(classifier.clientClass(), kImageBiosPxe);
  std::vector<uint8_t> buffer(kBootpBufferSize, 0);
  std::copy(request.begin(), request.end(), buffer.begin());
  size_t length = buildBootpReply(buffer.data(), classifier.clientClass(), 0x0158a8c0, 0x0258a8c0, 0x00ffffff, "image");
  ASSERT_GT(length, kBootpOptionsOffset + 4);
  EXPECT_EQ(buffer[kBootpOptionsOffset], 13);
  uint32_t blocks = uint32_t(buffer[kBootpOptionsOffset + 2]) << 8 | buffer[kBootpOptionsOffset + 3];
  EXPECT_EQ(blocks, loadBootImage(kImageBiosPxe).length / 512 + 1);
  setBootImageDirectory("");
}

// A deployer's 125 (say a network boot loader) in a folder wins over the
// placeholder.
TEST(BiosPxeClient, DeployersRecordWinsOverThePlaceholder) {
  std::string folder = tempPath("bios_deployer");
  ASSERT_TRUE(makeDirectory(folder));
  writeRecord(folder + "/125.bin", "a real BIOS boot loader");
  setBootImageDirectory(folder);
  BootImageLocation location;
  ASSERT_TRUE(locateBootImage(kImageBiosPxe, location));
  EXPECT_EQ(location.place, folder);
  BootImage image = loadBootImage(kImageBiosPxe);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(image.data), image.length), "a real BIOS boot loader");
  setBootImageDirectory("");
}

// The search goes record by record: a record missing from the first place
// is taken from the next, and the first place that has it wins.
TEST(BootImageSearch, EachRecordComesFromTheFirstPlaceThatHasIt) {
  std::string first = tempPath("first");
  std::string second = tempPath("second");
  ASSERT_TRUE(makeDirectory(first));
  ASSERT_TRUE(makeDirectory(second));
  writeRecord(first + "/9001.bin", "from first");
  writeRecord(second + "/9001.bin", "shadowed");
  writeRecord(second + "/9002.bin", "from second");
  ScopedEnvironment home("HOME", second);
  ScopedEnvironment data("XDG_DATA_HOME", "");
  ScopedEnvironment local("LOCALAPPDATA", second);
  // The per-user folder is <home>/.local/share/tarnlift/bootimages on Linux,
  // <LOCALAPPDATA>\Tarnlift\bootimages on Windows.
  std::string user = userBootImageDirectory();
  ASSERT_FALSE(user.empty());
  ASSERT_TRUE(makeDirectory(user));
  writeRecord(user + "/9001.bin", "from user");
  writeRecord(user + "/9003.bin", "from user");

  BootImageLocation location;
  // No directory given: the per-user folder, then the system folder.
  setBootImageDirectory("");
  ASSERT_TRUE(locateBootImage(9003, location));
  EXPECT_EQ(location.place, user);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(loadBootImage(9001).data), 9), "from user");
  EXPECT_FALSE(locateBootImage(9002, location));

  // A directory given replaces both folders.
  setBootImageDirectory(first);
  ASSERT_TRUE(locateBootImage(9001, location));
  EXPECT_EQ(location.place, first);
  EXPECT_FALSE(locateBootImage(9003, location)) << "the per-user folder is not searched";
  std::vector<BootImageSource> sources = bootImageSources();
  ASSERT_FALSE(sources.empty());
  EXPECT_EQ(sources.back().place, "placeholder built into the program") << "the placeholders come last";
#ifdef _WIN32
  EXPECT_EQ(sources.front().place.rfind("resources of ", 0), 0u) << "the program's resources come first";
  ASSERT_EQ(sources.size(), 3u);
  EXPECT_EQ(sources[1].place, first);
#else
  ASSERT_EQ(sources.size(), 2u);
  EXPECT_EQ(sources[0].place, first);
#endif
  setBootImageDirectory("");
  sources = bootImageSources();
  std::vector<std::string> places;
  for (const BootImageSource& source : sources) places.push_back(source.place);
  auto at = std::find(places.begin(), places.end(), user);
  ASSERT_NE(at, places.end());
  ASSERT_NE(at + 1, places.end());
  EXPECT_EQ(*(at + 1), systemBootImageDirectory()) << "the system folder follows the per-user one";
}

}  // namespace
}  // namespace tarnlift::netboot

#include "netboot/boot_images.h"

#include <gtest/gtest.h>

#include <cstdio>
#ifdef _WIN32
#include <io.h>
#define dup2 _dup2
#define fileno _fileno
#else
#include <unistd.h>
#endif
#include <fstream>
#include <iterator>
#include <string>

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

// The records shipped with the program are the documented test images: on
// Windows from the executable's resources, elsewhere from the source tree.
TEST(ShippedBootImages, AreTheTestImages) {
#ifdef TARNLIFT_BOOT_IMAGE_SOURCE_DIR
  setBootImageDirectory(TARNLIFT_BOOT_IMAGE_SOURCE_DIR);
#endif
  for (int number : {129, 130, 131, 135, 136, 137, 138, 139, 143}) {
    BootImage image = loadBootImage(number);
    std::string head = "TARNLIFT TEST BOOT IMAGE " + std::to_string(number);
    ASSERT_GT(image.length, head.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(image.data), head.size()), head);
  }
  EXPECT_EQ(loadBootImage(131).length, 1468u);
  EXPECT_EQ(loadBootImage(130).length, 4096u) << "padding is not content";
  setBootImageDirectory("");
}

}  // namespace
}  // namespace tarnlift::netboot

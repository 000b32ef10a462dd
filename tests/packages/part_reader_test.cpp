#include <gtest/gtest.h>

#include "packages/part_reader.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift::packages {
namespace {

using mkpkg::PackageWriter;

TEST(PartReader, YieldsWantedPartsAndSkipsOthers) {
  const std::vector<uint8_t> bytes =
      PackageWriter().part(5, {1, 2, 3}).part(2, {'h', 'i'}).part(7, {}).part(16, {'a', 'r', 'm'}).bytes();
  for (bool seekable : {true, false}) {
    MemoryByteSource source(bytes.data(), bytes.size(), seekable);
    PartReader reader(source);
    ASSERT_FALSE(reader.failed());
    EXPECT_EQ(reader.magic(), kPackageMagic);
    EXPECT_EQ(reader.payloadLength(), bytes.size() - 8);
    ASSERT_EQ(reader.nextPart({2, 16}), 2);
    EXPECT_EQ(reader.remaining(), 2u);
    char text[8] = {};
    EXPECT_EQ(reader.read(text, 1), 1u);
    EXPECT_EQ(reader.remaining(), 1u);
    // The unread rest of a part is skipped by the next call.
    ASSERT_EQ(reader.nextPart({2, 16}), 16);
    EXPECT_EQ(reader.read(text, sizeof text), 3u);  // never past the part
    EXPECT_EQ(std::string(text, 3), "arm");
    EXPECT_EQ(reader.nextPart({2, 16}), -1);
    EXPECT_EQ(reader.nextPart({2, 16}), -1);
  }
}

TEST(PartReader, AcceptsBothMagicsAndRejectsOthers) {
  for (uint32_t magic : {kPackageMagic, kPackageMagicAlt}) {
    const std::vector<uint8_t> bytes = PackageWriter().magic(magic).part(1, {}).bytes();
    MemoryByteSource source(bytes.data(), bytes.size());
    PartReader reader(source);
    EXPECT_FALSE(reader.failed());
    EXPECT_EQ(reader.nextPart({1}), 1);
  }
  const std::vector<uint8_t> bytes = PackageWriter().magic(0x12345678).part(1, {}).bytes();
  MemoryByteSource source(bytes.data(), bytes.size());
  PartReader reader(source);
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(reader.nextPart({1}), -1);
}

TEST(PartReader, ShortContainerHeaderFails) {
  const uint8_t bytes[7] = {0x1E, 0xF1, 0xD0, 0xBA, 0, 0, 0};
  MemoryByteSource source(bytes, sizeof bytes);
  PartReader reader(source);
  EXPECT_TRUE(reader.failed());
  EXPECT_EQ(reader.nextPart({1}), -1);
}

TEST(PartReader, ShortPartHeaderEndsTheScan) {
  std::vector<uint8_t> bytes = PackageWriter().part(1, {}).bytes();
  bytes.insert(bytes.end(), {2, 0, 5});
  MemoryByteSource source(bytes.data(), bytes.size());
  PartReader reader(source);
  EXPECT_EQ(reader.nextPart({1, 2}), 1);
  EXPECT_EQ(reader.nextPart({1, 2}), -1);
}

TEST(PartReader, SkippedPayloadRunningPastTheEnd) {
  const std::vector<uint8_t> bytes = PackageWriter().partWithLength(9, 5000, {1, 2}).part(1, {}).bytes();
  for (bool seekable : {true, false}) {
    MemoryByteSource source(bytes.data(), bytes.size(), seekable);
    PartReader reader(source);
    EXPECT_EQ(reader.nextPart({1}), -1) << seekable;
    EXPECT_EQ(source.position(), bytes.size());
  }
}

TEST(PartReader, SeekableSourceSkipsWithoutReading) {
  const std::vector<uint8_t> bytes = PackageWriter().data(100000).part(1, {}).bytes();
  MemoryByteSource source(bytes.data(), bytes.size());
  PartReader reader(source);
  EXPECT_EQ(reader.nextPart({1}), 1);
  EXPECT_EQ(reader.skipRest(), true);
  EXPECT_EQ(source.position(), bytes.size());
}

}  // namespace
}  // namespace tarnlift::packages

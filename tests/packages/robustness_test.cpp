// Bad input never crashes and never stalls: every cut of a file, lying
// lengths, huge counts, names without NUL, empty files, directories and
// files that cannot be opened.
#include <gtest/gtest.h>

#include <filesystem>

#include "packages/package_catalogue.h"
#include "packages/package_file.h"
#include "packages/package_folder.h"
#include "packages/part_reader.h"
#include "tests/app/capture_log.h"
#include "tests/packages/package_test_support.h"

namespace tarnlift::packages {
namespace {

using mkpkg::PackageWriter;
using testing::ScratchFolder;
using testing::v;

PackageWriter fullPackage() {
  PackageWriter writer;
  writer.group("bundle", v("6.41"))
      .package("system", v("6.41"))
      .architecture("mipsel")
      .description("A package\nwith every part")
      .dependencies({{"base", v("6.0"), 0}, {"other", 0, v("7.0")}})
      .exclusions({{"old", 0, v("5.0")}})
      .part(99, {1, 2, 3, 4})
      .package("ppp", v("6.41"))
      .data(64);
  return writer;
}

// What the reader must make of a file cut after `size` bytes, worked out
// from the part boundaries: rejected inside a name, description or list
// part; accepted with what came before otherwise.
TEST(Robustness, TruncatedAtEveryOffsetInMemory) {
  tarnlift::testing::CapturedLog log;
  const std::vector<uint8_t> bytes = fullPackage().bytes();
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    for (bool seekable : {true, false}) {
      MemoryByteSource source(bytes.data(), cut, seekable);
      PackageFileContents contents;
      const bool accepted = readPackageContents(source, "cut.npk", 0, contents);
      if (cut < 8) {
        EXPECT_TRUE(accepted) << cut;  // no header: listed with an empty name
        EXPECT_EQ(contents.record.name, "") << cut;
      }
      if (cut == bytes.size()) {
        ASSERT_TRUE(accepted);
        EXPECT_EQ(contents.record.name, "bundle");
        EXPECT_EQ(contents.record.providedNames, (std::vector<std::string>{"system", "ppp"}));
      }
      if (accepted && cut >= 8 + 38) {
        EXPECT_EQ(contents.record.name, "bundle") << cut;
      }
      EXPECT_LE(source.position(), cut);
    }
  }
}

// The exact verdict for every cut: a file cut inside the payload of a group
// or package header, the description or the exclusions is rejected; a cut
// inside a part header, the architecture, the (ignored) dependency list of a
// group, an unknown part or the data keeps the file with what came before.
TEST(Robustness, TruncationVerdictAtEveryOffset) {
  tarnlift::testing::CapturedLog log;
  struct Part {
    size_t size;
    bool rejectsWhenCut;
  };
  // The parts of fullPackage() in order, with their sizes (header + payload).
  const Part parts[] = {{6 + 32, true},     {6 + 32, true}, {6 + 6, false}, {6 + 25, true}, {6 + 2 + 64, false},
                        {6 + 2 + 32, true}, {6 + 4, false}, {6 + 32, true}, {6 + 64, false}};
  const std::vector<uint8_t> bytes = fullPackage().bytes();
  size_t total = 8;
  for (const Part& part : parts) total += part.size;
  ASSERT_EQ(bytes.size(), total);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    bool expected = true;
    size_t start = 8;
    for (const Part& part : parts) {
      if (part.rejectsWhenCut && cut >= start + 6 && cut < start + part.size) expected = false;
      start += part.size;
    }
    MemoryByteSource source(bytes.data(), cut);
    PackageFileContents contents;
    EXPECT_EQ(readPackageContents(source, "cut.npk", 0, contents), expected) << "cut after " << cut << " bytes";
  }
}

TEST(Robustness, TruncatedAtEveryOffsetOnDisk) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  const std::vector<uint8_t> bytes = fullPackage().bytes();
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    char name[32];
    std::snprintf(name, sizeof name, "cut-%04zu.npk", cut);
    folder.writeBytes(name, std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut)));
  }
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  // Files cut inside the group header, a package header, the description,
  // the dependency entries or the exclusions are rejected; the others stay.
  EXPECT_GT(catalogue.size(), 10u);
  EXPECT_LT(catalogue.size(), bytes.size() + 1);
  ASSERT_GE(catalogue.findByFileName("cut-0000.npk"), 0);
  EXPECT_EQ(catalogue.record(static_cast<size_t>(catalogue.findByFileName("cut-0000.npk"))).fileSize, 0u);
  char last[32];
  std::snprintf(last, sizeof last, "cut-%04zu.npk", bytes.size());
  const int full = catalogue.findByFileName(last);
  ASSERT_GE(full, 0);
  EXPECT_EQ(catalogue.record(static_cast<size_t>(full)).fileSize, bytes.size());
  EXPECT_TRUE(log.contains("Loaded " + std::to_string(catalogue.size()) + " package(s)"));
}

// Only the parts are read: a package of 64 MiB with its dependency list
// behind the data costs a few hundred bytes.
TEST(Robustness, ReadsOnlyThePartsOfALargeFile) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  folder.write("big.npk", PackageWriter()
                              .package("big", v("6.41"))
                              .architecture("mipsel")
                              .description("large")
                              .data(64u << 20)
                              .dependencies({{"system", v("6.0"), 0}}));
  std::unique_ptr<PackageFileSource> source = openPackageFile(folder.file("big.npk"));
  ASSERT_NE(source, nullptr);
  PackageFileContents contents;
  ASSERT_TRUE(readPackageContents(*source, "big.npk", 0, contents));
  ASSERT_EQ(contents.record.dependencies.size(), 1u);  // found behind the data
  EXPECT_GT(source->length(), int64_t{64} << 20);
  EXPECT_LT(source->bytesRead(), 300u);
}

TEST(Robustness, CountsOf65535WithoutTheEntries) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  folder.write("deps.npk", PackageWriter().package("deps", v("1.0")).entryList(3, 65535, {{"a", 0, 0}}));
  folder.write("excl.npk", PackageWriter().package("excl", v("1.0")).entryList(17, 65535, {{"a", 0, 0}}));
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  EXPECT_EQ(catalogue.size(), 0u);
  EXPECT_TRUE(log.contains("bad deps2"));
}

TEST(Robustness, CountsOf65535WithAllEntries) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  std::vector<mkpkg::DependencyEntry> entries(65535, {"dep", 0, 0});
  folder.write("many.npk", PackageWriter().package("many", v("1.0")).dependencies(entries).exclusions(entries));
  folder.write("dep.npk", PackageWriter().package("dep", v("1.0")));
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 2u);
  EXPECT_EQ(catalogue.record(1).dependencies.size(), 65535u);
  EXPECT_EQ(catalogue.record(1).constraints.size(), 1u + 65535u + 1u);  // own header, the part, the mutual entry
  // Every dependency names an excluded package: all of them are missing.
  EXPECT_FALSE(catalogue.record(1).valid);
}

TEST(Robustness, NamesWithoutNulAreCutAtSixteenBytes) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  std::vector<uint8_t> entry(32, 'z');
  entry[16] = 1;                           // version 0.0 with a build byte of 1, then garbage
  std::vector<uint8_t> list(2 + 32, 'q');  // one dependency entry, all 'q'
  list[0] = 1;
  list[1] = 0;
  folder.write("a.npk", PackageWriter().part(1, entry).part(18, entry).part(3, list));
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).name, std::string(16, 'z'));
  ASSERT_FALSE(catalogue.record(0).providedNames.empty());
  EXPECT_EQ(catalogue.record(0).providedNames[0], std::string(16, 'z'));
}

TEST(Robustness, EmptyFileIsListedWithItsFileName) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  folder.writeBytes("empty.npk", {});
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).name, "");
  EXPECT_EQ(catalogue.record(0).fileSize, 0u);
  EXPECT_EQ(catalogue.row(0).description, "empty.npk");
}

TEST(Robustness, DirectoriesNamedLikePackagesAreNotListed) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  std::filesystem::create_directory(folder.file("dir.npk"));
  std::filesystem::create_directory(folder.file("dir.dpk"));
  folder.write("real.npk", PackageWriter().package("real", v("1.0")));
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).fileName, "real.npk");
  EXPECT_EQ(PackageCatalogue::countPackageFiles(folder.path()), 1);
  EXPECT_FALSE(catalogue.addPackage("dir.npk"));
  EXPECT_EQ(openPackageFile(folder.file("dir.npk")), nullptr);
}

TEST(Robustness, FileThatCannotBeOpenedIsSkippedSilently) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  EXPECT_FALSE(catalogue.addPackage("absent.npk"));
  EXPECT_EQ(catalogue.size(), 0u);
  EXPECT_FALSE(log.contains("add pack absent.npk"));
}

TEST(Robustness, UnreadableFileIsSkipped) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  folder.write("locked.npk", PackageWriter().package("locked", v("1.0")));
  folder.write("open.npk", PackageWriter().package("open", v("1.0")));
  std::filesystem::permissions(folder.file("locked.npk"), std::filesystem::perms::none);
  if (openPackageFile(folder.file("locked.npk")) != nullptr) {
    std::filesystem::permissions(folder.file("locked.npk"), std::filesystem::perms::owner_all);
    GTEST_SKIP() << "this user can read files without read permission (root or no permission bits)";
  }
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).fileName, "open.npk");
  std::filesystem::permissions(folder.file("locked.npk"), std::filesystem::perms::owner_all);
}

TEST(Robustness, ZeroLengthPartsDoNotLoopForever) {
  tarnlift::testing::CapturedLog log;
  std::vector<uint8_t> bytes = PackageWriter().package("a", v("1.0")).bytes();
  bytes.resize(bytes.size() + 6 * 10000, 0);  // ten thousand empty parts of type 0
  MemoryByteSource source(bytes.data(), bytes.size());
  PackageFileContents contents;
  EXPECT_TRUE(readPackageContents(source, "a.npk", 0, contents));
  EXPECT_EQ(source.position(), bytes.size());
}

TEST(Robustness, HugeDeclaredLengthsNeitherAllocateNorStall) {
  tarnlift::testing::CapturedLog log;
  for (uint16_t type : {1, 2, 3, 16, 17, 18, 99}) {
    for (bool seekable : {true, false}) {
      const std::vector<uint8_t> bytes = PackageWriter().partWithLength(type, 0xFFFFFFFF, {1, 2, 3}).bytes();
      MemoryByteSource source(bytes.data(), bytes.size(), seekable);
      PackageFileContents contents;
      readPackageContents(source, "huge.npk", 0, contents);
      EXPECT_LE(contents.description.size(), 3u);
      EXPECT_EQ(source.position(), bytes.size()) << type;
    }
  }
}

}  // namespace
}  // namespace tarnlift::packages

// Reading package files into records and list rows.
#include <gtest/gtest.h>

#include "packages/package_catalogue.h"
#include "packages/package_file.h"
#include "tests/app/capture_log.h"
#include "tests/packages/package_test_support.h"

namespace tarnlift::packages {
namespace {

using mkpkg::PackageWriter;
using testing::ScratchFolder;
using testing::v;

class PackageFileTest : public ::testing::Test {
 protected:
  // Scans the scratch folder with an architecture code.
  void scan(uint32_t code = 0) { catalogue.setFolder(folder.path(), code); }

  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  PackageCatalogue catalogue;
};

TEST_F(PackageFileTest, PlainPackageFillsTheRecordAndTheRow) {
  folder.write("ppp-6.41.npk", PackageWriter()
                                   .package("ppp", v("6.41"))
                                   .architecture("mipsel")
                                   .description("Point to point")
                                   .dependencies({{"system", v("6.41"), v("6.41")}})
                                   .data(1000));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  const PackageRecord& record = catalogue.record(0);
  EXPECT_EQ(record.fileName, "ppp-6.41.npk");
  EXPECT_EQ(record.name, "ppp");
  EXPECT_EQ(record.version, v("6.41"));
  EXPECT_EQ(record.architecture, "mipsel");
  EXPECT_EQ(record.fileSize, 8u + 38u + (6u + 6u) + (6u + 14u) + (6u + 2u + 32u) + (6u + 1000u));
  EXPECT_EQ(record.providedNames, std::vector<std::string>{"ppp"});
  ASSERT_EQ(record.dependencies.size(), 1u);
  EXPECT_EQ(record.dependencies[0], (PackageDependency{"system", v("6.41"), v("6.41")}));
  ASSERT_EQ(record.constraints.size(), 1u);
  EXPECT_EQ(record.constraints[0], (PackageDependency{"ppp", 0, kAnyVersion}));
  EXPECT_FALSE(record.valid);  // no system package in the folder
  EXPECT_FALSE(record.selected);
  EXPECT_EQ(catalogue.row(0).name, "ppp");
  EXPECT_EQ(catalogue.row(0).version, "6.41");
  EXPECT_EQ(catalogue.row(0).architecture, "mipsle");
  EXPECT_TRUE(log.contains("add pack ppp-6.41.npk\n"));
  EXPECT_TRUE(log.contains("\tppp: 6.41\n"));
}

TEST_F(PackageFileTest, GroupFileTakesNameFromGroupHeaderAndIgnoresDependencies) {
  folder.write("bundle.npk", PackageWriter()
                                 .group("bundle", v("6.41"))
                                 .package("system", v("6.40"))
                                 .dependencies({{"nothing", 0, 0}})
                                 .package("ppp", v("6.39"))
                                 .package("dhcp", v("6.38")));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  const PackageRecord& record = catalogue.record(0);
  EXPECT_EQ(record.name, "bundle");
  EXPECT_EQ(record.version, v("6.41"));
  EXPECT_EQ(record.providedNames, (std::vector<std::string>{"system", "ppp", "dhcp"}));
  EXPECT_TRUE(record.dependencies.empty());
  EXPECT_TRUE(record.valid);
  ASSERT_EQ(record.constraints.size(), 3u);
  EXPECT_EQ(record.constraints[0], (PackageDependency{"system", 0, kAnyVersion}));
  EXPECT_EQ(record.constraints[1], (PackageDependency{"ppp", 0, kAnyVersion}));
  EXPECT_EQ(record.constraints[2], (PackageDependency{"dhcp", 0, kAnyVersion}));
  // Members are logged with the group's version.
  EXPECT_TRUE(log.contains("bundle: 6.41\n\tsystem: 6.41\n\tppp: 6.41\n\tdhcp: 6.41\n"));
}

TEST_F(PackageFileTest, GroupHeaderAfterPackageHeaderReplacesTheName) {
  folder.write("late.npk", PackageWriter()
                               .package("first", v("1.0"))
                               .dependencies({{"kept", 0, 0}})
                               .group("group", v("2.0"))
                               .dependencies({{"ignored", 0, 0}}));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  const PackageRecord& record = catalogue.record(0);
  EXPECT_EQ(record.name, "group");
  EXPECT_EQ(record.version, v("2.0"));
  EXPECT_EQ(record.providedNames, std::vector<std::string>{"first"});
  ASSERT_EQ(record.dependencies.size(), 1u);
  EXPECT_EQ(record.dependencies[0].name, "kept");
  EXPECT_TRUE(log.contains("\tfirst: 1.0\ngroup: 2.0\n"));
}

TEST_F(PackageFileTest, HighestVersionZeroMeansUnbounded) {
  folder.write("a.npk", PackageWriter()
                            .package("a", v("1.0"))
                            .dependencies({{"b", 0, 0}, {"c", v("6.0"), v("6.9")}})
                            .exclusions({{"d", 0, 0}, {"e", v("1.0"), v("2.0")}}));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  const PackageRecord& record = catalogue.record(0);
  ASSERT_EQ(record.dependencies.size(), 2u);
  EXPECT_EQ(record.dependencies[0], (PackageDependency{"b", 0, kAnyVersion}));
  EXPECT_EQ(record.dependencies[1], (PackageDependency{"c", v("6.0"), v("6.9")}));
  ASSERT_EQ(record.constraints.size(), 3u);
  EXPECT_EQ(record.constraints[1], (PackageDependency{"d", 0, kAnyVersion}));
  EXPECT_EQ(record.constraints[2], (PackageDependency{"e", v("1.0"), v("2.0")}));
}

TEST_F(PackageFileTest, ExclusionsInterleaveWithHeadersInFileOrder) {
  folder.write(
      "g.npk",
      PackageWriter().group("g", v("1.0")).package("m1", v("1.0")).exclusions({{"x", 0, 0}}).package("m2", v("1.0")));
  scan();
  const std::vector<PackageDependency>& c = catalogue.record(0).constraints;
  ASSERT_EQ(c.size(), 3u);
  EXPECT_EQ(c[0].name, "m1");
  EXPECT_EQ(c[1].name, "x");
  EXPECT_EQ(c[2].name, "m2");
}

TEST_F(PackageFileTest, SixteenCharacterNameHasNoNulAndIsTakenWhole) {
  folder.write("long.npk",
               PackageWriter().package("abcdefghijklmnop", v("1.0")).dependencies({{"qrstuvwxyz012345", 0, 0}}));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).name, "abcdefghijklmnop");
  ASSERT_EQ(catalogue.record(0).dependencies.size(), 1u);
  EXPECT_EQ(catalogue.record(0).dependencies[0].name, "qrstuvwxyz012345");
  EXPECT_EQ(catalogue.row(0).description, "Missing: qrstuvwxyz012345");
}

TEST_F(PackageFileTest, ArchitectureCodeAcceptsPackageWithoutArchitecturePart) {
  folder.write("any.npk", PackageWriter().package("any", v("1.0")));
  folder.write("mips.npk", PackageWriter().package("mips", v("1.0")).architecture("mipsel"));
  folder.write("x86.npk", PackageWriter().package("x86", v("1.0")).architecture("i386"));
  folder.write("short.npk", PackageWriter().package("short", v("1.0")).architecture("m"));
  scan(1);
  ASSERT_EQ(catalogue.size(), 3u);
  EXPECT_EQ(catalogue.record(0).fileName, "any.npk");
  EXPECT_EQ(catalogue.row(0).architecture, "");
  EXPECT_EQ(catalogue.record(1).fileName, "short.npk");
  EXPECT_EQ(catalogue.record(1).architecture, "");  // one byte: not stored, not checked
  EXPECT_EQ(catalogue.record(2).fileName, "x86.npk");
  EXPECT_EQ(catalogue.record(2).architecture, "i386");
  EXPECT_EQ(catalogue.row(2).architecture, "");  // i386 shows as an empty cell
}

TEST_F(PackageFileTest, EachArchitectureCodeAcceptsOnlyItsText) {
  const char* texts[] = {"i386", "mipsel", "powerpc", "mips", "tile", "arm", "arm64", "smips", "mmips"};
  for (const char* text : texts) {
    folder.write(std::string(text) + ".npk", PackageWriter().package(text, v("1.0")).architecture(text));
  }
  scan(0);
  EXPECT_EQ(catalogue.size(), 9u);
  for (uint32_t code = 1; code <= 9; ++code) {
    scan(code);
    ASSERT_EQ(catalogue.size(), 1u) << code;
    EXPECT_EQ(catalogue.record(0).architecture, texts[code - 1]);
  }
  scan(10);
  EXPECT_EQ(catalogue.size(), 0u);
}

TEST_F(PackageFileTest, ShownArchitectureNames) {
  EXPECT_EQ(shownArchitecture("i386"), "");
  EXPECT_EQ(shownArchitecture("mipsel"), "mipsle");
  EXPECT_EQ(shownArchitecture("mips"), "mipsbe");
  EXPECT_EQ(shownArchitecture("powerpc"), "ppc");
  for (const char* same : {"smips", "mmips", "tile", "arm", "arm64"}) EXPECT_EQ(shownArchitecture(same), same);
  EXPECT_EQ(shownArchitecture("sparc"), "");
}

TEST_F(PackageFileTest, DescriptionLineBreaksBecomeSpaces) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).description("a\r\nb"));
  folder.write("b.npk", PackageWriter().package("b", v("1.0")).description("   "));
  folder.write("c.npk",
               PackageWriter().package("c", v("1.0")).description("").description("second").description("third"));
  scan();
  ASSERT_EQ(catalogue.size(), 3u);
  EXPECT_EQ(catalogue.row(0).description, "a  b");
  EXPECT_EQ(catalogue.row(1).description, "b.npk");   // only spaces: the file name
  EXPECT_EQ(catalogue.row(2).description, "second");  // an empty first part does not count
}

TEST_F(PackageFileTest, OtherMagicIsListedWithAnEmptyName) {
  folder.write("odd.npk", PackageWriter().magic(0x12345678).package("hidden", v("1.0")));
  folder.write("alt.npk", PackageWriter().magic(PackageWriter::kMagicAlt).package("alt", v("1.0")));
  scan();
  ASSERT_EQ(catalogue.size(), 2u);
  EXPECT_EQ(catalogue.record(0).name, "alt");
  const PackageRecord& odd = catalogue.record(1);
  EXPECT_EQ(odd.name, "");
  EXPECT_EQ(odd.version, 0u);
  EXPECT_TRUE(odd.providedNames.empty());
  EXPECT_TRUE(odd.constraints.empty());
  EXPECT_EQ(catalogue.row(1).version, "0.0");
  EXPECT_EQ(catalogue.row(1).description, "odd.npk");
  EXPECT_GT(odd.fileSize, 8u);
}

TEST_F(PackageFileTest, SystemFromVersionSevenShowsAsBrisvane) {
  folder.write("a.npk", PackageWriter().package("system", 0x06FFFFFF));
  folder.write("b.npk", PackageWriter().package("system", v("7.0beta1")));
  scan();
  ASSERT_EQ(catalogue.size(), 2u);
  EXPECT_EQ(catalogue.row(0).name, "system");
  EXPECT_EQ(catalogue.row(1).name, "brisvane");
  EXPECT_EQ(catalogue.record(1).name, "system");
}

TEST_F(PackageFileTest, ShortDependencyCountIsLoggedAndTheFileKept) {
  // The count needs two bytes; the part carries one.
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).part(3, {1}).description("after"));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_TRUE(log.contains("bad deps\n"));
  EXPECT_EQ(catalogue.row(0).description, "after");
}

TEST_F(PackageFileTest, ShortDependencyEntryRejectsTheFile) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).entryList(3, 2, {{"only", 0, 0}}));
  scan();
  EXPECT_EQ(catalogue.size(), 0u);
  EXPECT_TRUE(log.contains("bad deps2\n"));
}

TEST_F(PackageFileTest, CutShortHeaderDescriptionOrExclusionRejectsTheFile) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).partWithLength(1, 32, {'b', 0}));
  folder.write("b.npk", PackageWriter().package("b", v("1.0")).partWithLength(2, 100, {'x'}));
  folder.write("c.npk", PackageWriter().package("c", v("1.0")).entryList(17, 3, {{"x", 0, 0}}));
  folder.write("d.npk", PackageWriter().package("d", v("1.0")).part(17, {}));
  folder.write("e.npk", PackageWriter().part(18, std::vector<uint8_t>(31, 'g')));
  folder.write("ok.npk", PackageWriter().package("ok", v("1.0")));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).name, "ok");
  EXPECT_FALSE(log.contains("bad deps"));
}

TEST_F(PackageFileTest, SkippedPartRunningPastTheEndKeepsWhatWasRead) {
  folder.write(
      "a.npk",
      PackageWriter().package("a", v("1.0")).partWithLength(9, 1000000, {1, 2, 3}).description("never reached"));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).name, "a");
  EXPECT_EQ(catalogue.row(0).description, "a.npk");
}

TEST_F(PackageFileTest, ShortArchitecturePartIsTakenAsRead) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).partWithLength(16, 50, {'m', 'i', 'p', 's'}));
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).architecture, "mips");
}

TEST_F(PackageFileTest, ContainerLengthFieldIsNotTrusted) {
  std::vector<uint8_t> bytes = PackageWriter().package("a", v("1.0")).description("text").bytes();
  bytes[4] = 1;  // claims a payload of one byte
  bytes[5] = bytes[6] = bytes[7] = 0;
  folder.writeBytes("a.npk", bytes);
  scan();
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.row(0).description, "text");
}

TEST_F(PackageFileTest, UnknownPartsAreSkipped) {
  folder.write("a.npk", PackageWriter()
                            .part(0, {})
                            .part(77, std::vector<uint8_t>(5000, 0xEE))
                            .package("a", v("1.0"))
                            .part(65535, {1, 2})
                            .architecture("arm"));
  scan(6);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).architecture, "arm");
}

}  // namespace
}  // namespace tarnlift::packages

// The package folder: scan order, mutual exclusions, missing dependencies,
// selection with all consequences, install order and the helpers.
#include <gtest/gtest.h>

#include <filesystem>

#include "packages/package_catalogue.h"
#include "tests/app/capture_log.h"
#include "tests/packages/package_test_support.h"

namespace tarnlift::packages {
namespace {

using mkpkg::DependencyEntry;
using mkpkg::PackageWriter;
using testing::ScratchFolder;
using testing::v;
using Names = std::vector<std::string>;

class CatalogueTest : public ::testing::Test {
 protected:
  void scan(uint32_t code = 0) {
    catalogue.setFolder(folder.path(), code);
    catalogue.applySelection(selection);  // a router is selected
  }
  size_t at(const std::string& fileName) {
    const int index = catalogue.findByFileName(fileName);
    EXPECT_GE(index, 0) << fileName;
    return index < 0 ? 0 : static_cast<size_t>(index);
  }
  void tick(const std::string& fileName) { catalogue.toggle(at(fileName), selection); }
  bool ticked(const std::string& fileName) { return catalogue.record(at(fileName)).selected; }

  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  PackageCatalogue catalogue;
  Names selection;
};

TEST_F(CatalogueTest, EmptyFolderLogsAndLeavesTheListEmpty) {
  scan();
  EXPECT_EQ(catalogue.size(), 0u);
  EXPECT_TRUE(log.contains("Looking for packages in " + folder.path() + "\n"));
  EXPECT_TRUE(log.contains("No packages in this directory\n"));
  EXPECT_FALSE(log.contains("Loaded"));
}

TEST_F(CatalogueTest, NpkThenDpkSortedByCharacterCode) {
  folder.plain("b.npk", "b", "1.0");
  folder.plain("C.npk", "C", "1.0");
  folder.plain("a.dpk", "ad", "1.0");
  folder.plain("_x.npk", "x", "1.0");
  folder.plain("a.npk", "a", "1.0");
  folder.plain("skip.txt", "skip", "1.0");
  folder.plain("skip.npk.bak", "skip", "1.0");
  scan();
  Names order;
  for (const PackageRecord& record : catalogue.records()) order.push_back(record.fileName);
  // One sort over both kinds: the extension does not group them.
  EXPECT_EQ(order, (Names{"C.npk", "_x.npk", "a.dpk", "a.npk", "b.npk"}));
  EXPECT_TRUE(log.contains("Loading C.npk\nadd pack C.npk\n"));
  EXPECT_TRUE(log.contains("Loaded 5 package(s)\n"));
}

TEST_F(CatalogueTest, UpperCaseExtensionsFollowThePlatformsMatching) {
  folder.plain("upper.NPK", "upper", "1.0");
  folder.plain("lower.npk", "lower", "1.0");
  scan();
#ifdef _WIN32
  EXPECT_EQ(catalogue.size(), 2u);  // the system's file search ignores case
#else
  EXPECT_EQ(catalogue.size(), 1u);  // exactly "*.npk" as written
#endif
}

TEST_F(CatalogueTest, CountPackageFilesCountsDpkOnlyBesideNpk) {
  folder.plain("a.dpk", "a", "1.0");
  folder.plain("b.dpk", "b", "1.0");
  EXPECT_EQ(PackageCatalogue::countPackageFiles(folder.path()), 0);
  folder.plain("c.npk", "c", "1.0");
  EXPECT_EQ(PackageCatalogue::countPackageFiles(folder.path()), 3);
  EXPECT_EQ(PackageCatalogue::folderStatusText(folder.path()), "There are 3 package(s) in this directory");
  // Counting does not read the files: a broken one counts too.
  folder.writeBytes("d.npk", {1, 2, 3});
  EXPECT_EQ(PackageCatalogue::countPackageFiles(folder.path()), 4);
}

TEST_F(CatalogueTest, MissingDependenciesMakeStateThree) {
  folder.plain("a.npk", "a", "1.0", {{"gone", 0, 0}});
  folder.plain("b.npk", "b", "1.0", {{"x", 0, 0}, {"a", 0, 0}, {"y", v("2.0"), 0}});
  folder.plain("y.npk", "y", "1.0");
  scan();
  EXPECT_FALSE(catalogue.record(at("a.npk")).valid);
  EXPECT_EQ(catalogue.rowState(at("a.npk")), kRowMissing);
  EXPECT_EQ(catalogue.row(at("a.npk")).description, "Missing: gone");
  // a exists (even with its own dependency missing); y is too old.
  EXPECT_EQ(catalogue.row(at("b.npk")).description, "Missing: x, y");
  EXPECT_EQ(catalogue.rowState(at("b.npk")), kRowMissing);
  EXPECT_TRUE(catalogue.record(at("y.npk")).valid);
  EXPECT_EQ(catalogue.rowState(at("y.npk")), kRowUnchecked);
  EXPECT_FALSE(catalogue.canToggle(at("a.npk")));
  EXPECT_TRUE(catalogue.canToggle(at("y.npk")));
}

TEST_F(CatalogueTest, ExcludedProviderDoesNotSatisfyADependency) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).dependencies({{"b", 0, 0}}).exclusions({{"b", 0, 0}}));
  folder.plain("b.npk", "b", "1.0");
  scan();
  EXPECT_EQ(catalogue.row(0).description, "Missing: b");
}

TEST_F(CatalogueTest, ExclusionsBecomeMutual) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).exclusions({{"b", v("2.0"), v("3.0")}}));
  folder.plain("b.npk", "b", "2.5");
  folder.plain("c.npk", "b", "4.0");  // outside the range: no entry
  scan();
  const auto& a = catalogue.record(at("a.npk")).constraints;
  const auto& b = catalogue.record(at("b.npk")).constraints;
  const auto& c = catalogue.record(at("c.npk")).constraints;
  EXPECT_NE(std::find(a.begin(), a.end(), PackageDependency{"b", v("2.5"), v("2.5")}), a.end());
  EXPECT_NE(std::find(b.begin(), b.end(), PackageDependency{"a", v("1.0"), v("1.0")}), b.end());
  EXPECT_EQ(std::find_if(c.begin(), c.end(), [](const PackageDependency& e) { return e.name == "a"; }), c.end());
  EXPECT_TRUE(log.contains("add con for b: a\n"));
  EXPECT_TRUE(log.contains("add con for a: b\n"));
  // Two files of one package exclude each other through their own headers.
  EXPECT_NE(std::find(b.begin(), b.end(), PackageDependency{"b", v("4.0"), v("4.0")}), b.end());
}

TEST_F(CatalogueTest, MutualExclusionAddedLaterDoesNotChangeAnEarlierMissingList) {
  // The group g provides lib and other; the package a needs lib and excludes
  // other. Visiting g makes the exclusion mutual, which also puts g itself
  // into a's exclusions: g no longer counts as a's provider of lib. Whether
  // that shows depends on whether a's missing list was worked out before.
  folder.write("g.npk", PackageWriter().group("g", v("1.0")).package("lib", v("1.0")).package("other", v("1.0")));
  PackageWriter a;
  a.package("a", v("1.0")).dependencies({{"lib", 0, 0}}).exclusions({{"other", 0, 0}});
  folder.write("a.npk", a);
  scan();
  EXPECT_TRUE(catalogue.record(at("a.npk")).valid);  // worked out before g was visited
  const auto& constraints = catalogue.record(at("a.npk")).constraints;
  EXPECT_NE(std::find(constraints.begin(), constraints.end(), PackageDependency{"g", v("1.0"), v("1.0")}),
            constraints.end());

  std::filesystem::rename(folder.file("a.npk"), folder.file("z.npk"));
  scan();
  EXPECT_FALSE(catalogue.record(at("z.npk")).valid);  // g was visited first
  EXPECT_EQ(catalogue.row(at("z.npk")).description, "Missing: lib");
}

TEST_F(CatalogueTest, TickingTheDependantTicksTheLaterOfTwoProviders) {
  folder.plain("app.npk", "app", "1.0", {{"lib", v("1.0"), 0}});
  folder.plain("lib-1.npk", "lib", "1.0");
  folder.plain("lib-2.npk", "lib", "2.0");
  scan();
  tick("app.npk");
  EXPECT_TRUE(ticked("lib-2.npk"));
  EXPECT_FALSE(ticked("lib-1.npk"));
  EXPECT_EQ(selection, (Names{"app.npk", "lib-2.npk"}));
  EXPECT_EQ(catalogue.rowState(at("lib-2.npk")), kRowChecked);
  EXPECT_EQ(catalogue.rowState(at("lib-1.npk")), kRowUnchecked);
  EXPECT_TRUE(log.contains("change state 0\nselect app 1\nselect lib 1\n"));
}

TEST_F(CatalogueTest, TickingAFileClearsEveryOtherFileWithTheSameName) {
  folder.plain("lib-1.npk", "lib", "1.0");
  folder.plain("lib-2.npk", "lib", "2.0");
  folder.plain("lib-3.npk", "lib", "3.0beta1");
  scan();
  tick("lib-1.npk");
  tick("lib-3.npk");
  EXPECT_EQ(selection, Names{"lib-3.npk"});
  tick("lib-2.npk");
  EXPECT_EQ(selection, Names{"lib-2.npk"});
  EXPECT_FALSE(ticked("lib-1.npk"));
  EXPECT_FALSE(ticked("lib-3.npk"));
}

TEST_F(CatalogueTest, ClearingADependantLeavesItsDependencies) {
  folder.plain("app.npk", "app", "1.0", {{"lib", 0, 0}});
  folder.plain("lib.npk", "lib", "1.0");
  folder.plain("other.npk", "other", "1.0", {{"lib", 0, 0}});
  scan();
  tick("app.npk");
  tick("other.npk");
  EXPECT_EQ(selection, (Names{"app.npk", "lib.npk", "other.npk"}));
  tick("app.npk");  // clearing app leaves lib (other still needs it; clearing is downward only)
  EXPECT_EQ(selection, (Names{"lib.npk", "other.npk"}));
}

TEST_F(CatalogueTest, ClearingAProviderWhenAnotherSelectedOneRemainsKeepsTheDependant) {
  folder.plain("app.npk", "app", "1.0", {{"lib", 0, 0}});
  folder.write("grp.npk", PackageWriter().group("grp", v("1.0")).package("lib", v("1.0")));
  folder.plain("lib.npk", "lib", "1.0");
  scan();
  // Show a selection where both providers are ticked, then clear one.
  selection = {"app.npk", "grp.npk", "lib.npk"};
  catalogue.applySelection(selection);
  tick("lib.npk");
  EXPECT_TRUE(ticked("app.npk"));
  EXPECT_TRUE(log.contains("try desel app\n"));
  tick("grp.npk");
  EXPECT_FALSE(ticked("app.npk"));
  EXPECT_TRUE(selection.empty());
}

TEST_F(CatalogueTest, ClearingTheOnlyProviderClearsDependantsRecursively) {
  folder.plain("a.npk", "a", "1.0", {{"b", 0, 0}});
  folder.plain("b.npk", "b", "1.0", {{"c", 0, 0}});
  folder.plain("c.npk", "c", "1.0");
  folder.plain("d.npk", "d", "1.0");
  scan();
  tick("a.npk");
  tick("d.npk");
  EXPECT_EQ(selection, (Names{"a.npk", "b.npk", "c.npk", "d.npk"}));
  tick("c.npk");
  EXPECT_EQ(selection, Names{"d.npk"});
  EXPECT_EQ(catalogue.rowState(at("a.npk")), kRowUnchecked);
}

TEST_F(CatalogueTest, DependencyOutsideItsRangeIsNotClearedByTheProvider) {
  folder.plain("a.npk", "a", "1.0", {{"b", v("2.0"), 0}});
  folder.plain("b1.npk", "b", "1.0");
  folder.plain("b2.npk", "b", "2.0");
  scan();
  selection = {"a.npk", "b1.npk", "b2.npk"};
  catalogue.applySelection(selection);
  tick("b1.npk");  // a never relied on b 1.0
  EXPECT_TRUE(ticked("a.npk"));
}

TEST_F(CatalogueTest, TickingAGroupClearsTheSeparateMemberFiles) {
  folder.write("bundle.npk",
               PackageWriter().group("bundle", v("6.41")).package("system", v("6.41")).package("ppp", v("6.41")));
  folder.plain("ppp.npk", "ppp", "6.41");
  folder.plain("system.npk", "system", "6.41");
  scan();
  tick("ppp.npk");
  tick("system.npk");
  EXPECT_EQ(selection, (Names{"ppp.npk", "system.npk"}));
  tick("bundle.npk");
  EXPECT_EQ(selection, Names{"bundle.npk"});
  // And back: a member file clears the group (mutual exclusion).
  tick("ppp.npk");
  EXPECT_EQ(selection, Names{"ppp.npk"});
}

TEST_F(CatalogueTest, ExcludedPackageIsClearedWhenTheExcluderIsTicked) {
  folder.write("new.npk", PackageWriter().package("wifi", v("7.0")).exclusions({{"wlan", 0, 0}}));
  folder.plain("old.npk", "wlan", "6.0");
  scan();
  tick("old.npk");
  tick("new.npk");
  EXPECT_EQ(selection, Names{"new.npk"});
  tick("old.npk");  // mutual: the older one pushes the newer one out
  EXPECT_EQ(selection, Names{"old.npk"});
}

TEST_F(CatalogueTest, ExcludedCandidatesAreSkippedWhenPullingInDependencies) {
  folder.write(
      "app.npk",
      PackageWriter().package("app", v("1.0")).dependencies({{"lib", 0, 0}}).exclusions({{"lib", v("2.0"), v("2.0")}}));
  folder.plain("lib-1.npk", "lib", "1.0");
  folder.plain("lib-2.npk", "lib", "2.0");
  scan();
  tick("app.npk");
  EXPECT_EQ(selection, (Names{"app.npk", "lib-1.npk"}));
}

TEST_F(CatalogueTest, ApplySelectionShowsStatesWithoutDependencyLogic) {
  folder.plain("a.npk", "a", "1.0", {{"b", 0, 0}});
  folder.plain("b.npk", "b", "1.0");
  folder.plain("m.npk", "m", "1.0", {{"none", 0, 0}});
  scan();
  catalogue.applySelection({"a.npk", "unknown.npk"});
  EXPECT_EQ(catalogue.rowState(at("a.npk")), kRowChecked);
  EXPECT_EQ(catalogue.rowState(at("b.npk")), kRowUnchecked);  // not pulled in
  EXPECT_EQ(catalogue.rowState(at("m.npk")), kRowMissing);
  EXPECT_EQ(catalogue.selectedCount(), 1u);
  catalogue.applyBusySelection({"a.npk"});
  EXPECT_EQ(catalogue.rowState(at("a.npk")), kRowCheckedBusy);
  EXPECT_EQ(catalogue.rowState(at("b.npk")), kRowUncheckedBusy);
  EXPECT_TRUE(catalogue.record(at("a.npk")).selected);
  EXPECT_FALSE(catalogue.canToggle(at("a.npk")));
  catalogue.clearSelectionView();
  EXPECT_EQ(catalogue.rowState(at("a.npk")), kRowNoBox);
  EXPECT_EQ(catalogue.rowState(at("m.npk")), kRowMissing);
  EXPECT_EQ(catalogue.selectedCount(), 0u);
}

TEST_F(CatalogueTest, InstallOrderPutsDependenciesFirst) {
  folder.plain("a.npk", "a", "1.0", {{"b", 0, 0}, {"c", 0, 0}});
  folder.plain("b.npk", "b", "1.0", {{"c", 0, 0}});
  folder.plain("c.npk", "c", "1.0");
  folder.plain("d.npk", "d", "1.0", {{"b", 0, 0}});
  scan();
  tick("d.npk");
  tick("a.npk");
  EXPECT_EQ(selection, (Names{"a.npk", "b.npk", "c.npk", "d.npk"}));
  EXPECT_EQ(catalogue.installOrder(selection), (Names{"c.npk", "b.npk", "a.npk", "d.npk"}));
  EXPECT_EQ(catalogue.installOrder({"d.npk", "a.npk"}), (Names{"c.npk", "b.npk", "d.npk", "a.npk"}));
  // Unknown names are left out.
  EXPECT_EQ(catalogue.installOrder({"zzz.npk", "c.npk"}), Names{"c.npk"});
}

TEST_F(CatalogueTest, InstallOrderSurvivesDependencyCycles) {
  folder.plain("a.npk", "a", "1.0", {{"b", 0, 0}});
  folder.plain("b.npk", "b", "1.0", {{"a", 0, 0}});
  scan();
  tick("a.npk");
  EXPECT_EQ(selection, (Names{"a.npk", "b.npk"}));
  EXPECT_EQ(catalogue.installOrder(selection), (Names{"b.npk", "a.npk"}));
}

TEST_F(CatalogueTest, DescribeDependencies) {
  folder.plain("a.npk", "a", "1.0",
               {{"b", v("6.41"), v("6.41")}, {"c", v("6.0"), 0}, {"gone", 0, 0}, {"d", v("1.0"), v("2.0")}});
  folder.plain("b.npk", "b", "6.41");
  folder.plain("c.npk", "c", "6.5");
  folder.plain("d.npk", "d", "1.5");
  scan();
  EXPECT_EQ(catalogue.describeDependencies(at("a.npk")), "a depends on b (6.41), c (6.0 - any), d (1.0 - 2.0)");
  EXPECT_EQ(catalogue.describeDependencies(at("b.npk")), "b depends on nothing");
}

TEST_F(CatalogueTest, VersionAtLeastHoldsOnlyTheSystemPackage) {
  folder.plain("system.npk", "system", "6.40");
  folder.plain("brisvane.npk", "brisvane", "6.40");
  folder.plain("ppp.npk", "ppp", "6.40");
  scan();
  EXPECT_TRUE(catalogue.isVersionAtLeast("system.npk", v("6.40")));
  EXPECT_FALSE(catalogue.isVersionAtLeast("system.npk", v("6.41")));
  EXPECT_FALSE(catalogue.isVersionAtLeast("brisvane.npk", v("6.41")));
  EXPECT_TRUE(catalogue.isVersionAtLeast("ppp.npk", v("6.41")));
  EXPECT_FALSE(catalogue.isVersionAtLeast("absent.npk", 0));
}

TEST_F(CatalogueTest, FileSizesAndPaths) {
  folder.write("big.npk", PackageWriter().package("big", v("1.0")).data(1 << 20));
  scan();
  EXPECT_EQ(catalogue.fileSizeOf("big.npk"), 8u + 38u + 6u + (1u << 20));
  EXPECT_EQ(catalogue.fileSizeOf("absent.npk"), 0u);
  EXPECT_TRUE(std::filesystem::exists(catalogue.filePath("big.npk")));
  EXPECT_EQ(catalogue.findByFileName("absent.npk"), -1);
}

TEST_F(CatalogueTest, ToggleFileAndTotalSize) {
  folder.write("a.npk", PackageWriter().package("a", v("1.0")).dependencies({{"b", 0, 0}}).data(1000));
  folder.write("b.npk", PackageWriter().package("b", v("1.0")).data(2000));
  folder.plain("m.npk", "m", "1.0", {{"gone", 0, 0}});
  scan();
  EXPECT_FALSE(catalogue.toggleFile("absent.npk", selection));
  EXPECT_FALSE(catalogue.toggleFile("m.npk", selection));  // state 3
  EXPECT_TRUE(selection.empty());
  EXPECT_TRUE(catalogue.toggleFile("a.npk", selection));
  EXPECT_EQ(selection, (Names{"a.npk", "b.npk"}));
  EXPECT_EQ(catalogue.totalSizeOf(selection), catalogue.fileSizeOf("a.npk") + catalogue.fileSizeOf("b.npk"));
  EXPECT_EQ(catalogue.totalSizeOf({"a.npk", "absent.npk"}), catalogue.fileSizeOf("a.npk"));
  EXPECT_GT(catalogue.fileSizeOf("b.npk"), 2000u);
  catalogue.clearSelectionView();
  EXPECT_FALSE(catalogue.toggleFile("b.npk", selection));  // no router: no check boxes
}

TEST_F(CatalogueTest, FolderAndArchitectureAreKept) {
  folder.write("m.npk", PackageWriter().package("m", v("1.0")).architecture("mips"));
  catalogue.setFolder(folder.path(), 4);
  EXPECT_EQ(catalogue.folder(), folder.path());
  EXPECT_EQ(catalogue.architectureCode(), 4u);
  EXPECT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.rowState(0), kRowNoBox);  // no router yet
}

class RecordingView : public PackageListView {
 public:
  void rowsCleared() override { events.push_back("clear"); }
  void rowAdded(size_t index, const PackageRow& row) override {
    events.push_back("add " + std::to_string(index) + " " + row.name);
  }
  void rowChanged(size_t index, const PackageRow& row) override {
    events.push_back("change " + std::to_string(index) + " " + std::to_string(row.state));
  }
  Names events;
};

TEST_F(CatalogueTest, ViewFollowsTheModel) {
  RecordingView view;
  catalogue.setView(&view);
  folder.plain("a.npk", "a", "1.0", {{"b", 0, 0}});
  folder.plain("b.npk", "b", "1.0");
  catalogue.setFolder(folder.path(), 0);
  EXPECT_EQ(view.events, (Names{"clear", "add 0 a", "add 1 b"}));
  view.events.clear();
  catalogue.applySelection({});
  catalogue.toggle(0, selection);
  EXPECT_EQ(view.events, (Names{"change 0 2", "change 1 2", "change 0 1", "change 1 1"}));
}

class FakeBrowser : public FolderBrowser {
 public:
  bool browse(const Request& request, std::string& chosen) override {
    seen = request;
    request.onInit();
    status = request.statusFor(answer);
    chosen = answer;
    return ok;
  }
  Request seen;
  std::string answer;
  std::string status;
  bool ok = true;
};

TEST_F(CatalogueTest, BrowseFolderStoresTheChoiceAndRescans) {
  folder.plain("a.npk", "a", "1.0");
  catalogue.setFolder("/nonexistent-start", 0);
  FakeBrowser browser;
  browser.answer = folder.path();
  browser.ok = false;
  EXPECT_FALSE(catalogue.browseFolder(browser));
  EXPECT_EQ(catalogue.folder(), "/nonexistent-start");
  EXPECT_EQ(browser.seen.title, "Select package directory:");
  EXPECT_EQ(browser.seen.startFolder, "/nonexistent-start");
  EXPECT_TRUE(log.contains("init path: /nonexistent-start\n"));
  EXPECT_EQ(browser.status, "There are 1 package(s) in this directory");
  browser.ok = true;
  EXPECT_TRUE(catalogue.browseFolder(browser));
  EXPECT_EQ(catalogue.folder(), folder.path());
  EXPECT_EQ(catalogue.size(), 1u);
}

// A realistic folder: a system package, a dozen dependants, a group file
// that provides several of them, two versions of one package and a package
// that excludes another.
class RealisticFolder : public CatalogueTest {
 protected:
  void SetUp() override {
    const char* members[] = {"ppp",          "dhcp",  "security", "routing", "advanced-tools", "hotspot", "ntp", "ups",
                             "user-manager", "calea", "gps",      "lcd"};
    for (const char* name : members) {
      folder.write(std::string(name) + "-6.41-mipsbe.npk", PackageWriter()
                                                               .package(name, v("6.41"))
                                                               .architecture("mips")
                                                               .description(std::string("The ") + name + " package")
                                                               .dependencies({{"system", v("6.41"), v("6.41")}})
                                                               .data(4096));
    }
    folder.write(
        "system-6.41-mipsbe.npk",
        PackageWriter().package("system", v("6.41")).architecture("mips").description("Main package").data(1 << 16));
    folder.write("routeros-mipsbe-6.41.npk", PackageWriter()
                                                 .group("routeros-mipsbe", v("6.41"))
                                                 .package("system", v("6.41"))
                                                 .package("ppp", v("6.41"))
                                                 .package("dhcp", v("6.41"))
                                                 .package("security", v("6.41"))
                                                 .architecture("mips")
                                                 .data(1 << 16));
    folder.write(
        "wireless-6.40-mipsbe.npk",
        PackageWriter().package("wireless", v("6.40")).architecture("mips").dependencies({{"system", v("6.40"), 0}}));
    folder.write("wireless-6.41-mipsbe.npk", PackageWriter()
                                                 .package("wireless", v("6.41"))
                                                 .architecture("mips")
                                                 .dependencies({{"system", v("6.41"), 0}})
                                                 .exclusions({{"wireless-cm2", 0, 0}}));
    folder.write("wireless-cm2-6.41-mipsbe.npk", PackageWriter()
                                                     .package("wireless-cm2", v("6.41"))
                                                     .architecture("mips")
                                                     .dependencies({{"system", v("6.41"), 0}}));
    folder.write("arm-only.npk", PackageWriter().package("armpkg", v("6.41")).architecture("arm"));
    scan(4);
  }
};

TEST_F(RealisticFolder, ScanFiltersByArchitecture) {
  EXPECT_EQ(catalogue.size(), 17u);
  EXPECT_EQ(catalogue.findByFileName("arm-only.npk"), -1);
  for (size_t i = 0; i < catalogue.size(); ++i) {
    EXPECT_TRUE(catalogue.record(i).valid) << catalogue.record(i).fileName;
    EXPECT_EQ(catalogue.row(i).architecture, "mipsbe");
  }
}

TEST_F(RealisticFolder, TickingADependantPullsInTheSystemPackage) {
  tick("ntp-6.41-mipsbe.npk");
  // The group (sorted first) also provides system 6.41, but the plain file
  // comes later in sorted order and wins. The group excludes ntp? No: only
  // its members, so both stay possible.
  EXPECT_TRUE(ticked("system-6.41-mipsbe.npk"));
  EXPECT_FALSE(ticked("routeros-mipsbe-6.41.npk"));
  EXPECT_EQ(selection, (Names{"ntp-6.41-mipsbe.npk", "system-6.41-mipsbe.npk"}));
  EXPECT_EQ(catalogue.installOrder(selection), (Names{"system-6.41-mipsbe.npk", "ntp-6.41-mipsbe.npk"}));
}

TEST_F(RealisticFolder, TickingTheGroupReplacesItsMembersAndKeepsOtherDependants) {
  tick("ntp-6.41-mipsbe.npk");
  tick("ppp-6.41-mipsbe.npk");
  tick("hotspot-6.41-mipsbe.npk");
  EXPECT_EQ(selection.size(), 4u);
  tick("routeros-mipsbe-6.41.npk");
  // system and ppp files go (the group provides them); ntp and hotspot are
  // still satisfied by the group's system.
  EXPECT_EQ(selection, (Names{"hotspot-6.41-mipsbe.npk", "ntp-6.41-mipsbe.npk", "routeros-mipsbe-6.41.npk"}));
  EXPECT_EQ(catalogue.installOrder(selection),
            (Names{"routeros-mipsbe-6.41.npk", "hotspot-6.41-mipsbe.npk", "ntp-6.41-mipsbe.npk"}));
  // Clearing the group leaves nothing to provide system: the dependants go.
  tick("routeros-mipsbe-6.41.npk");
  EXPECT_TRUE(selection.empty());
}

TEST_F(RealisticFolder, TwoVersionsAndAnExclusion) {
  tick("wireless-6.40-mipsbe.npk");
  EXPECT_EQ(selection, (Names{"system-6.41-mipsbe.npk", "wireless-6.40-mipsbe.npk"}));
  tick("wireless-cm2-6.41-mipsbe.npk");
  tick("wireless-6.41-mipsbe.npk");  // clears the other version and the excluded package
  EXPECT_EQ(selection, (Names{"system-6.41-mipsbe.npk", "wireless-6.41-mipsbe.npk"}));
  tick("wireless-cm2-6.41-mipsbe.npk");  // mutual: clears wireless 6.41
  EXPECT_EQ(selection, (Names{"system-6.41-mipsbe.npk", "wireless-cm2-6.41-mipsbe.npk"}));
}

TEST_F(RealisticFolder, ClearingTheSystemPackageClearsEverything) {
  for (const char* name : {"ppp", "dhcp", "gps", "lcd"}) tick(std::string(name) + "-6.41-mipsbe.npk");
  EXPECT_EQ(selection.size(), 5u);
  tick("system-6.41-mipsbe.npk");
  EXPECT_TRUE(selection.empty());
  EXPECT_EQ(catalogue.selectedCount(), 0u);
}

}  // namespace
}  // namespace tarnlift::packages

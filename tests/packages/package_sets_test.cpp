// Package sets: saving, choosing, deleting, editing, select all/none and
// their persistence under "Package Sets".
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <list>

#include "app/registry.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"
#include "tests/app/capture_log.h"
#include "tests/packages/package_test_support.h"

namespace tarnlift::packages {
namespace {

using testing::ScratchFolder;
using Names = std::vector<std::string>;

// Scripted answers for the "Save set" dialog and a record of the boxes.
class ScriptedPrompts : public PackageSetPrompts {
 public:
  void showError(const std::string& text) override { errors.push_back(text); }
  bool askSetName(std::string& name) override {
    shown.push_back(name);
    if (answers.empty()) return false;  // Cancel
    name = answers.front();
    answers.erase(answers.begin());
    return true;
  }
  Names answers;
  Names shown;
  Names errors;
};

class PackageSetsTest : public ::testing::Test {
 protected:
  void SetUp() override { settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, store); }

  tarnlift::testing::CapturedLog log;
  std::shared_ptr<app::SettingsStore> store = app::makeMemorySettingsStore();
  app::Registry settings;
  PackageSets sets;
  ScriptedPrompts prompts;
  PackageChoice router{"", "/packages", {"system.npk", "ppp.npk"}};
};

TEST_F(PackageSetsTest, SavingWithNothingTickedRefusesWithoutDialog) {
  router.files.clear();
  EXPECT_FALSE(sets.saveSet(router, prompts));
  EXPECT_EQ(prompts.errors, Names{"Cannot create empty package set"});
  EXPECT_TRUE(prompts.shown.empty());
  EXPECT_TRUE(sets.sets().empty());
}

TEST_F(PackageSetsTest, SaveStoresFolderThenFilesAndSelectsTheSet) {
  prompts.answers = {"office"};
  EXPECT_TRUE(sets.saveSet(router, prompts));
  EXPECT_EQ(prompts.shown, Names{"Router x"});
  EXPECT_EQ(sets.sets().at("office"), (Names{"/packages", "system.npk", "ppp.npk"}));
  EXPECT_EQ(sets.names(), Names{"office"});
  EXPECT_EQ(router.setName, "office");
  EXPECT_EQ(sets.shownSet(router), "office");
  // After saving, "Save set" stays disabled until the selection is changed by hand.
  EXPECT_FALSE(sets.saveEnabled(router));
  EXPECT_TRUE(sets.deleteEnabled(router));
}

TEST_F(PackageSetsTest, DuplicateNameShowsTheMessageAndReopensWithThatName) {
  prompts.answers = {"office"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  prompts = ScriptedPrompts();
  prompts.answers = {"office", "office", "lab"};
  EXPECT_TRUE(sets.saveSet(router, prompts));
  EXPECT_EQ(prompts.errors,
            (Names{"Package set with this name already exists", "Package set with this name already exists"}));
  EXPECT_EQ(prompts.shown, (Names{"Router x", "office", "office"}));
  EXPECT_EQ(sets.names(), (Names{"lab", "office"}));
}

TEST_F(PackageSetsTest, CancelChangesNothing) {
  prompts.answers = {};
  EXPECT_FALSE(sets.saveSet(router, prompts));
  EXPECT_TRUE(sets.sets().empty());
  EXPECT_TRUE(sets.saveEnabled(router));
  // An empty name asks again.
  prompts = ScriptedPrompts();
  prompts.answers = {"", "named"};
  EXPECT_TRUE(sets.saveSet(router, prompts));
  EXPECT_EQ(prompts.shown, (Names{"Router x", ""}));
  EXPECT_TRUE(prompts.errors.empty());
  EXPECT_TRUE(sets.contains("named"));
}

TEST_F(PackageSetsTest, EditingTheSelectionByHandEnablesSaveAgain) {
  ScratchFolder folder;
  folder.plain("ppp.npk", "ppp", "6.41");
  folder.plain("system.npk", "system", "6.41");
  folder.plain("wifi.npk", "wifi", "6.41");
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  prompts.answers = {"office"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  sets.editSelection(router, catalogue, 2, true);
  EXPECT_EQ(router.files, (Names{"system.npk", "ppp.npk", "wifi.npk"}));
  EXPECT_TRUE(sets.saveEnabled(router));
  EXPECT_FALSE(sets.deleteEnabled(router));
  EXPECT_EQ(router.setName, "");
  sets.editSelection(router, catalogue, 2, true);  // already there
  EXPECT_EQ(router.files.size(), 3u);
  sets.editSelection(router, catalogue, 0, false);
  EXPECT_EQ(router.files, (Names{"system.npk", "wifi.npk"}));
  // The saved set is a snapshot: unchanged.
  EXPECT_EQ(sets.sets().at("office"), (Names{"/packages", "system.npk", "ppp.npk"}));
}

TEST_F(PackageSetsTest, ChoosingASetMovesTheRouterToItsFolderAndFiles) {
  prompts.answers = {"office"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  PackageChoice other{"", "/elsewhere", {"x.npk"}};
  EXPECT_TRUE(sets.chooseSet(other, "office"));
  EXPECT_EQ(other.setName, "office");
  EXPECT_EQ(other.folder, "/packages");
  EXPECT_EQ(other.files, (Names{"system.npk", "ppp.npk"}));
}

TEST_F(PackageSetsTest, ChoosingAnUnknownSetOnlyMovesTheFolderToTheCurrentDirectory) {
  PackageChoice other{"keep", "/elsewhere", {"x.npk"}};
  EXPECT_FALSE(sets.chooseSet(other, "nothing like it"));
  EXPECT_EQ(other.folder, std::filesystem::current_path().string());
  EXPECT_EQ(other.setName, "keep");
  EXPECT_EQ(other.files, Names{"x.npk"});
}

TEST_F(PackageSetsTest, DeleteRemovesTheCurrentSetFromMapAndStore) {
  prompts.answers = {"office"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  prompts.answers = {"lab"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  sets.saveSets(settings);
  {
    // Other values of the sub-key are not touched by a deletion.
    app::Registry sub;
    sub.openSubKey(settings, "Package Sets");
    sub.writeInt("Unrelated", 5);
  }
  EXPECT_EQ(router.setName, "lab");
  PackageChoice office{"office", "/packages", {"system.npk"}};
  EXPECT_TRUE(sets.deleteSet("office", &settings));
  {
    app::Registry sub;
    sub.openSubKey(settings, "Package Sets");
    EXPECT_EQ(sub.readInt("Unrelated", 0), 5u);
  }
  // A choice that named the deleted set shows none any more.
  EXPECT_EQ(sets.shownSet(office), "");
  EXPECT_TRUE(sets.saveEnabled(office));
  EXPECT_FALSE(sets.deleteEnabled(office));
  EXPECT_EQ(sets.shownSet(router), "lab");
  EXPECT_EQ(sets.names(), Names{"lab"});
  PackageSets reloaded;
  reloaded.loadSets(settings);
  EXPECT_EQ(reloaded.names(), Names{"lab"});
  // Nothing selected, or a name that is gone: nothing to delete.
  EXPECT_FALSE(sets.deleteSet("", &settings));
  EXPECT_FALSE(sets.deleteSet("office", &settings));
}

// Each router carries its own set: giving a new router "Previous Install"
// changes nothing of what another router shows, and deleting the set shown
// for one router cannot take another one's.
TEST_F(PackageSetsTest, PreviousInstallForANewRouterLeavesTheOtherRoutersSetAlone) {
  prompts.answers = {"office"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  sets.rememberPreviousInstall(PackageChoice{"", "/prev", {"old.npk"}});
  PackageChoice fresh;
  ASSERT_TRUE(sets.applyPreviousInstall(fresh));
  EXPECT_EQ(fresh.setName, "Previous Install");
  EXPECT_EQ(sets.shownSet(router), "office");
  EXPECT_EQ(sets.shownSet(fresh), "Previous Install");
  EXPECT_TRUE(sets.deleteSet(sets.shownSet(router), nullptr));
  EXPECT_TRUE(sets.contains("Previous Install"));
  EXPECT_FALSE(sets.contains("office"));
}

TEST_F(PackageSetsTest, SetsSurviveSaveAndLoadInOrder) {
  prompts.answers = {"b-set"};
  ASSERT_TRUE(sets.saveSet(router, prompts));
  PackageChoice second{"", "C:\\pk", {"z.npk", "a.npk", "m.npk"}};
  prompts.answers = {"a-set"};
  ASSERT_TRUE(sets.saveSet(second, prompts));
  sets.rememberPreviousInstall(router);
  sets.saveSets(settings);

  PackageSets reloaded;
  reloaded.loadSets(settings);
  EXPECT_EQ(reloaded.names(), (Names{"Previous Install", "a-set", "b-set"}));
  EXPECT_EQ(reloaded.sets().at("a-set"), (Names{"C:\\pk", "z.npk", "a.npk", "m.npk"}));
  EXPECT_EQ(reloaded.sets().at("Previous Install"), (Names{"/packages", "system.npk", "ppp.npk"}));

  // The stored form: one multi-string value per set, folder first.
  app::Registry key;
  key.openSubKey(settings, "Package Sets");
  EXPECT_EQ(key.valueType("a-set"), app::ValueType::MultiString);
  std::list<std::string> raw;
  key.readMultiString("b-set", raw);
  EXPECT_EQ(raw, (std::list<std::string>{"/packages", "system.npk", "ppp.npk"}));
}

TEST_F(PackageSetsTest, ValuesOfOtherTypesAreNotSets) {
  app::Registry key;
  key.openSubKey(settings, "Package Sets");
  key.writeString("a string", "/packages");
  key.writeInt("a number", 7);
  key.writeMultiString("real", {"/pk", "x.npk"});
  key.close();
  sets.loadSets(settings);
  EXPECT_EQ(sets.names(), Names{"real"});
}

TEST_F(PackageSetsTest, PreviousInstallIsGivenToNewRouters) {
  PackageChoice fresh;
  EXPECT_FALSE(sets.applyPreviousInstall(fresh));  // none yet: folder = current directory
  EXPECT_EQ(fresh.folder, std::filesystem::current_path().string());
  sets.rememberPreviousInstall(router);
  EXPECT_TRUE(sets.applyPreviousInstall(fresh));
  EXPECT_EQ(fresh.folder, "/packages");
  EXPECT_EQ(fresh.files, (Names{"system.npk", "ppp.npk"}));
  EXPECT_EQ(fresh.setName, "Previous Install");
}

TEST_F(PackageSetsTest, SelectAllAndNoneToggleRowsInOrder) {
  ScratchFolder folder;
  folder.plain("a.npk", "a", "1.0", {{"c", 0, 0}});
  folder.plain("b.npk", "b", "1.0", {{"gone", 0, 0}});
  folder.plain("c.npk", "c", "1.0");
  folder.plain("c2.npk", "c", "2.0");
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  PackageChoice choice{"", folder.path(), {}};

  EXPECT_EQ(PackageSets::selectAll(catalogue, nullptr), 0u);  // no router
  EXPECT_EQ(catalogue.selectedCount(), 0u);
  catalogue.applySelection(choice.files);
  // a pulls in c2 (latest provider); c then replaces c2; c2 is in state 2
  // again and replaces c; b cannot be ticked.
  EXPECT_EQ(PackageSets::selectAll(catalogue, &choice), 2u);
  EXPECT_EQ(choice.files, (Names{"a.npk", "c2.npk"}));
  EXPECT_EQ(catalogue.rowState(1), kRowMissing);
  EXPECT_EQ(PackageSets::selectNone(catalogue, &choice), 0u);
  EXPECT_TRUE(choice.files.empty());
  EXPECT_EQ(catalogue.selectedCount(), 0u);
}

#ifdef _WIN32
// The real registry, under a key of this test's own that is removed after.
TEST(PackageSetsRegistry, RoundTripThroughTheWindowsRegistry) {
  tarnlift::testing::CapturedLog log;
  const std::string name =
      "TarnliftPackagesTest" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
  std::shared_ptr<app::SettingsStore> store = app::platformSettingsStore();
  {
    app::Registry settings;
    settings.openRoot(std::string("SOFTWARE\\Quenlark\\") + name, app::kFullAccess, store);
    PackageSets sets;
    ScriptedPrompts prompts;
    prompts.answers = {"office"};
    PackageChoice router{"", "C:\\packages", {"system.npk", "ppp.npk"}};
    ASSERT_TRUE(sets.saveSet(router, prompts));
    sets.rememberPreviousInstall(router);
    sets.saveSets(settings);
    PackageSets reloaded;
    reloaded.loadSets(settings);
    EXPECT_EQ(reloaded.names(), (Names{"Previous Install", "office"}));
    EXPECT_EQ(reloaded.sets().at("office"), (Names{"C:\\packages", "system.npk", "ppp.npk"}));
    EXPECT_TRUE(reloaded.deleteSet("office", &settings));
    PackageSets again;
    again.loadSets(settings);
    EXPECT_EQ(again.names(), Names{"Previous Install"});
    settings.deleteSubKey("Package Sets");
  }
  app::Registry parent;
  parent.openRoot("SOFTWARE\\Quenlark", app::kFullAccess, store);
  parent.deleteSubKey(name);
}
#endif

}  // namespace
}  // namespace tarnlift::packages

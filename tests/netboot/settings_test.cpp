#include "netboot/netboot_settings.h"

#include <gtest/gtest.h>

#include "app/registry.h"
#include "app/settings_store.h"
#include "netboot/netboot_service.h"
#include "tests/app/capture_log.h"
#include "tests/netboot/fake_interfaces.h"

namespace tarnlift::netboot {
namespace {

using tarnlift::testing::CapturedLog;
using testing::FakeInterfaceSource;

struct FakeView : NetbootSettingsView {
  bool checked = false;
  std::string text;
  bool editable = true;
  bool focused = false;
  bool closed = false;
  std::vector<std::pair<std::string, std::string>> messages;

  void setEnabledChecked(bool value) override { checked = value; }
  void setAddressText(const std::string& value) override { text = value; }
  void setAddressEditable(bool value) override { editable = value; }
  std::string addressText() override { return text; }
  void focusAddress() override { focused = true; }
  void showMessage(const std::string& message, const std::string& caption) override {
    messages.emplace_back(message, caption);
  }
  void closeDialog() override { closed = true; }
};

// Counts how often discovery looked at the adapters.
struct CountingSource : FakeInterfaceSource {
  int lists = 0;
  bool listAdapters(std::vector<AdapterInfo>& out) override {
    ++lists;
    return FakeInterfaceSource::listAdapters(out);
  }
  bool listPrefixes(std::vector<AdapterPrefixes>& out) override {
    ++lists;
    return FakeInterfaceSource::listPrefixes(out);
  }
};

class SettingsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    setServedInterface({});
    setRunningUnderWine(false);
  }
  FakeView view;
  CountingSource source;
  CapturedLog log;
};

TEST_F(SettingsTest, OpeningShowsTheSettings) {
  NetbootSettingsPresenter presenter(view, true, parseIpv4("192.168.88.1"), source);
  presenter.opened();
  EXPECT_TRUE(view.checked);
  EXPECT_EQ(view.text, "192.168.88.1");
  EXPECT_TRUE(view.editable);
  NetbootSettingsPresenter off(view, false, 0, source);
  off.opened();
  EXPECT_FALSE(view.checked);
  EXPECT_EQ(view.text, "0.0.0.0");
  EXPECT_FALSE(view.editable);
  off.enabledClicked(true);
  EXPECT_TRUE(view.editable);
  EXPECT_TRUE(off.enabled());
  off.enabledClicked(false);
  EXPECT_FALSE(view.editable);
}

TEST_F(SettingsTest, DisabledServerWithBadTextIsStillRefused) {
  NetbootSettingsPresenter presenter(view, false, 0, source);
  presenter.opened();
  view.text = "abc";
  presenter.okPressed();
  ASSERT_EQ(view.messages.size(), 1u);
  EXPECT_EQ(view.messages[0], std::make_pair(std::string("Bad client address"), std::string("Error")));
  EXPECT_EQ(view.text, "");
  EXPECT_TRUE(view.focused);
  EXPECT_FALSE(view.closed);
  EXPECT_FALSE(presenter.accepted());
}

TEST_F(SettingsTest, BroadcastAddressIsRefusedAsBad) {
  NetbootSettingsPresenter presenter(view, true, 0, source);
  view.text = "255.255.255.255";
  presenter.okPressed();
  ASSERT_EQ(view.messages.size(), 1u);
  EXPECT_EQ(view.messages[0].first, "Bad client address");
  EXPECT_FALSE(view.closed);
  EXPECT_EQ(source.lists, 0);
}

TEST_F(SettingsTest, DisabledServerWithValidAddressClosesWithoutInterfaceCheck) {
  NetbootSettingsPresenter presenter(view, false, 0, source);
  view.text = "10.20.30.40";
  presenter.okPressed();
  EXPECT_TRUE(view.messages.empty());
  EXPECT_TRUE(view.closed);
  EXPECT_TRUE(presenter.accepted());
  EXPECT_EQ(presenter.clientAddress(), parseIpv4("10.20.30.40"));
  EXPECT_EQ(source.lists, 0);
}

TEST_F(SettingsTest, EnabledServerWithoutInterfaceIsRefused) {
  source.addAdapter("lan", "10.0.0.2", "255.255.255.0");
  source.prefixes.push_back({false, {{parseIpv4("10.0.0.2"), 24}}});
  NetbootSettingsPresenter presenter(view, true, 0, source);
  view.text = "192.168.88.1";
  presenter.okPressed();
  ASSERT_EQ(view.messages.size(), 1u);
  EXPECT_EQ(view.messages[0], std::make_pair(std::string("Could not find network interface"), std::string("Error")));
  EXPECT_FALSE(view.closed);
  EXPECT_EQ(view.text, "192.168.88.1") << "the entered state stays";
}

TEST_F(SettingsTest, FallbackCheckAcceptsWhenDiscoveryFails) {
  // The bind-tested list has nothing, the prefix list has the subnet.
  source.prefixes.push_back({false, {{parseIpv4("192.168.88.2"), 24}}});
  NetbootSettingsPresenter presenter(view, true, 0, source);
  view.text = "192.168.88.1";
  presenter.okPressed();
  EXPECT_TRUE(view.messages.empty());
  EXPECT_TRUE(presenter.accepted());
}

TEST_F(SettingsTest, EnabledServerWithInterfaceCloses) {
  source.addAdapter("lan", "192.168.88.2", "255.255.255.0").gateways = {"192.168.88.254"};
  NetbootSettingsPresenter presenter(view, true, 0, source);
  view.text = "192.168.88.1";
  presenter.okPressed();
  EXPECT_TRUE(view.messages.empty()) << "no tip outside the compatibility layer";
  EXPECT_TRUE(presenter.accepted());
  EXPECT_TRUE(presenter.enabled());
  EXPECT_EQ(serverAddress(), parseIpv4("192.168.88.2"));
}

TEST_F(SettingsTest, TipOnlyUnderWineWithAGateway) {
  setRunningUnderWine(true);
  AdapterInfo& lan = source.addAdapter("lan", "192.168.88.2", "255.255.255.0");
  lan.gateways = {"192.168.88.254"};
  NetbootSettingsPresenter presenter(view, true, 0, source);
  view.text = "192.168.88.1";
  presenter.okPressed();
  ASSERT_EQ(view.messages.size(), 1u);
  EXPECT_EQ(view.messages[0].first, kGatewayTip);
  EXPECT_EQ(view.messages[0].second, "Tip");
  EXPECT_TRUE(view.closed) << "the tip is information only";
  view.messages.clear();
  lan.gateways = {"0.0.0.0"};
  NetbootSettingsPresenter noGateway(view, true, 0, source);
  view.text = "192.168.88.1";
  noGateway.okPressed();
  EXPECT_TRUE(view.messages.empty());
}

TEST_F(SettingsTest, CancelClosesUnaccepted) {
  NetbootSettingsPresenter presenter(view, true, 5, source);
  presenter.cancelPressed();
  EXPECT_TRUE(view.closed);
  EXPECT_FALSE(presenter.accepted());
}

struct Shown {
  std::vector<std::pair<std::string, std::string>> messages;
  static void show(const std::string& text, const std::string& caption, void* context) {
    static_cast<Shown*>(context)->messages.emplace_back(text, caption);
  }
};

TEST_F(SettingsTest, StartupCheck) {
  Shown shown;
  startupInterfaceCheck(parseIpv4("192.168.88.1"), &Shown::show, &shown, source);
  ASSERT_EQ(shown.messages.size(), 1u);
  EXPECT_EQ(shown.messages[0].first, "Could not find network interface");
  shown.messages.clear();
  source.addAdapter("lan", "192.168.88.2", "255.255.255.0").gateways = {"192.168.88.254"};
  startupInterfaceCheck(parseIpv4("192.168.88.1"), &Shown::show, &shown, source);
  EXPECT_TRUE(shown.messages.empty());
  setRunningUnderWine(true);
  startupInterfaceCheck(parseIpv4("192.168.88.1"), &Shown::show, &shown, source);
  ASSERT_EQ(shown.messages.size(), 1u);
  EXPECT_EQ(shown.messages[0].second, "Tip");
}

TEST_F(SettingsTest, SettingsPersistUnderTheirNames) {
  app::setDefaultSettingsStore(app::makeMemorySettingsStore());
  {
    app::Registry registry;
    registry.openRoot(app::kSettingsKeyPath);
    EXPECT_FALSE(readNetbootSettings(registry).enabled);
    EXPECT_EQ(readNetbootSettings(registry).clientAddress, 0u);
    writeNetbootSettings(registry, {true, parseIpv4("192.168.88.1")});
  }
  app::Registry registry;
  registry.openRoot(app::kSettingsKeyPath);
  EXPECT_EQ(registry.readInt("PXE Enabled", 7), 1u);
  EXPECT_EQ(registry.readInt("PXE Client Address", 7), parseIpv4("192.168.88.1"));
  app::setDefaultSettingsStore(nullptr);
}

}  // namespace
}  // namespace tarnlift::netboot

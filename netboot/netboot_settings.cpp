#include "netboot/netboot_settings.h"

#include "app/registry.h"
#include "netboot/netboot_server.h"

namespace tarnlift::netboot {

NetbootSettingsPresenter::NetbootSettingsPresenter(NetbootSettingsView& view, bool enabled, uint32_t clientAddress,
                                                   InterfaceSource& interfaces)
    : view_(view), interfaces_(interfaces), enabled_(enabled), clientAddress_(clientAddress) {}

void NetbootSettingsPresenter::opened() {
  view_.setEnabledChecked(enabled_);
  view_.setAddressText(formatIpv4(clientAddress_));
  view_.setAddressEditable(enabled_);
}

void NetbootSettingsPresenter::enabledClicked(bool checked) {
  enabled_ = checked;
  view_.setAddressEditable(checked);
}

void NetbootSettingsPresenter::okPressed() {
  // Checked whether the server is on or not; the limited broadcast address
  // parses to the same invalid value and is refused with it.
  clientAddress_ = parseIpv4(view_.addressText());
  if (clientAddress_ == 0xFFFFFFFFu) {
    view_.showMessage(kBadClientAddress, kCaptionError);
    view_.setAddressText("");
    view_.focusAddress();
    return;
  }
  if (enabled_) {
    findInterface(clientAddress_, interfaces_);
    if (serverAddress() == 0 && !hasInterfaceFor(clientAddress_, interfaces_)) {
      view_.showMessage(kNoInterface, kCaptionError);
      return;
    }
    if (runningUnderWine() && serverGateway() != 0) view_.showMessage(kGatewayTip, kCaptionTip);
  }
  accepted_ = true;
  view_.closeDialog();
}

void NetbootSettingsPresenter::cancelPressed() {
  accepted_ = false;
  view_.closeDialog();
}

void startupInterfaceCheck(uint32_t clientAddress, ShowMessage show, void* context, InterfaceSource& interfaces) {
  findInterface(clientAddress, interfaces);
  bool tip = runningUnderWine() && serverGateway() != 0;
  if (serverAddress() != 0) {
    if (tip) show(kGatewayTip, kCaptionTip, context);
    return;
  }
  if (!hasInterfaceFor(clientAddress, interfaces)) {
    show(kNoInterface, kCaptionError, context);
  } else if (tip) {
    show(kGatewayTip, kCaptionTip, context);
  }
}

NetbootSettings readNetbootSettings(app::Registry& registry) {
  NetbootSettings settings;
  settings.enabled = registry.readInt(kPxeEnabledValue, 0) != 0;
  settings.clientAddress = registry.readInt(kPxeClientAddressValue, 0);
  return settings;
}

void writeNetbootSettings(app::Registry& registry, const NetbootSettings& settings) {
  registry.writeInt(kPxeEnabledValue, settings.enabled ? 1 : 0);
  registry.writeInt(kPxeClientAddressValue, settings.clientAddress);
}

}  // namespace tarnlift::netboot

// The network booting settings: the dialog's rules without a toolkit (the
// window code forwards its events here and implements the view), the
// start-up interface check, and the persisted values.
#pragma once

#include <cstdint>
#include <string>

#include "netboot/interfaces.h"

namespace tarnlift::app {
class Registry;
}

namespace tarnlift::netboot {

// Dialog resource numbers and texts.
inline constexpr int kIdEnabledCheck = 1032;
inline constexpr int kIdClientAddressEdit = 1033;
inline constexpr int kIdOk = 1001;
inline constexpr int kIdCancel = 1024;
inline constexpr const char* kSettingsDialogTitle = "Network Booting Settings";
inline constexpr const char* kSettingsDialogIntro =
    "There you can set parameters for PXE (Pre-boot eXecution Environment) and Etherboot server that can boot your "
    "router over network";
inline constexpr const char* kEnabledCheckText = "Boot Server enabled";
inline constexpr const char* kClientAddressLabel = "Client IP address:";
inline constexpr const char* kBadClientAddress = "Bad client address";
inline constexpr const char* kNoInterface = "Could not find network interface";
inline constexpr const char* kGatewayTip =
    "If your network cable is connected directly to the installing device. Try setting the network gateway address "
    "the same as the interface address.";
inline constexpr const char* kCaptionError = "Error";
inline constexpr const char* kCaptionTip = "Tip";

// What the dialog window does for the presenter.
class NetbootSettingsView {
 public:
  virtual ~NetbootSettingsView() = default;
  virtual void setEnabledChecked(bool checked) = 0;
  virtual void setAddressText(const std::string& text) = 0;
  virtual void setAddressEditable(bool editable) = 0;
  virtual std::string addressText() = 0;
  virtual void focusAddress() = 0;
  // A modal message box with the text and caption.
  virtual void showMessage(const std::string& text, const std::string& caption) = 0;
  virtual void closeDialog() = 0;
};

class NetbootSettingsPresenter {
 public:
  NetbootSettingsPresenter(NetbootSettingsView& view, bool enabled, uint32_t clientAddress,
                           InterfaceSource& interfaces = platformInterfaceSource());

  void opened();
  void enabledClicked(bool checked);
  // Closes the dialog accepted, or shows why not and keeps it open.
  void okPressed();
  void cancelPressed();

  bool accepted() const { return accepted_; }
  bool enabled() const { return enabled_; }
  uint32_t clientAddress() const { return clientAddress_; }

 private:
  NetbootSettingsView& view_;
  InterfaceSource& interfaces_;
  bool accepted_ = false;
  bool enabled_;
  uint32_t clientAddress_;
};

// The check the main window makes once at start-up when network booting is
// on: showMessage is called with the tip or the refusal, if any.
using ShowMessage = void (*)(const std::string& text, const std::string& caption, void* context);
void startupInterfaceCheck(uint32_t clientAddress, ShowMessage show, void* context,
                           InterfaceSource& interfaces = platformInterfaceSource());

struct NetbootSettings {
  bool enabled = false;
  uint32_t clientAddress = 0;
};
NetbootSettings readNetbootSettings(app::Registry& registry);
void writeNetbootSettings(app::Registry& registry, const NetbootSettings& settings);

}  // namespace tarnlift::netboot

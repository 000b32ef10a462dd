// Control ids of the main window (dialog 101) and the notification codes the
// presenter is handed. The numbers are the dialog resource's; the notification
// codes are the values the Windows controls send, so that the Win32 view can
// pass its WM_COMMAND words through unchanged.
#pragma once

#include <cstdint>

namespace tarnlift::ui {

enum ControlId : int {
  kIdStatusBar = 102,
  kIdPackageList = 1001,
  kIdRouterList = 1002,
  kIdPackageDir = 1003,
  kIdBrowse = 1004,
  kIdNetmask = 1005,
  kIdAddress = 1006,
  kIdGateway = 1008,
  kIdSets = 1010,
  kIdSaveSet = 1011,
  kIdDeleteSet = 1012,
  kIdAutoReboot = 1013,
  kIdSelectAll = 1014,
  kIdSelectNone = 1015,
  kIdPackagesGroup = 1017,
  kIdReboot = 1018,
  kIdShutdown = 1021,
  kIdProgress = 1022,
  kIdInstall = 1023,
  kIdCancel = 1024,
  kIdCaption = 1025,
  kIdNetBooting = 1026,
  kIdHelp = 1027,
  kIdKeepConfig = 1028,
  kIdRoutersGroup = 1029,
  kIdBaud = 1030,
  kIdScript = 1032,
  kIdScriptPath = 1033,
  kIdScriptBrowse = 1034,
  kIdBeacon = 1036,
  kIdDefaultConfig = 1038,
  kIdKeepBranding = 1039,
  kIdModeScript = 1040,
  kIdModeScriptPath = 1041,
  kIdModeScriptBrowse = 1042,
  kIdLoadInventory = 1043,
};

// Notification codes of WM_COMMAND's high word.
enum NotifyCode : int {
  kNotifyClicked = 0,          // BN_CLICKED
  kNotifySelChange = 1,        // CBN_SELCHANGE
  kNotifyKillFocus = 0x0200,   // EN_KILLFOCUS
};

// The private message's codes (WM_USER's wParam).
inline constexpr uint32_t kPrivateMessage = 1024;  // WM_USER
inline constexpr uint32_t kRefreshCode = 0xABCDEF00u;
inline constexpr uint32_t kPackageHintCode = 0xABCDEF01u;

inline constexpr uint32_t kTimerMillis = 250;
inline constexpr int kSpaceKey = 0x20;  // VK_SPACE

// List texts of the two drop-down lists, in order.
inline constexpr const char* kAutoRebootItems[] = {"Reboot after installation", "Shutdown after installation", "None"};
inline constexpr const char* kBaudItems[] = {"don't set", "110",   "300",   "1200",  "2400",  "4800",
                                             "9600",      "19200", "38400", "57600", "115200"};

// Column titles of the router list (the package list's are the catalogue's).
inline constexpr const char* kRouterColumns[] = {"Label", "MAC address / Media", "Status", "Architecture"};

inline constexpr const char* kTitlePrefix = "Quenlark Tarnlift for Brisvane ";
inline constexpr const char* kScriptFilter = "Script File (*.rsc)";
inline constexpr const char* kScriptDialogTitle = "Select script";
// "Load inventory…": its file dialog.
inline constexpr const char* kInventoryDialogTitle = "Load inventory";
inline constexpr const char* kInventoryFilter = "Inventory (*.ini;*.txt)";
inline constexpr const char* kNoModeScriptText = "Could not read mode script";
inline constexpr const char* kNoConfigScriptText = "Could not read configuration script";
inline constexpr const char* kSelectedPackagesFormat = "Selected %d package(s)";

}  // namespace tarnlift::ui

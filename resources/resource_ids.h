// Numbers of the program's resources and controls, shared by the .rc file,
// the window code and the GUI test driver. Plain #defines: the resource
// compiler reads this file too.
#pragma once

#define IDI_TARNLIFT 101

// Dialogs.
#define IDD_MAIN 101
#define IDD_SAVE_SET 102
#define IDD_HELP 106
#define IDD_NETBOOT 107

// Bitmap strips of 16x16 pictures (magenta is transparent).
#define IDB_PACKAGE_STATES 120
#define IDB_DEVICES 121

// Main window (dialog 101).
#define IDC_PACKAGE_LIST 1001
#define IDC_ROUTER_LIST 1002
#define IDC_PACKAGE_DIRECTORY 1003
#define IDC_BROWSE_FOLDER 1004
#define IDC_NETMASK 1005
#define IDC_ADDRESS 1006
#define IDC_GATEWAY 1008
#define IDC_SETS 1010
#define IDC_SAVE_SET 1011
#define IDC_DELETE_SET 1012
#define IDC_AUTO_REBOOT 1013
#define IDC_SELECT_ALL 1014
#define IDC_SELECT_NONE 1015
#define IDC_PACKAGES_GROUP 1017
#define IDC_REBOOT 1018
#define IDC_SHUTDOWN 1021
#define IDC_PROGRESS 1022
#define IDC_INSTALL 1023
#define IDC_CANCEL 1024
#define IDC_PROGRESS_CAPTION 1025
#define IDC_NET_BOOTING 1026
#define IDC_HELP_BUTTON 1027
#define IDC_KEEP_CONFIG 1028
#define IDC_ROUTERS_GROUP 1029
#define IDC_BAUD 1030
#define IDC_SCRIPT 1032
#define IDC_SCRIPT_PATH 1033
#define IDC_SCRIPT_BROWSE 1034
#define IDC_BEACON 1036
#define IDC_DEFAULT_CONFIG 1038
#define IDC_KEEP_BRANDING 1039
#define IDC_MODE_SCRIPT 1040
#define IDC_MODE_SCRIPT_PATH 1041
#define IDC_MODE_SCRIPT_BROWSE 1042
#define IDC_LOAD_INVENTORY 1043
#define IDC_STATUS_BAR 102

// "Save set" (dialog 102).
#define IDC_SET_NAME 1000
#define IDC_SET_OK 1001
#define IDC_SET_CANCEL 1024

// "Help" (dialog 106).
#define IDC_HELP_TEXT 1030
#define IDC_HELP_CLOSE 1031

// "Network Booting Settings" (dialog 107).
#define IDC_NETBOOT_ENABLED 1032
#define IDC_NETBOOT_ADDRESS 1033
#define IDC_NETBOOT_OK 1001
#define IDC_NETBOOT_CANCEL 1024

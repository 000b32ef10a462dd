// Numbers of the program's resources, shared by the .rc file and the code.
#pragma once

#define IDI_TARNLIFT 101
#define IDD_MAIN_PLACEHOLDER 100
#define IDC_PACKAGE_DIRECTORY 1003

// The main window as the presenter sees it: controls addressed by their
// dialog ids (ui/main_ids.h), the two list views as rows, the dialogs and
// message boxes, and the few window operations. The Win32 dialog implements
// it; tests implement it with a recording fake. Every call comes from the
// GUI thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "packages/package_catalogue.h"

namespace tarnlift::ui {

// One row of the "Routers/Drives" list, in display order.
struct RouterListRow {
  std::string label;
  std::string mac;           // "MAC address / Media"
  std::string status;        // "Status"
  std::string architecture;  // "Architecture"
  int image = 0;             // 0 router, 1 done, 2 failed, 3 fixed disk, 4 removable
};

struct WindowRect {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;
  int width() const { return right - left; }
  int height() const { return bottom - top; }
};

struct ScreenSize {
  int width = 0;
  int height = 0;
};

enum class MessageIcon { Error, Warning, Information };

class MainView {
 public:
  virtual ~MainView() = default;

  // --- window ---
  virtual void setTitle(const std::string& text) = 0;
  // Icon resource 101 as the window class's icon.
  virtual void setIcon() = 0;
  // Starts the repeating 250 ms timer (WM_TIMER calls onTimer) / stops it.
  virtual void startTimer(uint32_t milliseconds) = 0;
  virtual void stopTimer() = 0;
  // Creates the status bar (id 102) below the controls.
  virtual void createStatusBar() = 0;
  // Teardown: frees the router list, the package list and the status bar.
  virtual void destroyLists() = 0;
  // Gives group box 1017 the clip-siblings style.
  virtual void clipPackagesGroup() = 0;
  // The window's outer rectangle in screen pixels.
  virtual WindowRect windowRect() = 0;
  virtual ScreenSize screenSize() = 0;
  virtual void moveWindow(int left, int top, int width, int height) = 0;
  virtual void showWindow() = 0;
  // Posts the private message (WM_USER) with code; it comes back later
  // through MainPresenter::onPrivateMessage.
  virtual void postPrivate(uint32_t code) = 0;
  // Posts the quit message and ends the process at once with exitCode.
  virtual void quitProcess(int exitCode) = 0;

  // --- controls by id ---
  virtual void setText(int id, const std::string& text) = 0;
  virtual std::string text(int id) = 0;
  virtual void setEnabled(int id, bool enabled) = 0;
  // Edit fields: writable or read-only.
  virtual void setReadOnly(int id, bool readOnly) = 0;
  virtual void setChecked(int id, bool checked) = 0;
  virtual bool isChecked(int id) = 0;

  // --- drop-down lists and the sorted set combo (1010, 1013, 1030) ---
  virtual void addItem(int id, const std::string& text) = 0;
  // Removes the entry with exactly this text, if any.
  virtual void removeItem(int id, const std::string& text) = 0;
  // Selects the entry with exactly this text; empty text or an unknown
  // one: no selection.
  virtual void selectItem(int id, const std::string& text) = 0;
  // The selected entry's index in the list's own order (-1: none) and text.
  virtual int selectedIndex(int id) = 0;
  virtual std::string selectedText(int id) = 0;

  // --- progress bar 1022 ---
  virtual void setProgressRange(int maximum) = 0;
  // Moves the bar by delta (it may be negative).
  virtual void moveProgress(int delta) = 0;

  // --- status bar ---
  virtual void setStatusText(const std::string& text) = 0;

  // --- router list 1002 ---
  // Replaces every row; selectedRow is the row to show selected (-1: none).
  // Must not report an item change back to the presenter.
  virtual void setRouterRows(const std::vector<RouterListRow>& rows, int selectedRow) = 0;
  // The row the user has selected now (-1: none).
  virtual int selectedRouterRow() = 0;

  // --- package list 1001 (rows and state images 0..5) ---
  virtual void clearPackageRows() = 0;
  virtual void addPackageRow(size_t index, const packages::PackageRow& row) = 0;
  virtual void updatePackageRow(size_t index, const packages::PackageRow& row) = 0;
  // The next item of the list from index 0 as the list reports it (the
  // focused one); -1 when none.
  virtual int nextPackageItem() = 0;

  // --- boxes and dialogs (modal) ---
  virtual void showMessage(const std::string& text, const std::string& caption, MessageIcon icon) = 0;
  // Yes/No question with the caption "Warning"; true for Yes.
  virtual bool askYesNo(const std::string& text) = 0;
  // Dialog 102 "Save set": the edit box starts with name; true with the
  // typed name on OK, false on Cancel or close.
  virtual bool askSetName(std::string& name) = 0;
  // Dialog 107 with the current values; true with the new ones on OK. The
  // dialog's own rules live in netboot::NetbootSettingsPresenter.
  virtual bool askNetbootSettings(bool& enabled, uint32_t& clientAddress) = 0;
  // Dialog 106, modal.
  virtual void showHelp() = 0;
  // The file dialog for scripts: filter "Script File (*.rsc)", title
  // "Select script", the file must exist. True with the path on OK.
  virtual bool chooseScriptFile(std::string& path) = 0;
  // The file dialog of "Load inventory…": filter "Inventory (*.ini;*.txt)"
  // and all files, title "Load inventory", the file must exist. True with
  // the path on OK.
  virtual bool chooseInventoryFile(std::string& path) = 0;
  // The folder browser that "Browse..." opens (Part of the package list).
  virtual packages::FolderBrowser& folderBrowser() = 0;
};

}  // namespace tarnlift::ui

// The main window on Win32: dialog 101 as the presenter's view. This file
// only maps controls and window messages onto MainPresenter; every rule
// lives there.
#include <windows.h>

// After windows.h, which they need.
#include <commctrl.h>
#include <commdlg.h>
#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "doctor/explain.h"
#include "app/log.h"
#include "resources/resource_ids.h"
#include "ui/dialogs.h"
#include "ui/main_ids.h"
#include "ui/main_presenter.h"
#include "ui/main_view.h"
#include "ui/main_window.h"
#include "ui/main_workers.h"

namespace tarnlift {
namespace {

using ui::MainView;

HINSTANCE module() { return GetModuleHandleA(nullptr); }

// "Browse..." of the package folder: the shell's folder browser, which shows
// how many packages the highlighted folder holds.
class ShellFolderBrowser : public packages::FolderBrowser {
 public:
  explicit ShellFolderBrowser(HWND& owner) : owner_(owner) {}

  bool browse(const Request& request, std::string& chosenFolder) override {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    char display[MAX_PATH] = {};
    BROWSEINFOA info{};
    info.hwndOwner = owner_;
    info.pszDisplayName = display;
    info.lpszTitle = request.title.c_str();
    info.ulFlags = BIF_RETURNONLYFSDIRS | BIF_STATUSTEXT;
    info.lpfn = &callback;
    info.lParam = reinterpret_cast<LPARAM>(&request);
    PIDLIST_ABSOLUTE chosen = SHBrowseForFolderA(&info);
    if (chosen == nullptr) return false;
    char path[MAX_PATH] = {};
    bool ok = SHGetPathFromIDListA(chosen, path) != FALSE;
    CoTaskMemFree(chosen);
    if (ok) chosenFolder = path;
    return ok;
  }

 private:
  static int CALLBACK callback(HWND dialog, UINT message, LPARAM lParam, LPARAM data) {
    const auto* request = reinterpret_cast<const Request*>(data);
    if (message == BFFM_INITIALIZED) {
      if (request->onInit) request->onInit();
      SendMessageA(dialog, BFFM_SETSELECTIONA, TRUE, reinterpret_cast<LPARAM>(request->startFolder.c_str()));
    } else if (message == BFFM_SELCHANGED) {
      char path[MAX_PATH] = {};
      if (SHGetPathFromIDListA(reinterpret_cast<PCIDLIST_ABSOLUTE>(lParam), path) && request->statusFor) {
        std::string status = request->statusFor(path);
        SendMessageA(dialog, BFFM_SETSTATUSTEXTA, 0, reinterpret_cast<LPARAM>(status.c_str()));
      }
    }
    return 0;
  }

  HWND& owner_;
};

class Win32MainView : public MainView {
 public:
  Win32MainView() : folderBrowser_(window_) {}

  // Called from WM_INITDIALOG, before the presenter builds anything.
  void attach(HWND window) {
    window_ = window;
    routerList_ = GetDlgItem(window, IDC_ROUTER_LIST);
    packageList_ = GetDlgItem(window, IDC_PACKAGE_LIST);
    setUpLists();
    DragAcceptFiles(window, TRUE);
  }

  HWND window() const { return window_; }
  bool notificationsMuted() const { return muted_ > 0; }

  // The window grows only in height: the package list takes the extra room,
  // the controls under it move down, the status bar stays at the bottom.
  void layOut() {
    if (statusBar_ != nullptr) SendMessageA(statusBar_, WM_SIZE, 0, 0);
    RECT client{};
    GetClientRect(window_, &client);
    if (baseClientHeight_ == 0) return;
    int delta = client.bottom - baseClientHeight_;
    if (delta < 0) delta = 0;
    for (const Anchored& a : anchored_) {
      RECT r = a.rect;
      if (a.stretch) {
        r.bottom += delta;
      } else {
        OffsetRect(&r, 0, delta);
      }
      SetWindowPos(a.window, nullptr, r.left, r.top, r.right - r.left, r.bottom - r.top,
                   SWP_NOZORDER | SWP_NOACTIVATE);
    }
    InvalidateRect(window_, nullptr, TRUE);
  }

  // --- window ---
  void setTitle(const std::string& text) override { SetWindowTextA(window_, text.c_str()); }
  void setIcon() override {
    HICON icon = LoadIconA(module(), MAKEINTRESOURCEA(IDI_TARNLIFT));
    SetClassLongPtrA(window_, GCLP_HICON, reinterpret_cast<LONG_PTR>(icon));
    SendMessageA(window_, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
    SendMessageA(window_, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon));
  }
  void startTimer(uint32_t milliseconds) override { timer_ = SetTimer(window_, 0, milliseconds, nullptr); }
  void stopTimer() override { KillTimer(window_, timer_); }
  void createStatusBar() override {
    statusBar_ = CreateWindowExA(0, STATUSCLASSNAMEA, "", WS_CHILD | WS_VISIBLE | SBARS_SIZEGRIP, 0, 0, 0, 0, window_,
                                 reinterpret_cast<HMENU>(static_cast<INT_PTR>(IDC_STATUS_BAR)), module(), nullptr);
    SendMessageA(statusBar_, WM_SETFONT, SendMessageA(window_, WM_GETFONT, 0, 0), TRUE);
    rememberLayout();
    layOut();
  }
  void destroyLists() override {
    for (HWND* control : {&routerList_, &packageList_, &statusBar_}) {
      if (*control != nullptr) DestroyWindow(*control);
      *control = nullptr;
    }
  }
  void clipPackagesGroup() override {
    HWND group = GetDlgItem(window_, IDC_PACKAGES_GROUP);
    SetWindowLongA(group, GWL_STYLE, GetWindowLongA(group, GWL_STYLE) | WS_CLIPSIBLINGS);
  }
  ui::WindowRect windowRect() override {
    RECT r{};
    GetWindowRect(window_, &r);
    return {static_cast<int>(r.left), static_cast<int>(r.top), static_cast<int>(r.right), static_cast<int>(r.bottom)};
  }
  ui::ScreenSize screenSize() override { return {GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN)}; }
  void moveWindow(int left, int top, int width, int height) override {
    MoveWindow(window_, left, top, width, height, TRUE);
  }
  void showWindow() override { ShowWindow(window_, SW_SHOW); }
  void postPrivate(uint32_t code) override { PostMessageA(window_, WM_USER, code, 0); }
  void quitProcess(int exitCode) override {
    PostQuitMessage(exitCode);
    ExitProcess(static_cast<UINT>(exitCode));
  }

  // --- controls by id ---
  void setText(int id, const std::string& text) override {
    // Unchanged texts are left alone: setting an edit's text moves its caret.
    HWND control = GetDlgItem(window_, id);
    if (windowText(control) != text) SetWindowTextA(control, text.c_str());
  }
  std::string text(int id) override { return windowText(GetDlgItem(window_, id)); }
  void setEnabled(int id, bool enabled) override { EnableWindow(GetDlgItem(window_, id), enabled); }
  void setReadOnly(int id, bool readOnly) override {
    SendMessageA(GetDlgItem(window_, id), EM_SETREADONLY, readOnly, 0);
  }
  void setChecked(int id, bool checked) override {
    CheckDlgButton(window_, id, checked ? BST_CHECKED : BST_UNCHECKED);
  }
  bool isChecked(int id) override { return IsDlgButtonChecked(window_, id) == BST_CHECKED; }

  // --- drop-down lists ---
  void addItem(int id, const std::string& text) override {
    SendDlgItemMessageA(window_, id, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text.c_str()));
  }
  void removeItem(int id, const std::string& text) override {
    LRESULT index = findItem(id, text);
    if (index != CB_ERR) SendDlgItemMessageA(window_, id, CB_DELETESTRING, static_cast<WPARAM>(index), 0);
  }
  void selectItem(int id, const std::string& text) override {
    LRESULT index = text.empty() ? CB_ERR : findItem(id, text);
    SendDlgItemMessageA(window_, id, CB_SETCURSEL, index == CB_ERR ? static_cast<WPARAM>(-1) : index, 0);
  }
  int selectedIndex(int id) override {
    LRESULT index = SendDlgItemMessageA(window_, id, CB_GETCURSEL, 0, 0);
    return index == CB_ERR ? -1 : static_cast<int>(index);
  }
  std::string selectedText(int id) override {
    LRESULT index = SendDlgItemMessageA(window_, id, CB_GETCURSEL, 0, 0);
    if (index == CB_ERR) return "";
    LRESULT length = SendDlgItemMessageA(window_, id, CB_GETLBTEXTLEN, static_cast<WPARAM>(index), 0);
    if (length == CB_ERR) return "";
    std::vector<char> buffer(static_cast<size_t>(length) + 1, '\0');
    SendDlgItemMessageA(window_, id, CB_GETLBTEXT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(buffer.data()));
    return buffer.data();
  }

  // --- progress and status ---
  void setProgressRange(int maximum) override {
    SendDlgItemMessageA(window_, IDC_PROGRESS, PBM_SETRANGE32, 0, maximum);
  }
  void moveProgress(int delta) override { SendDlgItemMessageA(window_, IDC_PROGRESS, PBM_DELTAPOS, delta, 0); }
  void setStatusText(const std::string& text) override {
    if (statusBar_ != nullptr) SendMessageA(statusBar_, SB_SETTEXTA, 0, reinterpret_cast<LPARAM>(text.c_str()));
  }

  // --- router list ---
  void setRouterRows(const std::vector<ui::RouterListRow>& rows, int selectedRow) override {
    // Rows are rewritten in place, so that the list neither flickers nor
    // loses its scroll position; none of it is reported back.
    ++muted_;
    SendMessageA(routerList_, WM_SETREDRAW, FALSE, 0);
    int count = static_cast<int>(SendMessageA(routerList_, LVM_GETITEMCOUNT, 0, 0));
    while (count > static_cast<int>(rows.size())) SendMessageA(routerList_, LVM_DELETEITEM, --count, 0);
    for (size_t i = 0; i < rows.size(); ++i) {
      const ui::RouterListRow& row = rows[i];
      LVITEMA item{};
      item.mask = LVIF_TEXT | LVIF_IMAGE;
      item.iItem = static_cast<int>(i);
      item.iImage = row.image;
      item.pszText = const_cast<char*>(row.label.c_str());
      if (static_cast<int>(i) >= count) {
        SendMessageA(routerList_, LVM_INSERTITEMA, 0, reinterpret_cast<LPARAM>(&item));
      } else {
        SendMessageA(routerList_, LVM_SETITEMA, 0, reinterpret_cast<LPARAM>(&item));
      }
      setCell(routerList_, i, 1, row.mac);
      setCell(routerList_, i, 2, row.status);
      setCell(routerList_, i, 3, row.architecture);
      LVITEMA state{};
      state.stateMask = LVIS_SELECTED | LVIS_FOCUSED;
      state.state = static_cast<int>(i) == selectedRow ? (LVIS_SELECTED | LVIS_FOCUSED) : 0;
      SendMessageA(routerList_, LVM_SETITEMSTATE, i, reinterpret_cast<LPARAM>(&state));
    }
    SendMessageA(routerList_, WM_SETREDRAW, TRUE, 0);
    InvalidateRect(routerList_, nullptr, FALSE);
    --muted_;
  }
  int selectedRouterRow() override {
    return static_cast<int>(SendMessageA(routerList_, LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_SELECTED));
  }

  // --- package list ---
  void clearPackageRows() override { SendMessageA(packageList_, LVM_DELETEALLITEMS, 0, 0); }
  void addPackageRow(size_t index, const packages::PackageRow& row) override {
    LVITEMA item{};
    item.mask = LVIF_TEXT | LVIF_STATE;
    item.iItem = static_cast<int>(index);
    item.pszText = const_cast<char*>(row.name.c_str());
    item.stateMask = LVIS_STATEIMAGEMASK;
    item.state = INDEXTOSTATEIMAGEMASK(static_cast<UINT>(row.state));
    SendMessageA(packageList_, LVM_INSERTITEMA, 0, reinterpret_cast<LPARAM>(&item));
    setPackageCells(index, row);
  }
  void updatePackageRow(size_t index, const packages::PackageRow& row) override {
    LVITEMA item{};
    item.mask = LVIF_TEXT;
    item.iItem = static_cast<int>(index);
    item.pszText = const_cast<char*>(row.name.c_str());
    SendMessageA(packageList_, LVM_SETITEMA, 0, reinterpret_cast<LPARAM>(&item));
    LVITEMA state{};
    state.stateMask = LVIS_STATEIMAGEMASK;
    state.state = INDEXTOSTATEIMAGEMASK(static_cast<UINT>(row.state));
    SendMessageA(packageList_, LVM_SETITEMSTATE, index, reinterpret_cast<LPARAM>(&state));
    setPackageCells(index, row);
  }
  int nextPackageItem() override {
    // The focused row, the first one included.
    return static_cast<int>(SendMessageA(packageList_, LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_FOCUSED));
  }

  // --- boxes and dialogs ---
  void showMessage(const std::string& text, const std::string& caption, ui::MessageIcon icon) override {
    UINT kind = icon == ui::MessageIcon::Error     ? MB_ICONERROR
                : icon == ui::MessageIcon::Warning ? MB_ICONWARNING
                                                   : MB_ICONINFORMATION;
    MessageBoxA(window_, text.c_str(), caption.c_str(), MB_OK | kind);
  }
  bool askYesNo(const std::string& text) override {
    return MessageBoxA(window_, text.c_str(), "Warning", MB_YESNO | MB_ICONWARNING) == IDYES;
  }
  bool askSetName(std::string& name) override { return askSetNameDialog(window_, name); }
  bool askNetbootSettings(bool& enabled, uint32_t& clientAddress) override {
    return showNetbootDialog(window_, enabled, clientAddress);
  }
  void showHelp() override { showHelpDialog(window_); }
  bool chooseScriptFile(std::string& path) override {
    static const char kFilter[] = "Script File (*.rsc)\0*.rsc\0";
    return openFile(kFilter, ui::kScriptDialogTitle, path);
  }
  bool chooseInventoryFile(std::string& path) override {
    static const char kFilter[] = "Inventory (*.ini;*.txt)\0*.ini;*.txt\0All files (*.*)\0*.*\0";
    return openFile(kFilter, ui::kInventoryDialogTitle, path);
  }
  packages::FolderBrowser& folderBrowser() override { return folderBrowser_; }

 private:
  struct Anchored {
    HWND window;
    RECT rect;  // in client coordinates, at the dialog's own size
    bool stretch;
  };

  // The system's open-file dialog for an existing file; `filter` is the
  // dialog's list of NUL-separated pairs.
  bool openFile(const char* filter, const char* title, std::string& path) {
    std::vector<char> buffer(4096, '\0');
    OPENFILENAMEA dialog{};
    dialog.lStructSize = sizeof dialog;
    dialog.hwndOwner = window_;
    dialog.lpstrFilter = filter;
    dialog.lpstrFile = buffer.data();
    dialog.nMaxFile = static_cast<DWORD>(buffer.size());
    dialog.lpstrTitle = title;
    dialog.Flags = OFN_FILEMUSTEXIST | OFN_PATHMUSTEXIST | OFN_HIDEREADONLY | OFN_NOCHANGEDIR;
    if (!GetOpenFileNameA(&dialog)) return false;
    path = buffer.data();
    return true;
  }

  void setUpLists() {
    // Routers/Drives: one picture per row (router, done, failed, disks).
    // A router's name too long for its column shows whole as a tip.
    SendMessageA(routerList_, LVM_SETEXTENDEDLISTVIEWSTYLE, 0, LVS_EX_FULLROWSELECT | LVS_EX_LABELTIP);
    HIMAGELIST devices = ImageList_LoadImageA(module(), MAKEINTRESOURCEA(IDB_DEVICES), 16, 0, RGB(255, 0, 255),
                                              IMAGE_BITMAP, LR_CREATEDIBSECTION);
    SendMessageA(routerList_, LVM_SETIMAGELIST, LVSIL_SMALL, reinterpret_cast<LPARAM>(devices));
    // Each column as wide as its longest possible text; the label takes
    // the rest.
    int mac = std::max(textWidth(routerList_, ui::kRouterColumns[1]), textWidth(routerList_, "DD:DD:DD:DD:DD:DD"));
    int status = std::max(textWidth(routerList_, ui::kRouterColumns[2]), textWidth(routerList_, "Waiting reboot"));
    int architecture = textWidth(routerList_, ui::kRouterColumns[3]);
    RECT routerClient{};
    GetClientRect(routerList_, &routerClient);
    int label = routerClient.right - mac - status - architecture - GetSystemMetrics(SM_CXVSCROLL);
    const int routerWidths[] = {std::max(label, 60), mac, status, architecture};
    addColumns(routerList_, ui::kRouterColumns, routerWidths, 4);
    // Packages: the check box states 1..5 as state pictures.
    SendMessageA(packageList_, LVM_SETEXTENDEDLISTVIEWSTYLE, 0, LVS_EX_FULLROWSELECT);
    HIMAGELIST states = ImageList_LoadImageA(module(), MAKEINTRESOURCEA(IDB_PACKAGE_STATES), 16, 0, RGB(255, 0, 255),
                                             IMAGE_BITMAP, LR_CREATEDIBSECTION);
    SendMessageA(packageList_, LVM_SETIMAGELIST, LVSIL_STATE, reinterpret_cast<LPARAM>(states));
    RECT client{};
    GetClientRect(packageList_, &client);
    // The fixed columns are laid out for 96 dots per inch and grow with the
    // screen's: at 200 % a version still fits its column.
    const int dpi = dotsPerInch(window_);
    auto scaled = [dpi](int pixels) { return MulDiv(pixels, dpi, 96); };
    int rest = client.right - scaled(140) - scaled(90) - scaled(90) - GetSystemMetrics(SM_CXVSCROLL) - scaled(4);
    const int packageWidths[] = {scaled(140), scaled(90), scaled(90), rest > scaled(120) ? rest : scaled(120)};
    addColumns(packageList_, packages::kPackageColumns, packageWidths, 4);
  }

  // The dots per inch of the screen the window is on: the window's own where
  // the system tells it (Windows 10 1607 and later, per monitor), else the
  // system's.
  static int dotsPerInch(HWND window) {
    using GetDpiForWindowFunction = UINT(WINAPI*)(HWND);
    static const auto getDpiForWindow = reinterpret_cast<GetDpiForWindowFunction>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("user32.dll"), "GetDpiForWindow")));
    if (getDpiForWindow != nullptr) {
      const UINT dpi = getDpiForWindow(window);
      if (dpi != 0) return static_cast<int>(dpi);
    }
    HDC screen = GetDC(nullptr);
    const int dpi = GetDeviceCaps(screen, LOGPIXELSX);
    ReleaseDC(nullptr, screen);
    return dpi > 0 ? dpi : 96;
  }

 public:
  // Moved to a screen of another density: the dialog manager rescales the
  // controls and fonts of a per-monitor aware dialog itself, so the places
  // remembered for stretching are forgotten until it is done, then taken
  // again from the rescaled controls.
  void forgetLayout() {
    anchored_.clear();
    baseClientHeight_ = 0;
  }
  void relearnLayout() {
    if (baseClientHeight_ == 0 && statusBar_ != nullptr) {
      rememberLayout();
      layOut();
    }
  }

 private:
  // A header or cell text's width in the list's font, with the padding a
  // column needs around it.
  static int textWidth(HWND list, const char* text) {
    return static_cast<int>(SendMessageA(list, LVM_GETSTRINGWIDTHA, 0, reinterpret_cast<LPARAM>(text))) + 16;
  }

  static void addColumns(HWND list, const char* const* titles, const int* widths, int count) {
    for (int i = 0; i < count; ++i) {
      LVCOLUMNA column{};
      column.mask = LVCF_TEXT | LVCF_WIDTH | LVCF_SUBITEM;
      column.pszText = const_cast<char*>(titles[i]);
      column.cx = widths[i];
      column.iSubItem = i;
      SendMessageA(list, LVM_INSERTCOLUMNA, i, reinterpret_cast<LPARAM>(&column));
    }
  }

  static void setCell(HWND list, size_t row, int column, const std::string& text) {
    LVITEMA item{};
    item.iSubItem = column;
    item.pszText = const_cast<char*>(text.c_str());
    SendMessageA(list, LVM_SETITEMTEXTA, row, reinterpret_cast<LPARAM>(&item));
  }

  void setPackageCells(size_t index, const packages::PackageRow& row) {
    setCell(packageList_, index, 1, row.version);
    setCell(packageList_, index, 2, row.architecture);
    setCell(packageList_, index, 3, row.description);
  }

  LRESULT findItem(int id, const std::string& text) {
    return SendDlgItemMessageA(window_, id, CB_FINDSTRINGEXACT, static_cast<WPARAM>(-1),
                               reinterpret_cast<LPARAM>(text.c_str()));
  }

  // Notes where the lower half's controls sit at the dialog's own size.
  void rememberLayout() {
    RECT client{};
    GetClientRect(window_, &client);
    baseClientHeight_ = client.bottom;
    RECT list{};
    GetWindowRect(packageList_, &list);
    MapWindowPoints(nullptr, window_, reinterpret_cast<POINT*>(&list), 2);
    for (HWND child = GetWindow(window_, GW_CHILD); child != nullptr; child = GetWindow(child, GW_HWNDNEXT)) {
      if (child == statusBar_) continue;
      RECT r{};
      GetWindowRect(child, &r);
      MapWindowPoints(nullptr, window_, reinterpret_cast<POINT*>(&r), 2);
      bool stretch = child == packageList_ || child == GetDlgItem(window_, IDC_PACKAGES_GROUP);
      if (stretch || r.top >= list.bottom) anchored_.push_back({child, r, stretch});
    }
  }

  HWND window_ = nullptr;
  HWND routerList_ = nullptr;
  HWND packageList_ = nullptr;
  HWND statusBar_ = nullptr;
  UINT_PTR timer_ = 0;
  int muted_ = 0;
  int baseClientHeight_ = 0;
  std::vector<Anchored> anchored_;
  ShellFolderBrowser folderBrowser_;
};

struct MainWindow {
  std::unique_ptr<Win32MainView> view;
  std::unique_ptr<ui::SystemMainWorkers> workers;
  std::unique_ptr<ui::MainPresenter> presenter;
};

MainWindow* gWindow = nullptr;

std::vector<std::string> droppedPaths(HDROP drop) {
  std::vector<std::string> paths;
  UINT count = DragQueryFileA(drop, 0xFFFFFFFF, nullptr, 0);
  for (UINT i = 0; i < count; ++i) {
    UINT length = DragQueryFileA(drop, i, nullptr, 0);
    std::vector<char> buffer(length + 1, '\0');
    DragQueryFileA(drop, i, buffer.data(), length + 1);
    paths.emplace_back(buffer.data());
  }
  DragFinish(drop);
  return paths;
}

INT_PTR onNotify(MainWindow& w, const NMHDR& header) {
  if (header.idFrom == IDC_ROUTER_LIST && header.code == LVN_ITEMCHANGING) {
    if (!w.view->notificationsMuted()) w.presenter->onRouterItemChanging();
    return FALSE;  // let the change happen
  }
  if (header.idFrom == IDC_PACKAGE_LIST && header.code == LVN_KEYDOWN) {
    w.presenter->onPackageKey(reinterpret_cast<const NMLVKEYDOWN&>(header).wVKey);
    return TRUE;
  }
  if (header.idFrom == IDC_PACKAGE_LIST && header.code == NM_CLICK) {
    w.presenter->onPackageClick(reinterpret_cast<const NMITEMACTIVATE&>(header).iItem);
    return TRUE;
  }
  return FALSE;
}

// Posted after a change of screen density, once the dialog is rescaled.
constexpr UINT kRelearnLayoutMessage = WM_APP + 17;

INT_PTR CALLBACK mainProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  MainWindow* w = gWindow;
  switch (message) {
    case WM_INITDIALOG:
      w->view->attach(window);
      w->presenter->construct();
      return TRUE;
    case WM_COMMAND:
      if (w->presenter == nullptr || w->view->window() == nullptr) return FALSE;
      w->presenter->onCommand(LOWORD(wParam), HIWORD(wParam));
      return TRUE;
    case WM_NOTIFY:
      if (w->view->window() == nullptr) return FALSE;
      SetWindowLongPtrA(window, DWLP_MSGRESULT, onNotify(*w, *reinterpret_cast<NMHDR*>(lParam)));
      return TRUE;
    case WM_USER:
      w->presenter->onPrivateMessage(static_cast<uint32_t>(wParam));
      return TRUE;
    case WM_TIMER:
      w->presenter->onTimer();
      return TRUE;
    case WM_DROPFILES:
      w->presenter->onFilesDropped(droppedPaths(reinterpret_cast<HDROP>(wParam)));
      return TRUE;
    case WM_SIZE:
      if (w->view->window() != nullptr) w->view->layOut();
      return TRUE;
    case WM_DPICHANGED: {
      // The default handling moves the window to the suggested rectangle
      // and rescales the dialog; the stretch anchors are taken again after.
      w->view->forgetLayout();
      const RECT* suggested = reinterpret_cast<const RECT*>(lParam);
      SetWindowPos(window, nullptr, suggested->left, suggested->top, suggested->right - suggested->left,
                   suggested->bottom - suggested->top, SWP_NOZORDER | SWP_NOACTIVATE);
      PostMessageA(window, kRelearnLayoutMessage, 0, 0);
      return FALSE;
    }
    case kRelearnLayoutMessage:
      w->view->relearnLayout();
      return TRUE;
    case WM_GETMINMAXINFO: {
      if (w == nullptr || w->presenter == nullptr) return FALSE;
      ui::TrackingLimits limits = w->presenter->trackingLimits();
      if (limits.minWidth == 0) return FALSE;
      auto* info = reinterpret_cast<MINMAXINFO*>(lParam);
      info->ptMinTrackSize.x = limits.minWidth;
      info->ptMinTrackSize.y = limits.minHeight;
      info->ptMaxTrackSize.x = limits.maxWidth;
      return TRUE;
    }
    case WM_CLOSE:
      w->presenter->onClose();
      return TRUE;
  }
  return FALSE;
}

}  // namespace

void* buildMainWindow(const app::StartupOptions& options) { return buildMainWindow(options, nullptr); }

void* buildMainWindow(const app::StartupOptions& options, std::unique_ptr<install::DriveInstaller> drives) {
  // A boot server that cannot bind its ports names the program holding them
  // in the fatal box.
  doctor::explainFatalFailures();
  gWindow = new MainWindow;
  gWindow->view = std::make_unique<Win32MainView>();
  gWindow->workers = std::make_unique<ui::SystemMainWorkers>(std::move(drives));
  gWindow->presenter = std::make_unique<ui::MainPresenter>(*gWindow->view, *gWindow->workers, options);
  CreateDialogParamA(module(), MAKEINTRESOURCEA(IDD_MAIN), nullptr, &mainProc, 0);
  return gWindow->view->window();
}

void tearDownMainWindow() {
  if (gWindow == nullptr) return;
  gWindow->presenter->tearDown();
  if (gWindow->view->window() != nullptr) DestroyWindow(gWindow->view->window());
  // The workers' threads are stopped; what is left goes with the process.
  gWindow = nullptr;
}

}  // namespace tarnlift

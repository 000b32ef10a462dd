// Win32 glue of the modal dialogs: each maps its controls and messages and
// leaves the rules to the neutral code it wraps.
#include <windows.h>

#include <string>
#include <vector>

#include "netboot/netboot_settings.h"
#include "resources/resource_ids.h"
#include "ui/dialogs.h"
#include "ui/help_text.h"

namespace tarnlift {
namespace {

// The resources live in the program's own module.
HINSTANCE resourceModule() { return GetModuleHandleA(nullptr); }

INT_PTR CALLBACK helpProc(HWND dialog, UINT message, WPARAM wParam, LPARAM) {
  switch (message) {
    case WM_INITDIALOG:
      SetFocus(GetDlgItem(dialog, IDC_HELP_CLOSE));
      SetDlgItemTextA(dialog, IDC_HELP_TEXT, kHelpText);
      return FALSE;  // the focus set above stands
    case WM_COMMAND:
      // The whole word: a "Close" notification other than a click is not a
      // click. Esc arrives as the cancel command.
      if (wParam == IDCANCEL || wParam == IDC_HELP_CLOSE) EndDialog(dialog, 0);
      return TRUE;
    case WM_CLOSE:
      EndDialog(dialog, 0);
      return TRUE;
  }
  return FALSE;
}

struct SaveSetState {
  std::string name;
  bool accepted = false;
};

INT_PTR CALLBACK saveSetProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* state = reinterpret_cast<SaveSetState*>(GetWindowLongPtrA(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG: {
      SetWindowLongPtrA(dialog, DWLP_USER, lParam);
      state = reinterpret_cast<SaveSetState*>(lParam);
      HWND edit = GetDlgItem(dialog, IDC_SET_NAME);
      SetWindowTextA(edit, state->name.c_str());
      SendMessageA(edit, EM_SETSEL, 0, -1);
      SetFocus(edit);
      return FALSE;
    }
    case WM_COMMAND:
      if (HIWORD(wParam) != BN_CLICKED) return FALSE;
      if (LOWORD(wParam) == IDC_SET_OK || LOWORD(wParam) == IDOK) {
        state->name = windowText(GetDlgItem(dialog, IDC_SET_NAME));
        state->accepted = true;
        EndDialog(dialog, 1);
        return TRUE;
      }
      if (LOWORD(wParam) == IDC_SET_CANCEL || LOWORD(wParam) == IDCANCEL) {
        EndDialog(dialog, 0);
        return TRUE;
      }
      return FALSE;
    case WM_CLOSE:
      EndDialog(dialog, 0);
      return TRUE;
  }
  return FALSE;
}

// Dialog 107 as the network booting presenter's view.
class NetbootDialogView : public netboot::NetbootSettingsView {
 public:
  explicit NetbootDialogView(HWND dialog) : dialog_(dialog) {}
  void setEnabledChecked(bool checked) override {
    CheckDlgButton(dialog_, IDC_NETBOOT_ENABLED, checked ? BST_CHECKED : BST_UNCHECKED);
  }
  void setAddressText(const std::string& text) override { SetDlgItemTextA(dialog_, IDC_NETBOOT_ADDRESS, text.c_str()); }
  void setAddressEditable(bool editable) override { EnableWindow(GetDlgItem(dialog_, IDC_NETBOOT_ADDRESS), editable); }
  std::string addressText() override { return windowText(GetDlgItem(dialog_, IDC_NETBOOT_ADDRESS)); }
  void focusAddress() override { SetFocus(GetDlgItem(dialog_, IDC_NETBOOT_ADDRESS)); }
  void showMessage(const std::string& text, const std::string& caption) override {
    MessageBoxA(dialog_, text.c_str(), caption.c_str(), MB_OK);
  }
  void closeDialog() override { EndDialog(dialog_, 0); }

 private:
  HWND dialog_;
};

struct NetbootState {
  bool enabled;
  uint32_t clientAddress;
  bool accepted = false;
  NetbootDialogView* view = nullptr;
  netboot::NetbootSettingsPresenter* presenter = nullptr;
};

INT_PTR CALLBACK netbootProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  auto* state = reinterpret_cast<NetbootState*>(GetWindowLongPtrA(dialog, DWLP_USER));
  switch (message) {
    case WM_INITDIALOG:
      SetWindowLongPtrA(dialog, DWLP_USER, lParam);
      state = reinterpret_cast<NetbootState*>(lParam);
      state->view = new NetbootDialogView(dialog);
      state->presenter = new netboot::NetbootSettingsPresenter(*state->view, state->enabled, state->clientAddress);
      state->presenter->opened();
      return TRUE;
    case WM_COMMAND:
      if (state == nullptr || state->presenter == nullptr) return FALSE;
      switch (LOWORD(wParam)) {
        case IDC_NETBOOT_ENABLED:
          if (HIWORD(wParam) == BN_CLICKED)
            state->presenter->enabledClicked(IsDlgButtonChecked(dialog, IDC_NETBOOT_ENABLED) == BST_CHECKED);
          return TRUE;
        case IDC_NETBOOT_OK:
        case IDOK:
          state->presenter->okPressed();
          return TRUE;
        case IDC_NETBOOT_CANCEL:
        case IDCANCEL:
          state->presenter->cancelPressed();
          return TRUE;
      }
      return FALSE;
    case WM_CLOSE:
      if (state != nullptr && state->presenter != nullptr) state->presenter->cancelPressed();
      return TRUE;
  }
  return FALSE;
}

}  // namespace

std::string windowText(void* window) {
  HWND handle = static_cast<HWND>(window);
  int length = GetWindowTextLengthA(handle);
  std::vector<char> buffer(static_cast<size_t>(length) + 1, '\0');
  GetWindowTextA(handle, buffer.data(), length + 1);
  return std::string(buffer.data());
}

int showHelpDialog(void* owner) {
  DialogBoxParamA(resourceModule(), MAKEINTRESOURCEA(IDD_HELP), static_cast<HWND>(owner), &helpProc, 0);
  return 0;
}

bool askSetNameDialog(void* owner, std::string& name) {
  SaveSetState state;
  state.name = name;
  DialogBoxParamA(resourceModule(), MAKEINTRESOURCEA(IDD_SAVE_SET), static_cast<HWND>(owner), &saveSetProc,
                  reinterpret_cast<LPARAM>(&state));
  if (state.accepted) name = state.name;
  return state.accepted;
}

bool showNetbootDialog(void* owner, bool& enabled, uint32_t& clientAddress) {
  NetbootState state{enabled, clientAddress};
  DialogBoxParamA(resourceModule(), MAKEINTRESOURCEA(IDD_NETBOOT), static_cast<HWND>(owner), &netbootProc,
                  reinterpret_cast<LPARAM>(&state));
  bool accepted = state.presenter != nullptr && state.presenter->accepted();
  if (accepted) {
    enabled = state.presenter->enabled();
    clientAddress = state.presenter->clientAddress();
  }
  delete state.presenter;
  delete state.view;
  return accepted;
}

}  // namespace tarnlift

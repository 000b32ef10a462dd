// A small driver that reads and operates the program's windows from a second
// process, so that the window behaviour can be checked under Wine.
//
// Short forms (one action):
//   guiprobe box TITLE TIMEOUT_MS    prints the text of a message box, presses OK
//   guiprobe close TITLE TIMEOUT_MS  asks a top-level window to close
//   guiprobe keyup|keydown TITLE ID  posts an Enter release/press to control ID
//
// "-o FILE" before everything sends the output to FILE.
//
// Scripts: commands separated by "--", run in order against a target window
// chosen by "win" or "dlg"; the first failing command ends the run with 1.
//   win TITLE [MS]          target := visible top-level window whose title starts with TITLE
//   dlg TITLE [MS]          target := dialog (class #32770) titled exactly TITLE
//   gone TITLE [MS]         wait until no window titled exactly TITLE is left
//   text ID                 print the control's text (ID 0: the target's title)
//   settext ID TEXT         set the control's text
//   state ID                print "enabled=E checked=C readonly=R visible=V"
//   click ID                click a button (refused when it is disabled)
//   command ID [CODE]       post WM_COMMAND(ID, CODE) to the target
//   combo ID                print the items, the selected one marked "* "
//   progress ID             print a progress bar's position
//   choose ID TEXT          select the item TEXT of a combo box, as a user does
//   rows ID                 print list rows: index, state image, image, selected, cells (tabs)
//   selectrow ID INDEX      select and focus a list row
//   clickrow ID INDEX       click a list row with the mouse
//   key ID VK               press and release a key in a control (ID 0: the target)
//   keyup ID VK             release only
//   sysclose                the close box of the target (WM_SYSCOMMAND SC_CLOSE)
//   move L T W H            move and size the target
//   minimize                the minimise box of the target
//   drop PATH               drop a file or folder on the target
//   sync                    wait until the target's thread has handled what was posted
//   sleep MS
//   waittext ID TEXT MS     poll until the control's text is TEXT
//   waitcell ID ROW COL TEXT MS   poll until a list cell reads TEXT
//   waitstate ID STATE MS   poll until "state ID" prints STATE
//   rect                    print the target's outer rectangle: left top right bottom
//   screen                  print the screen size
//   focus                   print the id of the control that has the keyboard focus
//   box TITLE MS [ID]       print a message box's text and press OK (or button ID)
//   nobox TITLE MS          fail if a window titled TITLE shows up within MS
//   layout                  check the target's controls: no two overlap (frames
//                           aside), every text fits its control; print problems
#include <windows.h>

#include <commctrl.h>
#include <shlobj.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

HWND gTarget = nullptr;

struct FindRequest {
  const char* className;
  std::string title;
  bool prefix;
  HWND found;
};

BOOL CALLBACK matchWindow(HWND window, LPARAM param) {
  auto* request = reinterpret_cast<FindRequest*>(param);
  if (!IsWindowVisible(window)) return TRUE;
  char className[256] = {};
  char title[512] = {};
  GetClassNameA(window, className, sizeof className);
  GetWindowTextA(window, title, sizeof title);
  if (request->className != nullptr && std::strcmp(className, request->className) != 0) return TRUE;
  bool match = request->prefix ? std::strncmp(title, request->title.c_str(), request->title.size()) == 0
                               : request->title == title;
  if (!match) return TRUE;
  request->found = window;
  return FALSE;
}

HWND findWindow(const char* className, const std::string& title, bool prefix) {
  FindRequest request{className, title, prefix, nullptr};
  EnumWindows(&matchWindow, reinterpret_cast<LPARAM>(&request));
  return request.found;
}

HWND waitForWindow(const char* className, const std::string& title, bool prefix, DWORD timeoutMs) {
  for (DWORD waited = 0;; waited += 50) {
    HWND window = findWindow(className, title, prefix);
    if (window != nullptr) return window;
    if (waited >= timeoutMs) return nullptr;
    Sleep(50);
  }
}

BOOL CALLBACK printWindow(HWND window, LPARAM) {
  char className[256] = {};
  char title[256] = {};
  GetClassNameA(window, className, sizeof className);
  GetWindowTextA(window, title, sizeof title);
  std::fprintf(stderr, "window class='%s' title='%s' visible=%d\n", className, title, IsWindowVisible(window) ? 1 : 0);
  return TRUE;
}

std::string textOf(HWND window) {
  char buffer[65536] = {};
  SendMessageTimeoutA(window, WM_GETTEXT, sizeof buffer, reinterpret_cast<LPARAM>(buffer), SMTO_BLOCK, 5000, nullptr);
  return buffer;
}

bool sync(HWND window) {
  DWORD_PTR result = 0;
  return SendMessageTimeoutA(window, WM_NULL, 0, 0, SMTO_BLOCK, 10000, &result) != 0;
}

// Memory in the target's process, for list-view messages that carry pointers.
class RemoteBuffer {
 public:
  RemoteBuffer(HWND window, size_t size) : size_(size) {
    DWORD pid = 0;
    GetWindowThreadProcessId(window, &pid);
    process_ = OpenProcess(PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE, FALSE, pid);
    if (process_ != nullptr) address_ = VirtualAllocEx(process_, nullptr, size, MEM_COMMIT, PAGE_READWRITE);
  }
  ~RemoteBuffer() {
    if (address_ != nullptr) VirtualFreeEx(process_, address_, 0, MEM_RELEASE);
    if (process_ != nullptr) CloseHandle(process_);
  }
  RemoteBuffer(const RemoteBuffer&) = delete;
  RemoteBuffer& operator=(const RemoteBuffer&) = delete;
  bool ok() const { return address_ != nullptr; }
  char* at(size_t offset) const { return static_cast<char*>(address_) + offset; }
  bool write(size_t offset, const void* data, size_t length) {
    return WriteProcessMemory(process_, at(offset), data, length, nullptr) != 0;
  }
  bool read(size_t offset, void* data, size_t length) {
    return ReadProcessMemory(process_, at(offset), data, length, nullptr) != 0;
  }

 private:
  HANDLE process_ = nullptr;
  void* address_ = nullptr;
  size_t size_;
};

constexpr size_t kTextOffset = 512;
constexpr size_t kTextSize = 1024;

std::string cellText(HWND list, int row, int column) {
  RemoteBuffer remote(list, kTextOffset + kTextSize);
  if (!remote.ok()) return "?";
  LVITEMA item{};
  item.iSubItem = column;
  item.pszText = remote.at(kTextOffset);
  item.cchTextMax = static_cast<int>(kTextSize);
  remote.write(0, &item, sizeof item);
  SendMessageA(list, LVM_GETITEMTEXTA, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(remote.at(0)));
  char text[kTextSize] = {};
  remote.read(kTextOffset, text, kTextSize - 1);
  return text;
}

int imageOf(HWND list, int row) {
  RemoteBuffer remote(list, sizeof(LVITEMA));
  if (!remote.ok()) return -1;
  LVITEMA item{};
  item.mask = LVIF_IMAGE;
  item.iItem = row;
  remote.write(0, &item, sizeof item);
  SendMessageA(list, LVM_GETITEMA, 0, reinterpret_cast<LPARAM>(remote.at(0)));
  remote.read(0, &item, sizeof item);
  return item.iImage;
}

int columnCount(HWND list) {
  HWND header = reinterpret_cast<HWND>(SendMessageA(list, LVM_GETHEADER, 0, 0));
  return header != nullptr ? static_cast<int>(SendMessageA(header, HDM_GETITEMCOUNT, 0, 0)) : 1;
}

std::string rowLine(HWND list, int row) {
  UINT state = static_cast<UINT>(SendMessageA(list, LVM_GETITEMSTATE, row, LVIS_STATEIMAGEMASK | LVIS_SELECTED));
  char head[64];
  std::snprintf(head, sizeof head, "%d\t%u\t%d\t%d", row, (state & LVIS_STATEIMAGEMASK) >> 12, imageOf(list, row),
                (state & LVIS_SELECTED) != 0 ? 1 : 0);
  std::string line = head;
  for (int column = 0, count = columnCount(list); column < count; ++column) line += "\t" + cellText(list, row, column);
  return line;
}

std::string stateLine(HWND control) {
  LONG style = GetWindowLongA(control, GWL_STYLE);
  char className[64] = {};
  GetClassNameA(control, className, sizeof className);
  int checked = 0;
  if (_stricmp(className, "Button") == 0) checked = SendMessageA(control, BM_GETCHECK, 0, 0) == BST_CHECKED ? 1 : 0;
  int readOnly = _stricmp(className, "Edit") == 0 && (style & ES_READONLY) != 0 ? 1 : 0;
  char line[128];
  std::snprintf(line, sizeof line, "enabled=%d checked=%d readonly=%d visible=%d", IsWindowEnabled(control) ? 1 : 0,
                checked, readOnly, IsWindowVisible(control) ? 1 : 0);
  return line;
}

bool itemRect(HWND list, int row, RECT& rect) {
  RemoteBuffer remote(list, sizeof(RECT));
  if (!remote.ok()) return false;
  RECT request{};
  request.left = LVIR_LABEL;
  remote.write(0, &request, sizeof request);
  if (SendMessageA(list, LVM_GETITEMRECT, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(remote.at(0))) == 0)
    return false;
  return remote.read(0, &rect, sizeof rect);
}

struct Control {
  HWND window;
  int id;
  std::string className;
  std::string text;
  RECT rect;  // in the parent's client coordinates
};

BOOL CALLBACK collectChild(HWND window, LPARAM param) {
  auto* controls = reinterpret_cast<std::vector<Control>*>(param);
  if (GetParent(window) != gTarget) return TRUE;
  Control control{window, GetDlgCtrlID(window), "", "", {}};
  char className[64] = {};
  GetClassNameA(window, className, sizeof className);
  control.className = className;
  control.text = textOf(window);
  GetWindowRect(window, &control.rect);
  MapWindowPoints(nullptr, gTarget, reinterpret_cast<POINT*>(&control.rect), 2);
  controls->push_back(control);
  return TRUE;
}

bool isFrame(const Control& control) {
  LONG style = GetWindowLongA(control.window, GWL_STYLE);
  return _stricmp(control.className.c_str(), "Button") == 0 && (style & 0x0F) == BS_GROUPBOX;
}

// The dialogs' font as the system renders it at this resolution.
HFONT dialogFont() {
  HDC screen = GetDC(nullptr);
  int height = -MulDiv(8, GetDeviceCaps(screen, LOGPIXELSY), 72);
  ReleaseDC(nullptr, screen);
  return CreateFontA(height, 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET, OUT_DEFAULT_PRECIS,
                     CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY, DEFAULT_PITCH, "MS Sans Serif");
}

// What a control really covers: the text of a one-line static or a check
// box reaches only as far as its text; other controls fill their window.
RECT inkRect(const Control& c, HDC dc) {
  RECT ink = c.rect;
  LONG style = GetWindowLongA(c.window, GWL_STYLE);
  bool isStatic = _stricmp(c.className.c_str(), "Static") == 0;
  bool isCheck = _stricmp(c.className.c_str(), "Button") == 0 &&
                 ((style & 0x0F) == BS_AUTOCHECKBOX || (style & 0x0F) == BS_CHECKBOX);
  if ((!isStatic && !isCheck) || c.text.empty() || c.rect.bottom - c.rect.top > 20) return ink;
  SIZE size{};
  GetTextExtentPoint32A(dc, c.text.c_str(), static_cast<int>(c.text.size()), &size);
  LONG width = size.cx + (isCheck ? GetSystemMetrics(SM_CXMENUCHECK) + 4 : 0);
  if (width >= ink.right - ink.left) return ink;
  if (isStatic && (style & SS_TYPEMASK) == SS_CENTER) {
    LONG middle = (ink.left + ink.right) / 2;
    ink.left = middle - width / 2;
    ink.right = ink.left + width;
  } else if (isStatic && (style & SS_TYPEMASK) == SS_RIGHT) {
    ink.left = ink.right - width;
  } else {
    ink.right = ink.left + width;
  }
  return ink;
}

int checkLayout() {
  std::vector<Control> controls;
  EnumChildWindows(gTarget, &collectChild, reinterpret_cast<LPARAM>(&controls));
  int problems = 0;
  RECT client{};
  GetClientRect(gTarget, &client);
  HDC dc = GetDC(gTarget);
  HFONT font = reinterpret_cast<HFONT>(SendMessageA(gTarget, WM_GETFONT, 0, 0));
  HFONT own = nullptr;
  if (font == nullptr || GetObjectType(font) != OBJ_FONT) font = own = dialogFont();
  HGDIOBJ old = SelectObject(dc, font);
  for (size_t i = 0; i < controls.size(); ++i) {
    const Control& a = controls[i];
    if (!IsWindowVisible(a.window)) continue;
    if (a.rect.left < client.left || a.rect.top < client.top || a.rect.right > client.right ||
        a.rect.bottom > client.bottom) {
      std::printf("outside: %d '%s'\n", a.id, a.text.c_str());
      ++problems;
    }
    RECT inkA = inkRect(a, dc);
    for (size_t j = i + 1; j < controls.size(); ++j) {
      const Control& b = controls[j];
      if (!IsWindowVisible(b.window) || isFrame(a) || isFrame(b)) continue;
      RECT inkB = inkRect(b, dc);
      RECT overlap{};
      if (IntersectRect(&overlap, &inkA, &inkB)) {
        std::printf("overlap: %d '%s' and %d '%s'\n", a.id, a.text.c_str(), b.id, b.text.c_str());
        ++problems;
      }
    }
  }
  // Frames must hold what lies inside them whole.
  for (const Control& frame : controls) {
    if (!isFrame(frame)) continue;
    for (const Control& c : controls) {
      if (&c == &frame || isFrame(c)) continue;
      RECT overlap{};
      if (!IntersectRect(&overlap, &frame.rect, &c.rect)) continue;
      if (!EqualRect(&overlap, &c.rect)) {
        std::printf("across frame %d: %d '%s'\n", frame.id, c.id, c.text.c_str());
        ++problems;
      }
    }
  }
  for (const Control& c : controls) {
    if (c.text.empty() || !IsWindowVisible(c.window)) continue;
    bool isStatic = _stricmp(c.className.c_str(), "Static") == 0;
    bool isButton = _stricmp(c.className.c_str(), "Button") == 0;
    if (!isStatic && !isButton) continue;
    LONG style = GetWindowLongA(c.window, GWL_STYLE);
    LONG kind = style & 0x0F;
    int width = c.rect.right - c.rect.left;
    int room = width;
    if (isButton && (kind == BS_AUTOCHECKBOX || kind == BS_CHECKBOX || kind == BS_AUTORADIOBUTTON ||
                     kind == BS_RADIOBUTTON || kind == BS_3STATE || kind == BS_AUTO3STATE))
      room = width - GetSystemMetrics(SM_CXMENUCHECK) - 4;
    else if (isButton && kind != BS_GROUPBOX)
      room = width - 6;
    else if (isButton)
      room = width - 16;
    if (isStatic && c.rect.bottom - c.rect.top > 20) {
      // Several lines: the wrapped text must fit the height.
      RECT need{0, 0, width, 0};
      DrawTextA(dc, c.text.c_str(), -1, &need, DT_CALCRECT | DT_WORDBREAK);
      if (need.bottom > c.rect.bottom - c.rect.top) {
        std::printf("clipped: %d '%s' needs %ld px height, has %ld\n", c.id, c.text.c_str(), need.bottom,
                    c.rect.bottom - c.rect.top);
        ++problems;
      }
      continue;
    }
    SIZE size{};
    GetTextExtentPoint32A(dc, c.text.c_str(), static_cast<int>(c.text.size()), &size);
    if (size.cx > room) {
      std::printf("clipped: %d '%s' needs %ld px, has %d\n", c.id, c.text.c_str(), size.cx, room);
      ++problems;
    }
  }
  SelectObject(dc, old);
  if (own != nullptr) DeleteObject(own);
  ReleaseDC(gTarget, dc);
  std::printf("layout: %zu controls, %d problem(s)\n", controls.size(), problems);
  return problems == 0 ? 0 : 1;
}

int fail(const char* format, const std::string& a = "", const std::string& b = "") {
  std::fprintf(stderr, format, a.c_str(), b.c_str());
  std::fprintf(stderr, "\n");
  return 1;
}

HWND control(const std::string& id) {
  if (gTarget == nullptr) return nullptr;
  int number = std::atoi(id.c_str());
  return number == 0 ? gTarget : GetDlgItem(gTarget, number);
}

void postKey(HWND window, UINT message, WPARAM key) {
  UINT scan = MapVirtualKeyA(static_cast<UINT>(key), 0);
  LPARAM flags = 1 | (static_cast<LPARAM>(scan) << 16);
  if (message == WM_KEYUP) flags |= static_cast<LPARAM>(0xC0000000);
  PostMessageA(window, message, key, flags);
}

DWORD timeoutArg(const std::vector<std::string>& args, size_t index, DWORD fallback) {
  return args.size() > index ? static_cast<DWORD>(std::strtoul(args[index].c_str(), nullptr, 10)) : fallback;
}

// Runs one command; 0 on success.
int run(const std::vector<std::string>& a) {
  const std::string& name = a[0];
  auto need = [&](size_t count) { return a.size() >= count + 1; };
  auto controlOr = [&](size_t index, HWND& out) {
    out = control(a[index]);
    return out != nullptr;
  };
  HWND c = nullptr;
  if (name == "win" && need(1)) {
    gTarget = waitForWindow(nullptr, a[1], true, timeoutArg(a, 2, 30000));
    if (gTarget == nullptr) {
      EnumWindows(&printWindow, 0);
      return fail("no window titled '%s...'", a[1]);
    }
    return 0;
  }
  if (name == "dlg" && need(1)) {
    gTarget = waitForWindow("#32770", a[1], false, timeoutArg(a, 2, 30000));
    if (gTarget == nullptr) {
      EnumWindows(&printWindow, 0);
      return fail("no dialog titled '%s'", a[1]);
    }
    return 0;
  }
  if (name == "gone" && need(1)) {
    DWORD timeout = timeoutArg(a, 2, 30000);
    for (DWORD waited = 0; findWindow(nullptr, a[1], false) != nullptr; waited += 50) {
      if (waited >= timeout) return fail("window '%s' is still there", a[1]);
      Sleep(50);
    }
    return 0;
  }
  if (name == "box" && need(2)) {
    HWND box = waitForWindow("#32770", a[1], false, timeoutArg(a, 2, 30000));
    if (box == nullptr) {
      EnumWindows(&printWindow, 0);
      return fail("no message box titled '%s'", a[1]);
    }
    char text[4096] = {};
    GetDlgItemTextA(box, 0xFFFF, text, sizeof text);  // the box's message text
    std::printf("%s\n", text);
    std::fflush(stdout);
    int button = a.size() > 3 ? std::atoi(a[3].c_str()) : IDOK;
    PostMessageA(box, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED), 0);
    // The box is gone before the next command looks at its owner.
    for (int i = 0; i < 200 && IsWindow(box); ++i) Sleep(25);
    return 0;
  }
  if (name == "nobox" && need(2)) {
    HWND box = waitForWindow(nullptr, a[1], false, timeoutArg(a, 2, 1000));
    if (box != nullptr) {
      char text[4096] = {};
      GetDlgItemTextA(box, 0xFFFF, text, sizeof text);
      return fail("unexpected window '%s': %s", a[1], text);
    }
    return 0;
  }
  if (name == "sleep" && need(1)) {
    Sleep(timeoutArg(a, 1, 0));
    return 0;
  }
  if (name == "screen") {
    std::printf("%d %d\n", GetSystemMetrics(SM_CXSCREEN), GetSystemMetrics(SM_CYSCREEN));
    return 0;
  }
  if (gTarget == nullptr) return fail("no target window for '%s'", name);
  if (name == "sync") return sync(gTarget) ? 0 : fail("the window does not answer");
  if (name == "rect") {
    RECT r{};
    GetWindowRect(gTarget, &r);
    std::printf("%ld %ld %ld %ld\n", r.left, r.top, r.right, r.bottom);
    return 0;
  }
  if (name == "move" && a.size() >= 5) {
    SetWindowPos(gTarget, nullptr, std::atoi(a[1].c_str()), std::atoi(a[2].c_str()), std::atoi(a[3].c_str()),
                 std::atoi(a[4].c_str()), SWP_NOZORDER | SWP_NOACTIVATE);
    return sync(gTarget) ? 0 : fail("the window does not answer");
  }
  if (name == "drop" && need(1)) {
    // A drop handle in the program's own memory: a fixed block is its own
    // handle, so the shell's query calls read it where it lies.
    std::vector<char> block(sizeof(DROPFILES) + a[1].size() + 2, '\0');
    DROPFILES header{};
    header.pFiles = sizeof(DROPFILES);
    header.fWide = FALSE;
    std::memcpy(block.data(), &header, sizeof header);
    std::memcpy(block.data() + sizeof header, a[1].c_str(), a[1].size());
    RemoteBuffer remote(gTarget, block.size());
    if (!remote.ok() || !remote.write(0, block.data(), block.size())) return fail("cannot reach the window's process");
    // Sent, so that the block outlives the message's handling.
    DWORD_PTR result = 0;
    if (!SendMessageTimeoutA(gTarget, WM_DROPFILES, reinterpret_cast<WPARAM>(remote.at(0)), 0, SMTO_BLOCK, 10000,
                             &result))
      return fail("the window does not answer");
    return 0;
  }
  if (name == "minimize") {
    PostMessageA(gTarget, WM_SYSCOMMAND, SC_MINIMIZE, 0);
    return sync(gTarget) ? 0 : fail("the window does not answer");
  }
  if (name == "sysclose") {
    PostMessageA(gTarget, WM_SYSCOMMAND, SC_CLOSE, 0);
    return 0;
  }
  if (name == "layout") return checkLayout();
  if (name == "focus") {
    GUITHREADINFO info{};
    info.cbSize = sizeof info;
    DWORD thread = GetWindowThreadProcessId(gTarget, nullptr);
    if (!GetGUIThreadInfo(thread, &info)) return fail("no thread information");
    std::printf("%d\n", info.hwndFocus != nullptr ? GetDlgCtrlID(info.hwndFocus) : 0);
    return 0;
  }
  if (!need(1)) return fail("'%s' needs arguments", name);
  if (!controlOr(1, c)) return fail("no control %s", a[1]);
  if (name == "text") {
    std::printf("%s\n", textOf(c).c_str());
    return 0;
  }
  if (name == "settext" && need(2)) {
    SendMessageTimeoutA(c, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(a[2].c_str()), SMTO_BLOCK, 5000, nullptr);
    return 0;
  }
  if (name == "state") {
    std::printf("%s\n", stateLine(c).c_str());
    return 0;
  }
  if (name == "click") {
    if (!IsWindowEnabled(c)) return fail("control %s is disabled", a[1]);
    PostMessageA(c, BM_CLICK, 0, 0);
    return 0;
  }
  if (name == "command") {
    WORD code = a.size() > 2 ? static_cast<WORD>(std::atoi(a[2].c_str())) : 0;
    PostMessageA(gTarget, WM_COMMAND, MAKEWPARAM(std::atoi(a[1].c_str()), code), reinterpret_cast<LPARAM>(c));
    return 0;
  }
  if (name == "progress") {
    std::printf("%d\n", static_cast<int>(SendMessageA(c, PBM_GETPOS, 0, 0)));
    return 0;
  }
  if (name == "combo") {
    LRESULT count = SendMessageA(c, CB_GETCOUNT, 0, 0);
    LRESULT selected = SendMessageA(c, CB_GETCURSEL, 0, 0);
    for (LRESULT i = 0; i < count; ++i) {
      // The wide form: Wine carries it between processes whole.
      wchar_t wide[1024] = {};
      char item[1024] = {};
      if (SendMessageW(c, CB_GETLBTEXTLEN, i, 0) < 1024) {
        SendMessageW(c, CB_GETLBTEXT, i, reinterpret_cast<LPARAM>(wide));
        WideCharToMultiByte(CP_ACP, 0, wide, -1, item, sizeof item, nullptr, nullptr);
      }
      std::printf("%s%s\n", i == selected ? "* " : "  ", item);
    }
    return 0;
  }
  if (name == "choose" && need(2)) {
    LRESULT index = SendMessageA(c, CB_FINDSTRINGEXACT, static_cast<WPARAM>(-1), reinterpret_cast<LPARAM>(a[2].c_str()));
    if (index == CB_ERR) return fail("no item '%s' in combo %s", a[2], a[1]);
    SendMessageA(c, CB_SETCURSEL, static_cast<WPARAM>(index), 0);
    PostMessageA(gTarget, WM_COMMAND, MAKEWPARAM(GetDlgCtrlID(c), CBN_SELCHANGE), reinterpret_cast<LPARAM>(c));
    return 0;
  }
  if (name == "rows") {
    LRESULT count = SendMessageA(c, LVM_GETITEMCOUNT, 0, 0);
    for (int row = 0; row < count; ++row) std::printf("%s\n", rowLine(c, row).c_str());
    return 0;
  }
  if (name == "selectrow" && need(2)) {
    RemoteBuffer remote(c, sizeof(LVITEMA));
    if (!remote.ok()) return fail("cannot reach the list's process");
    LVITEMA item{};
    item.stateMask = LVIS_SELECTED | LVIS_FOCUSED;
    item.state = LVIS_SELECTED | LVIS_FOCUSED;
    remote.write(0, &item, sizeof item);
    SendMessageA(c, LVM_SETITEMSTATE, static_cast<WPARAM>(std::atoi(a[2].c_str())),
                 reinterpret_cast<LPARAM>(remote.at(0)));
    return 0;
  }
  if (name == "clickrow" && need(2)) {
    RECT r{};
    if (!itemRect(c, std::atoi(a[2].c_str()), r)) return fail("no row %s in list %s", a[2], a[1]);
    LPARAM point = MAKELPARAM(r.left + 4, (r.top + r.bottom) / 2);
    PostMessageA(c, WM_LBUTTONDOWN, MK_LBUTTON, point);
    PostMessageA(c, WM_LBUTTONUP, 0, point);
    return 0;
  }
  if ((name == "key" || name == "keyup") && need(2)) {
    WPARAM key = static_cast<WPARAM>(std::strtoul(a[2].c_str(), nullptr, 0));
    if (name == "key") postKey(c, WM_KEYDOWN, key);
    postKey(c, WM_KEYUP, key);
    return 0;
  }
  if (name == "waittext" && need(3)) {
    DWORD timeout = timeoutArg(a, 3, 10000);
    std::string last;
    for (DWORD waited = 0;; waited += 100) {
      last = textOf(c);
      if (last == a[2]) return 0;
      if (waited >= timeout) return fail("control text is '%s', not '%s'", last, a[2]);
      Sleep(100);
    }
  }
  if (name == "waitstate" && need(3)) {
    DWORD timeout = timeoutArg(a, 3, 10000);
    std::string last;
    for (DWORD waited = 0;; waited += 100) {
      last = stateLine(c);
      if (last == a[2]) return 0;
      if (waited >= timeout) return fail("control state is '%s', not '%s'", last, a[2]);
      Sleep(100);
    }
  }
  if (name == "waitcell" && need(5)) {
    DWORD timeout = timeoutArg(a, 5, 10000);
    int row = std::atoi(a[2].c_str());
    int column = std::atoi(a[3].c_str());
    std::string last;
    for (DWORD waited = 0;; waited += 100) {
      if (row < SendMessageA(c, LVM_GETITEMCOUNT, 0, 0)) {
        last = cellText(c, row, column);
        if (last == a[4]) return 0;
      }
      if (waited >= timeout) return fail("the cell reads '%s', not '%s'", last, a[4]);
      Sleep(100);
    }
  }
  return fail("unknown or incomplete command '%s'", name);
}

}  // namespace

int main(int argc, char** argv) {
  // Texts go out byte for byte: a CR LF in a control stays CR LF.
  _setmode(_fileno(stdout), _O_BINARY);
  std::vector<std::string> args(argv + 1, argv + argc);
  // "-o FILE": print there (a program started on a Wine virtual desktop has
  // no standard output of its own).
  if (args.size() >= 2 && args[0] == "-o") {
    if (std::freopen(args[1].c_str(), "wb", stdout) == nullptr) return fail("cannot write '%s'", args[1]);
    args.erase(args.begin(), args.begin() + 2);
  }
  // The short forms kept for the older scripts.
  if (args.size() == 3 && (args[0] == "close")) {
    HWND window = waitForWindow(nullptr, args[1], false, static_cast<DWORD>(std::strtoul(args[2].c_str(), nullptr, 10)));
    if (window == nullptr) return fail("no window titled '%s'", args[1]);
    PostMessageA(window, WM_CLOSE, 0, 0);
    return 0;
  }
  if (args.size() == 3 && (args[0] == "keyup" || args[0] == "keydown")) {
    HWND window = waitForWindow(nullptr, args[1], true, 10000);
    HWND target = window != nullptr ? GetDlgItem(window, std::atoi(args[2].c_str())) : nullptr;
    if (target == nullptr) return fail("no control %s in '%s'", args[2], args[1]);
    postKey(target, args[0] == "keyup" ? WM_KEYUP : WM_KEYDOWN, VK_RETURN);
    return 0;
  }
  if (args.empty()) {
    std::fprintf(stderr, "usage: guiprobe COMMAND ARGS [-- COMMAND ARGS ...] (see the source)\n");
    return 2;
  }
  std::vector<std::string> command;
  for (size_t i = 0; i <= args.size(); ++i) {
    if (i == args.size() || args[i] == "--") {
      if (command.empty()) continue;
      int result = run(command);
      std::fflush(stdout);
      if (result != 0) return result;
      command.clear();
      continue;
    }
    command.push_back(args[i]);
  }
  return 0;
}

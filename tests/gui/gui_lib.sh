# Sourced by the window tests. Expects $probe (guiprobe.exe) and $work (a
# scratch directory) to be set, and a display (the caller re-runs itself
# under xvfb-run when there is none).
#   drive ARGS...          run the driver; its stdout is printed
#   drive_ok ARGS...       run it and fail the test when it fails
#   expect_eq WHAT GOT WANT
#   shot NAME TITLE        save the window titled TITLE (prefix) as NAME.png
#                          in $shots (when set), cut out of a screen capture
#   wine_title_bars        let Wine draw captions itself (no window manager)

drive() { wine "$probe" "$@" 2>> "$work/probe.err" | tr -d '\r'; return "${PIPESTATUS[0]}"; }

drive_ok() {
  local out
  out=$(drive "$@") || fail "driver failed: $* ($(tail -3 "$work/probe.err"))"
  [ -n "$out" ] && printf '%s\n' "$out"
  return 0
}

expect_eq() {
  [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"
}

wine_title_bars() {
  wine reg add 'HKCU\Software\Wine\X11 Driver' /v Decorated /d N /f > /dev/null 2>&1
}

shot() {
  [ -n "${shots:-}" ] || return 0
  command -v import > /dev/null || return 0
  mkdir -p "$shots"
  local rect
  # Let the window paint before the capture.
  rect=$(drive win "$2" 5000 -- sync -- sleep 700 -- sync -- rect) || return 0
  read -r left top right bottom <<< "$rect"
  [ "$left" -lt 0 ] && left=0
  [ "$top" -lt 0 ] && top=0
  import -window root "$work/screen.png" 2> /dev/null || return 0
  convert "$work/screen.png" -crop "$((right - left))x$((bottom - top))+$left+$top" +repage "$shots/$1.png"
  echo "screenshot: $shots/$1.png"
}

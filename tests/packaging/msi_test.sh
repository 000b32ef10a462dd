#!/usr/bin/env bash
# The Windows installer under Wine, as an administrator would use it:
# `msiexec /i ... /qn` puts the programs into Program Files\Tarnlift with a
# Start menu shortcut and an entry in the installed programs; the installed
# tarnlift-cli.exe runs; a newer installer (the same one rebuilt with a higher
# version) replaces it, leaving one entry; `msiexec /x ... /qn` removes
# everything it installed.
# usage: msi_test.sh MSI WXS      (a fresh WINEPREFIX of its own; exit 0 pass)
set -uo pipefail
msi=$(realpath "$1") wxs=$(realpath "$2")
command -v wine > /dev/null || { echo "SKIP: no wine"; exit 77; }
command -v wixl > /dev/null || { echo "SKIP: no wixl"; exit 77; }
USER=${USER:-$(id -un)}
work=$(mktemp -d /tmp/tl-msi-XXXXXX)
export WINEPREFIX=$work/prefix WINEDEBUG=-all
trap 'wineserver -k 2> /dev/null; rm -rf "$work"' EXIT
status=0
fail() { echo "FAIL: $*"; status=1; }
ok() { echo "ok: $*"; }
wineboot -i > /dev/null 2>&1
folder="$WINEPREFIX/drive_c/Program Files/Tarnlift"
# The package asks for the all-users Start menu (ALLUSERS=1); Wine's installer
# files per-machine shortcuts under the installing user's Start menu instead.
shortcuts=("$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Tarnlift.lnk"
  "$WINEPREFIX/drive_c/users/$USER/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Tarnlift.lnk")
shortcut_exists() { [ -f "${shortcuts[0]}" ] || [ -f "${shortcuts[1]}" ]; }
uninstall_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
entries() { wine reg query "$uninstall_key" /s 2> /dev/null | tr -d '\r' | grep -c "DisplayName.*Tarnlift$"; }
display_version() {
  wine reg query "$uninstall_key" /s 2> /dev/null | tr -d '\r' |
    awk '/DisplayName.*Tarnlift$/ { found = 1 } found && /DisplayVersion/ { print $NF; exit }'
}
win_path() { echo "Z:${1//\//\\}"; }

echo "== $(basename "$msi") ($(stat -c %s "$msi") bytes)"
timeout 300 wine msiexec /i "$(win_path "$msi")" /qn /l*v "$(win_path "$work/install.log")"
rc=$?
[ $rc = 0 ] && ok "msiexec /i exit 0" || fail "msiexec /i exit $rc"
grep -a -E "Installation (success|operation completed)|Product: Tarnlift" "$work/install.log" | tr -d '\r\0' | tail -3
for file in tarnlift.exe tarnlift-cli.exe README.txt LICENSE.txt bootimages/README.txt; do
  [ -f "$folder/$file" ] && ok "installed $file" || fail "not installed: $file"
done
shortcut_exists && ok "Start menu shortcut" || fail "no Start menu shortcut (${shortcuts[*]})"
grep -q "ALLUSERS.*1" < <(msiinfo export "$msi" Property 2> /dev/null) && ok "installed per machine (ALLUSERS=1)" ||
  fail "not a per-machine package"
version=$(cd "$folder" && timeout 120 wine ./tarnlift-cli.exe version 2> /dev/null | tr -d '\r')
[[ $version =~ ^[0-9]+\.[0-9]+ ]] && ok "installed tarnlift-cli.exe version: $version" || fail "version: '$version'"
want=$(sed -n 's/.*Product Id="\*" Name="Tarnlift" Language="1033" Version="\([0-9.]*\)".*/\1/p' "$wxs")
[ "$(entries)" = 1 ] && ok "one entry in the installed programs" || fail "$(entries) entries in the installed programs"
[ "$(display_version)" = "$want" ] && ok "installed programs show version $want" ||
  fail "installed programs show '$(display_version)', not $want"

# A newer installer replaces the older one.
IFS=. read -r major minor build <<< "$want"
newer="$major.$minor.$((build + 1))"
sed "s/Version=\"$want\"/Version=\"$newer\"/" "$wxs" > "$(dirname "$wxs")/tarnlift-newer.wxs"
(cd "$(dirname "$wxs")" && wixl -a x64 -o "$work/newer.msi" tarnlift-newer.wxs 2> "$work/wixl.err") ||
  fail "wixl newer: $(cat "$work/wixl.err")"
rm -f "$(dirname "$wxs")/tarnlift-newer.wxs"
timeout 300 wine msiexec /i "$(win_path "$work/newer.msi")" /qn /l*v "$(win_path "$work/upgrade.log")"
rc=$?
[ $rc = 0 ] && ok "newer msiexec /i exit 0" || fail "newer msiexec /i exit $rc"
[ "$(entries)" = 1 ] && ok "one entry after the upgrade" || fail "$(entries) entries after the upgrade"
[ "$(display_version)" = "$newer" ] && ok "installed programs show $newer" || fail "after upgrade: '$(display_version)'"
[ -f "$folder/tarnlift.exe" ] && ok "programs still there after the upgrade" || fail "upgrade removed the program"

# Uninstall: nothing of it is left.
timeout 300 wine msiexec /x "$(win_path "$work/newer.msi")" /qn /l*v "$(win_path "$work/uninstall.log")"
rc=$?
[ $rc = 0 ] && ok "msiexec /x exit 0" || fail "msiexec /x exit $rc"
grep -a -E "Removal (success|completed)|Product: Tarnlift" "$work/uninstall.log" | tr -d '\r\0' | tail -3
[ ! -e "$folder" ] && ok "Program Files\\Tarnlift removed" || fail "left behind: $(ls -R "$folder" 2> /dev/null | tr '\n' ' ')"
! shortcut_exists && ok "shortcut removed" || fail "shortcut left behind"
[ "$(entries)" = 0 ] && ok "no entry in the installed programs" || fail "$(entries) entries left"
[ $status = 0 ] && echo "PASS" || echo "FAILED"
exit $status

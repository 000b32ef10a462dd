#!/usr/bin/env bash
# Checks the two packages that scripts/package.sh made:
#  - the Debian package: its file list, lintian (only the tags explained in
#    docs/packaging.md may remain), then, as root, installed with apt-get,
#    `tarnlift version`, `man -w tarnlift`, `tarnlift bootimage list`, a UEFI
#    PC in QEMU netbooting from the installed `tarnlift netboot` (the
#    placeholder's message on its console), and removed again;
#  - the Windows zip: its exact file list, Windows line endings of its texts,
#    and `tarnlift-cli.exe version` and `bootimage list` from the unpacked zip
#    under Wine;
#  - the Windows installer: installed, upgraded and removed under Wine
#    (msi_test.sh).
# usage: check_packages.sh DIST_DIR     (exit 0 pass, 1 fail)
set -uo pipefail
dist=${1:?usage: check_packages.sh DIST_DIR}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/tl-packages-XXXXXX)
installed_by_us=0
cleanup() {
  if [ "$installed_by_us" = 1 ]; then
    apt-get remove -y -o DPkg::Lock::Timeout=600 tarnlift > /dev/null 2>&1
  fi
  [ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX" ] && { wineserver -k 2> /dev/null; rm -rf "$WINEPREFIX"; }
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
status=0
fail() { echo "FAIL: $*"; status=1; }
ok() { echo "ok: $*"; }

shopt -s nullglob
debs=("$dist"/tarnlift_*_amd64.deb)
zips=("$dist"/tarnlift-*-win64.zip)
[ ${#debs[@]} = 1 ] || { echo "FAIL: want one .deb in $dist, found ${#debs[@]}"; exit 1; }
[ ${#zips[@]} = 1 ] || { echo "FAIL: want one zip in $dist, found ${#zips[@]}"; exit 1; }
deb=$(realpath "${debs[0]}")
zip=$(realpath "${zips[0]}")

# ---- Debian package ---------------------------------------------------------
echo "== $(basename "$deb") ($(stat -c %s "$deb") bytes)"
dpkg-deb -c "$deb" | awk '{print $3, $6}' | sed 's| \./| /|' > "$work/deb.list"
cat "$work/deb.list"
for path in /usr/bin/tarnlift /usr/share/man/man1/tarnlift.1.gz /usr/share/bash-completion/completions/tarnlift \
  /usr/share/doc/tarnlift/copyright /usr/share/doc/tarnlift/changelog.Debian.gz /usr/share/doc/tarnlift/README.md \
  /usr/share/doc/tarnlift/netboot.md /usr/lib/systemd/system/tarnlift.service \
  /usr/lib/systemd/system/tarnlift@.service /usr/share/doc/tarnlift/examples/tarnlift.conf /usr/share/tarnlift/bootimages/129.bin \
  /usr/share/tarnlift/bootimages/143.bin; do
  grep -q " $path\$" "$work/deb.list" && ok "deb has $path" || fail "deb lacks $path"
done
# Nothing of the test tools: only the one program is in bin.
extra=$(grep -E ' /usr/(s?bin|lib|libexec)/.' "$work/deb.list" | grep -v ' /usr/bin/tarnlift$' | grep -Ev ' /usr/lib/systemd(/system)?/?(tarnlift@?.service)?$')
[ -z "$extra" ] && ok "no other programs" || fail "unexpected programs: $extra"
depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *libc6* && $depends == *libstdc++6* && $depends == *dosfstools* && $depends == *mtools* ]] && ok "Depends: $depends" || fail "Depends: '$depends'"

if command -v lintian > /dev/null; then
  # Tags explained in docs/packaging.md; anything else fails.
  explained='initial-upload-closes-no-bugs'
  lintian --allow-root "$deb" > "$work/lintian.out" 2>&1
  cat "$work/lintian.out"
  unexplained=$(grep -E '^[EW]: ' "$work/lintian.out" | grep -Ev ": ($explained)( |$)")
  [ -z "$unexplained" ] && ok "lintian: no unexplained errors or warnings" || fail "lintian: $unexplained"
else
  echo "skip: no lintian"
fi

if [ "$(id -u)" != 0 ] || ! command -v apt-get > /dev/null; then
  echo "skip: installing the .deb needs root and apt-get"
elif dpkg-query -W -f='${Status}' tarnlift 2> /dev/null | grep -q "install ok installed"; then
  echo "skip: a tarnlift package is installed already; not touching it"
else
  installed_by_us=1
  if apt-get install -y -o DPkg::Lock::Timeout=600 "$deb" > "$work/apt.out" 2>&1; then
    ok "apt-get install ./$(basename "$deb")"
    out=$(/usr/bin/tarnlift version 2>&1) && [[ $out == [0-9]* ]] && ok "tarnlift version: $out" ||
      fail "tarnlift version: $out"
    out=$(man -w tarnlift 2>&1) && [ "$out" = /usr/share/man/man1/tarnlift.1.gz ] && ok "man -w tarnlift: $out" ||
      fail "man -w tarnlift: $out"
    # Rendering the page must not warn (a broken macro shows up here).
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l /usr/share/man/man1/tarnlift.1.gz 2>&1 > /dev/null)
    [ -z "$warnings" ] && ok "man page renders cleanly" || fail "man page warnings: $warnings"
    out=$(cd / && HOME=$work XDG_DATA_HOME= /usr/bin/tarnlift bootimage list 2>&1)
    echo "$out"
    grep -q "^  /usr/share/tarnlift/bootimages$" <<< "$out" && ok "system folder searched" ||
      fail "bootimage list does not search /usr/share/tarnlift/bootimages"
    grep -qE "^  143	[0-9]+ bytes	/usr/share/tarnlift/bootimages	placeholder" <<< "$out" &&
      ok "143 is the installed placeholder" || fail "no placeholder 143 in the list"
    grep -q "^missing: 126 127 128 142 120 132 124 134$" <<< "$out" && ok "missing records listed" ||
      fail "missing line"
    # A UEFI PC (QEMU with OVMF) netboots from the installed program with the
    # default records and shows the placeholder's message on its console.
    harness=$here/../lib/ovmf_pxe.sh
    if [ -f "$harness" ]; then
      bash "$harness" -t 150 -c "$work/pxe-console.log" \
        "The real boot image of the router system must be supplied as record 143" \
        /usr/bin/tarnlift netboot --client-address 192.168.88.1 > "$work/pxe.out" 2>&1
      case $? in
        0) ok "OVMF PXE boot from the installed tarnlift netboot: $(grep '^ovmf_pxe:' "$work/pxe.out")" ;;
        77) echo "skip: OVMF PXE boot: $(tail -1 "$work/pxe.out")" ;;
        *) cat "$work/pxe.out"; fail "OVMF PXE boot did not show the placeholder's message" ;;
      esac
    else
      echo "skip: no OVMF PXE harness (tests/lib/ovmf_pxe.sh) in this tree"
    fi
  else
    cat "$work/apt.out"
    fail "apt-get install failed"
  fi
  if apt-get remove -y -o DPkg::Lock::Timeout=600 tarnlift > "$work/apt.out" 2>&1; then
    installed_by_us=0
    [ ! -e /usr/bin/tarnlift ] && [ ! -e /usr/share/tarnlift/bootimages/143.bin ] && ok "removed again" ||
      fail "files left after removal"
  else
    cat "$work/apt.out"
    fail "apt-get remove failed"
  fi
fi

# ---- Windows zip -------------------------------------------------------------
echo "== $(basename "$zip") ($(stat -c %s "$zip") bytes)"
unzip -l "$zip"
top=$(basename "$zip" .zip)
unzip -Z1 "$zip" | sort > "$work/zip.list"
printf '%s\n' "$top/LICENSE.txt" "$top/README.txt" "$top/bootimages/" "$top/bootimages/README.txt" \
  "$top/tarnlift-cli.exe" "$top/tarnlift.exe" | sort > "$work/zip.want"
diff "$work/zip.want" "$work/zip.list" > /dev/null && ok "zip holds exactly the expected files" ||
  fail "zip contents differ: $(diff "$work/zip.want" "$work/zip.list" | tr '\n' ' ')"
mkdir "$work/unzipped"
unzip -q "$zip" -d "$work/unzipped" || fail "unzip"
root=$work/unzipped/$top
for text in README.txt LICENSE.txt bootimages/README.txt; do
  # Every line ends in CR LF.
  if [ -s "$root/$text" ] && ! grep -q $'[^\r]$' "$root/$text" && ! grep -q '^$' "$root/$text"; then
    ok "$text has Windows line endings"
  else
    fail "$text is missing or not in Windows line endings"
  fi
done
for exe in tarnlift.exe tarnlift-cli.exe; do
  [ "$(head -c 2 "$root/$exe" 2> /dev/null)" = MZ ] && ok "$exe is a Windows program" || fail "$exe"
done
if command -v wine > /dev/null; then
  export WINEPREFIX=$work/wineprefix WINEDEBUG=-all
  out=$(cd "$root" && timeout 120 wine ./tarnlift-cli.exe version 2> "$work/wine.err" | tr -d '\r')
  [[ $out == [0-9]* ]] && ok "tarnlift-cli.exe version under Wine: $out" ||
    fail "tarnlift-cli.exe version: '$out' $(tail -3 "$work/wine.err")"
  out=$(cd "$root" && timeout 120 wine ./tarnlift-cli.exe bootimage list 2> "$work/wine.err" | tr -d '\r')
  echo "$out"
  grep -qE '^  [A-Z]:.*\\bootimages$' <<< "$out" && ok "the bootimages folder beside the program is searched" ||
    fail "bootimage list under Wine does not show the folder beside the program"
  grep -qE "^  143	[0-9]+ bytes	placeholder built into the program" <<< "$out" && ok "143 is the built-in placeholder" ||
    fail "no built-in placeholder in the list"
else
  echo "skip: no wine"
fi

# ---- Windows installer ---------------------------------------------------------
msis=("$dist"/tarnlift-*-win64.msi)
if [ ${#msis[@]} != 1 ]; then
  fail "want one .msi in $dist, found ${#msis[@]}"
elif command -v wine > /dev/null; then
  # Its own Wine prefix: installing touches the prefix's registry and folders.
  (unset WINEPREFIX; bash "$here/msi_test.sh" "${msis[0]}" "$here/../../build/windows/packaging/tarnlift.wxs") ||
    fail "the Windows installer"
fi

[ $status = 0 ] && echo "PASS" || echo "FAILED"
exit $status

#!/usr/bin/env bash
# `bootimage list` shows the search order, where each record was found, its
# length and kind, and the numbers found nowhere; a record put in the per-user
# folder or a --boot-images folder is found without rebuilding.
# usage: bootimage_list_test.sh linux|wine TARNLIFT_COMMAND
set -uo pipefail
platform=$1
shift
work=$(mktemp -d /tmp/tl-bilist-XXXXXX)
cleanup() {
  [ "$platform" = wine ] && WINEPREFIX=$work/wine wineserver -k 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
status=0
fail() { echo "FAIL: $*"; status=1; }
run() {
  if [ "$platform" = wine ]; then
    WINEPREFIX=$work/wine WINEDEBUG=-all timeout 120 wine "$@" 2> "$work/err" | tr -d '\r'
  else
    HOME=$work XDG_DATA_HOME= timeout 30 "$@" 2> "$work/err"
  fi
}
record() { # NUMBER TEXT DIR: a record holding TEXT
  python3 -c 'import struct,sys; t=sys.argv[2].encode(); open(sys.argv[3]+"/"+sys.argv[1]+".bin","wb").write(struct.pack("<I",len(t))+t)' "$@"
}
# Wine sets %LOCALAPPDATA% itself, inside the prefix made by the first run.
if [ "$platform" = wine ]; then
  user=$work/wine/drive_c/users/$(id -un)/AppData/Local/Tarnlift/bootimages
else
  user=$work/.local/share/tarnlift/bootimages
fi

# The defaults: test images and the placeholder, nothing of the user's.
out=$(run "$@" bootimage list) || fail "list exits $?"
echo "$out"
grep -q "^search order:" <<< "$out" || fail "no search order"
grep -qE "^  (.*[/\\\\])?bootimages \(absent\)$" <<< "$out" || fail "the absent per-user folder is not shown as absent"
grep -qE "^  129	3000 bytes	.*	test image, boots nothing	vendor class \"Powerboot\"$" <<< "$out" || fail "129 line"
grep -qE "^  143	[0-9]+ bytes	.*	placeholder, says what is missing	PXE client, EFI x86-64$" <<< "$out" || fail "143 line"
grep -qE "^  125	[0-9]+ bytes	placeholder built into the program	placeholder, says what is missing	BIOS PXE client" <<< "$out" ||
  fail "125 line"
grep -q "^missing: 126 127 128 142 120 132 124 134$" <<< "$out" || fail "missing line"

# A deployer's 143 and 120 in the per-user folder: found there, 143 wins
# over the placeholder on both platforms.
mkdir -p "$user"
record 143 "a real image" "$user"
record 120 "kernel" "$user"
out=$(run "$@" bootimage list) || fail "list exits $?"
grep -qE "^  143	12 bytes	.*bootimages	image	" <<< "$out" || fail "143 from the per-user folder: $(grep '^  143' <<< "$out")"
grep -qE "^  120	6 bytes	.*bootimages	image	local disk" <<< "$out" || fail "120 from the per-user folder"
grep -q "^missing: 126 127 128 142 132 124 134$" <<< "$out" || fail "missing line after adding 120"

# --boot-images DIR replaces the folders; a cut record is shown as bad.
mkdir "$work/given"
record 139 "arm64" "$work/given"
printf '\x64\x00\x00\x00abc' > "$work/given/126.bin"
out=$(run "$@" bootimage list --boot-images "$work/given") || fail "list --boot-images exits $?"
grep -qE "^  126	-  ?bytes	.*given	BAD RECORD" <<< "$out" || fail "cut record: $(grep '^  126' <<< "$out")"
grep -qE "^  120	" <<< "$out" && fail "the per-user folder is searched although --boot-images was given"
# The placeholders come last, also after a given folder: a PXE client can
# never meet a missing 125 or 143.
grep -qE "^  125	[0-9]+ bytes	placeholder built into the program	" <<< "$out" || fail "125 with --boot-images"
grep -qE "^  143	[0-9]+ bytes	placeholder built into the program	" <<< "$out" || fail "143 with --boot-images"
[ "$(sed -n '/^search order:/,/^records:/p' <<< "$out" | tail -2 | head -1)" = "  placeholder built into the program" ] ||
  fail "the placeholders are not searched last"
# A deployer's 125 in the given folder wins over the placeholder.
record 125 "bios loader" "$work/given"
out=$(run "$@" bootimage list --boot-images "$work/given") || fail "list --boot-images exits $?"
grep -qE "^  125	11 bytes	.*given	image	" <<< "$out" || fail "125 from the given folder: $(grep '^  125' <<< "$out")"
if [ "$platform" = wine ]; then
  grep -qE "^  139	10000 bytes	resources of " <<< "$out" || fail "Windows: the built-in 139 comes first"
else
  grep -qE "^  139	5 bytes	.*given	image" <<< "$out" || fail "139 from the given folder"
fi
run "$@" bootimage list --boot-images "$work/none" > /dev/null
[ $? = 1 ] || fail "a missing --boot-images folder must fail"
run "$@" bootimage list --bogus > /dev/null
[ $? = 2 ] || fail "a bad option is a usage error"
[ $status = 0 ] && echo PASS
exit $status

#!/bin/bash
# End to end on Linux: `tarnlift disk` onto disk image files (no root
# needed), checked with mtools; an existing image needs --yes; the boot
# loader's installer is written into a folder of the run's own, whatever
# sits at its old name in TMPDIR, and two runs at once each make a bootable
# image; a stop during the format leaves no child running; then bad input,
# and (as root) the refusal of mounted and system disks.
#   disk_e2e.sh TARNLIFT MKPKG
set -u
tarnlift=$1
mkpkg=$2
work=$(mktemp -d /tmp/tl-disk-e2e.XXXXXX)
loops=()
mounts=()
cleanup() {
  for m in "${mounts[@]}"; do umount "$m" 2>/dev/null; done
  for l in "${loops[@]}"; do losetup -d "$l" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
here=$(cd "$(dirname "$0")" && pwd)
cd "$work" || exit 1
# shellcheck source=e2e_lib.sh
source "$here/e2e_lib.sh"

for tool in mkfs.fat mcopy mdir minfo syslinux; do
  if ! command -v "$tool" >/dev/null && [ ! -x "/usr/sbin/$tool" ] && [ ! -x "/sbin/$tool" ]; then
    echo "skip: $tool is not installed"
    exit 77
  fi
done
syslinux_bin=$(command -v syslinux)

# A release folder with real bytes in every package, and the four records.
mkdir pk bi
random_hex() { head -c "$1" /dev/urandom | od -An -tx1 | tr -d ' \n'; }
"$mkpkg" pk/system-7.15.npk --package system 7.15 --arch i386 --description Main --part 99 "$(random_hex 4000)" --data 3000000 || exit 1
"$mkpkg" pk/ppp-7.15.npk --package ppp 7.15 --arch i386 --depends system:7.15:7.15 --part 99 "$(random_hex 3000)" || exit 1
"$mkpkg" pk/wireless-7.15.npk --package wireless 7.15 --arch i386 --depends system:7.15:7.15 --part 99 "$(random_hex 2000)" || exit 1
head -c 200000 /dev/urandom > kernel
head -c 90000 /dev/urandom > initrd
printf 'DEFAULT linux\nLABEL linux\n  KERNEL linux\n  APPEND initrd=initrd.rgz\n' > cfg
"$tarnlift" bootimage wrap 120 kernel bi >/dev/null 2>&1 &&
  "$tarnlift" bootimage wrap 132 initrd bi >/dev/null 2>&1 &&
  "$tarnlift" bootimage wrap 124 cfg bi >/dev/null 2>&1 &&
  "$tarnlift" bootimage wrap 134 "$syslinux_bin" bi >/dev/null 2>&1 || { echo "cannot wrap records"; exit 1; }
printf '/system identity set name=disk-router\n/ip address add address=10.1.1.1/24 interface=ether1\n' > config.rsc
printf '/system device-mode update mode=enterprise\n' > mode.rsc

# 1. A fresh image file with a configure script, a mode script and a baud rate.
"$tarnlift" disk fresh.img --image-size 64 --boot-images bi --packages pk --select ppp-7.15.npk \
  --script config.rsc --mode-script mode.rsc --baud 115200 > out.txt 2> log.txt
rc=$?
if [ $rc -ne 0 ]; then fail "fresh image: exit $rc"; cat out.txt log.txt; fi
grep -q $'^fresh.img\tInstallation completed$' out.txt && pass "fresh image completed" || fail "no completion line"
grep -q $'^fresh.img\tCopying file: ppp-7.15.npk\t' out.txt && pass "progress lines" || fail "no progress line"
[ "$(stat -c %s fresh.img)" = $((64 * 1024 * 1024)) ] && pass "image size" || fail "image size"
minfo -i fresh.img :: > info.txt 2>&1
grep -q 'disk type="FAT32' info.txt && pass "FAT32" || fail "not FAT32"
grep -q 'disk label="y ' info.txt && pass "label y" || fail "label is not y"
mdir -a -b -i fresh.img :: | sed 's#^::/##' | sort > names.txt
printf '%s\n' autorun.scr initrd.rgz ldlinux.c32 ldlinux.sys linux mbr mode.scr ppp-7.15.npk syslinux.cfg system-7.15.npk | sort > want.txt
if cmp -s names.txt want.txt; then pass "exactly the expected files"; else fail "files differ"; diff want.txt names.txt; fi
check_same() {  # check_same IMAGE NAME EXPECTED-FILE
  rm -f got.bin
  mcopy -n -i "$1" "::$2" got.bin 2>/dev/null && cmp -s got.bin "$3" && pass "$2 identical" || fail "$2 differs"
}
check_same fresh.img linux kernel
check_same fresh.img initrd.rgz initrd
check_same fresh.img syslinux.cfg cfg
check_same fresh.img system-7.15.npk pk/system-7.15.npk
check_same fresh.img ppp-7.15.npk pk/ppp-7.15.npk
check_same fresh.img mode.scr mode.rsc
{ cat config.rsc; printf '\n/port set [/port find] baud-rate=115200\n'; } > want-autorun
check_same fresh.img autorun.scr want-autorun
head -c 512 /dev/zero > zero-sector
check_same fresh.img mbr zero-sector
dd if=fresh.img bs=1 skip=3 count=8 2>/dev/null | grep -q SYSLINUX && pass "boot sector from syslinux" || fail "no syslinux boot sector"

# 2. An existing image file with an old sector 0: erased only with --yes
# (nobody can answer here), then "mbr" holds the old sector.
truncate -s 48M old.img
head -c 512 /dev/urandom > old-sector
dd if=old-sector of=old.img conv=notrunc 2>/dev/null
before=$(sha256sum < old.img)
"$tarnlift" disk old.img --boot-images bi --packages pk --select wireless-7.15.npk < /dev/null > out2.txt 2> log2.txt
rc=$?
[ $rc -eq 2 ] && grep -q "overwriting the image file old.img (50331648 bytes) needs --yes" log2.txt &&
  [ "$(sha256sum < old.img)" = "$before" ] && pass "existing image needs --yes" || { fail "existing image without --yes: exit $rc"; tail -2 log2.txt; }
"$tarnlift" disk old.img --boot-images bi --packages pk --select wireless-7.15.npk --yes > out2.txt 2> log2.txt
[ $? -eq 0 ] && pass "existing image" || { fail "existing image"; cat out2.txt log2.txt; }
check_same old.img mbr old-sector
check_same old.img wireless-7.15.npk pk/wireless-7.15.npk
mtype -i old.img ::autorun.scr > autorun2 2>/dev/null
[ -s autorun2 ] && fail "autorun.scr not empty without script and baud" || pass "empty autorun.scr"

# 2b. "Previous Install" now holds the last choice: a saved set like any
# other, which --set applies.
"$tarnlift" disk again.img --image-size 40 --boot-images bi --set "Previous Install" > out3.txt 2> log3.txt
[ $? -eq 0 ] && pass "--set applies a saved set" || { fail "--set"; cat out3.txt; tail -5 log3.txt; }
check_same again.img wireless-7.15.npk pk/wireless-7.15.npk
check_same again.img system-7.15.npk pk/system-7.15.npk
rm -f again.img

# 2c. Whatever sits at the boot loader installer's old name in TMPDIR (a
# folder, a link) does not matter: each run writes it into a folder of its
# own, which is gone afterwards; two runs at once each get a bootable image.
mkdir -p tmp/syslinux/planted
ln -s /nonexistent tmp/syslinux-link
bootable() {  # bootable IMAGE: SYSLINUX's boot sector and loader files are there
  dd if="$1" bs=1 skip=3 count=8 2>/dev/null | grep -q SYSLINUX &&
    mdir -a -b -i "$1" ::ldlinux.sys > /dev/null 2>&1 && mdir -a -b -i "$1" ::ldlinux.c32 > /dev/null 2>&1
}
TMPDIR=$work/tmp "$tarnlift" disk planted.img --image-size 40 --boot-images bi --packages pk --select ppp-7.15.npk \
  > planted-out.txt 2> planted-log.txt
rc=$?
if [ $rc -eq 0 ] && bootable planted.img && [ -d tmp/syslinux/planted ] && grep -q "^exe: $work/tmp/tarnlift-....../syslinux$" planted-log.txt; then
  pass "a folder at the installer's old name changes nothing"
else
  fail "planted folder: exit $rc"; grep -E "exe:|Cannot|failed" planted-log.txt
fi
TMPDIR=$work/tmp "$tarnlift" disk twin1.img --image-size 40 --boot-images bi --packages pk --select ppp-7.15.npk \
  > twin1-out.txt 2> twin1-log.txt &
twin1=$!
TMPDIR=$work/tmp "$tarnlift" disk twin2.img --image-size 40 --boot-images bi --packages pk --select wireless-7.15.npk \
  > twin2-out.txt 2> twin2-log.txt &
twin2=$!
wait $twin1; rc1=$?
wait $twin2; rc2=$?
exe1=$(sed -n 's/^exe: //p' twin1-log.txt)
exe2=$(sed -n 's/^exe: //p' twin2-log.txt)
if [ $rc1 -eq 0 ] && [ $rc2 -eq 0 ] && bootable twin1.img && bootable twin2.img && [ -n "$exe1" ] && [ "$exe1" != "$exe2" ]; then
  pass "two runs at once, each image bootable, each with its own installer file"
else
  fail "two runs at once: exits $rc1 $rc2, installers '$exe1' '$exe2'"
fi
check_same twin2.img wireless-7.15.npk pk/wireless-7.15.npk
leftover=$(find tmp -maxdepth 1 -name 'tarnlift-*' | wc -l)
[ "$leftover" -eq 0 ] && pass "the installers' folders are gone" || fail "$leftover installer folders left in TMPDIR"
rm -f planted.img twin1.img twin2.img

# 2d. Stopped while formatting: the formatter and what it started end with
# the run, nothing of it keeps running on the image.
mkdir -p slowfmt
cat > slowfmt/mkfs.fat <<'FORMATTER'
#!/bin/sh
# A formatter that takes its time, with a child of its own.
sleep 300 &
echo "$!" > "$SLOWFMT_MARK.child"
echo "$$" > "$SLOWFMT_MARK.pid"
wait
FORMATTER
chmod +x slowfmt/mkfs.fat
alive() { local state; state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null); [ -n "$state" ] && [ "$state" != Z ]; }
SLOWFMT_MARK=$work/slowfmt/mark PATH=$work/slowfmt:$PATH "$tarnlift" disk slow.img --image-size 40 --boot-images bi \
  --packages pk --select ppp-7.15.npk > slow-out.txt 2> slow-log.txt &
slow=$!
for _ in $(seq 1 200); do [ -s slowfmt/mark.child ] && [ -s slowfmt/mark.pid ] && break; sleep 0.05; done
formatter=$(cat slowfmt/mark.pid 2>/dev/null)
child=$(cat slowfmt/mark.child 2>/dev/null)
stopped_at=$(date +%s)
kill -TERM $slow
wait $slow
rc=$?
took=$(($(date +%s) - stopped_at))
sleep 0.2
if [ $rc -eq 1 ] && [ -n "$formatter" ] && [ -n "$child" ] && ! alive "$formatter" && ! alive "$child" && [ $took -lt 10 ] &&
   grep -q "format stopped" slow-log.txt; then
  pass "stopped while formatting: formatter and its child gone (${took} s)"
else
  fail "stopped while formatting: exit $rc, formatter $formatter alive=$(alive "$formatter" && echo yes), child $child alive=$(alive "$child" && echo yes), ${took} s"
  tail -5 slow-log.txt
fi
rm -rf slowfmt slow.img

expect_fail() {  # expect_fail CODE PATTERN NAME -- ARGS...
  local code=$1 pattern=$2 name=$3
  shift 4
  "$tarnlift" "$@" > bad-out.txt 2> bad-err.txt
  local got=$?
  if [ $got -ne "$code" ]; then fail "$name: exit $got, not $code"; tail -3 bad-err.txt; return; fi
  if ! grep -q -- "$pattern" bad-out.txt bad-err.txt; then fail "$name: no '$pattern'"; tail -3 bad-err.txt; return; fi
  pass "$name"
}
# 3. Bad input.
expect_fail 1 "is not a package of" "missing package file" -- disk bad1.img --boot-images bi --packages pk --select nothing-1.0.npk
[ -e bad1.img ] && fail "an image was made for a refused choice" || pass "nothing made for a missing package"
expect_fail 1 "Could not read configuration script" "unreadable script" -- disk bad2.img --boot-images bi --packages pk --select ppp-7.15.npk --script missing.rsc
[ -e bad2.img ] && fail "an image was left for an unreadable script" || pass "nothing left for an unreadable script"
expect_fail 1 "Could not read mode script" "unreadable mode script" -- disk bad2b.img --boot-images bi --packages pk --select ppp-7.15.npk --mode-script missing.rsc
"$mkpkg" big/huge-7.15.npk --package huge 7.15 --arch i386 --part 99 "$(random_hex 100)" --data 40000000 >/dev/null 2>&1 ||
  { mkdir -p big && "$mkpkg" big/huge-7.15.npk --package huge 7.15 --arch i386 --part 99 "$(random_hex 100)" --data 40000000; }
expect_fail 1 $'\tCannot copy packages' "target too small" -- disk small.img --image-size 33 --boot-images bi --packages big --select huge-7.15.npk
mkdir -p partial
cp bi/120.bin bi/124.bin partial/
expect_fail 1 "records 132, 134" "missing records named together" -- disk bad3.img --boot-images partial --packages pk --select ppp-7.15.npk
[ -e bad3.img ] && fail "an image was made without records" || pass "nothing made without records"
expect_fail 1 "does not exist" "device that does not exist" -- disk /dev/tl-no-such-disk --boot-images bi --packages pk --select ppp-7.15.npk --yes
expect_fail 1 "neither a disk nor a disk image file" "a directory" -- disk pk --boot-images bi --packages pk --select ppp-7.15.npk
expect_fail 1 "neither a disk" "a character device" -- disk /dev/null --boot-images bi --packages pk --select ppp-7.15.npk --yes
expect_fail 1 "no package set named nothing" "unknown set" -- disk bad5.img --boot-images bi --set nothing
expect_fail 1 "No packages selected" "no packages" -- disk bad4.img --boot-images bi --packages pk
expect_fail 2 "needs a TARGET" "no target" -- disk --boot-images bi
expect_fail 2 "--baud needs a number" "bad baud" -- disk x.img --baud fast
expect_fail 2 "exclude each other" "set and select" -- disk x.img --set a --select b
expect_fail 2 "at least 33" "image too small to ask for" -- disk x.img --image-size 8
expect_fail 2 "unknown option '--frobnicate'" "unknown option" -- disk x.img --frobnicate
expect_fail 2 "unexpected argument 'y.img'" "two targets" -- disk x.img y.img

# 3b. The drive list: whole disks only, never the system's, loop, RAM,
# mapped or optical devices; rows carry the drive prefix.
"$tarnlift" drives > drives.txt 2> drives-err.txt || fail "drives: exit $?"
root_disk=$(findmnt -n -o SOURCE / 2>/dev/null)
root_name=$(lsblk -no PKNAME "$root_disk" 2>/dev/null | head -n 1)
[ -n "$root_name" ] || root_name=$(basename "$root_disk" 2>/dev/null)
drives_ok=1
while IFS=$'\t' read -r label mac type _; do
  case "$label" in /dev/loop* | /dev/ram* | /dev/zram* | /dev/sr* | /dev/dm-* | /dev/md*) drives_ok=0 ;; esac
  [ "$label" = "/dev/$root_name" ] && drives_ok=0
  [[ "$mac" == FF:FF:FF:FF:FF:* ]] || drives_ok=0
  [ "$type" = removable ] || [ "$type" = fixed ] || drives_ok=0
  [ -b "$label" ] || drives_ok=0
done < drives.txt
[ $drives_ok = 1 ] && pass "drive list ($(wc -l < drives.txt) disks)" || { fail "drive list"; cat drives.txt; }

# 4. As root: a mounted disk and the system's disk are refused and untouched.
if [ "$(id -u)" = 0 ] && command -v losetup >/dev/null && command -v mkfs.ext4 >/dev/null; then
  truncate -s 40M mounted.img
  mkfs.ext4 -q mounted.img
  dd if=old-sector of=mounted.img conv=notrunc 2>/dev/null  # ext4 leaves its first 1024 bytes alone
  loop=$(losetup -f --show mounted.img 2>/dev/null)
  if [ -n "$loop" ]; then
    loops+=("$loop")
    mkdir -p mnt
    if mount "$loop" mnt 2>/dev/null; then
      mounts+=("$work/mnt")
      # The file system never writes sector 0; this program would clear it.
      before=$(head -c 512 mounted.img | sha256sum)
      expect_fail 1 "has a mounted file system" "mounted disk" -- disk "$loop" --boot-images bi --packages pk --select ppp-7.15.npk --yes
      umount mnt && mounts=()
      [ "$(head -c 512 mounted.img | sha256sum)" = "$before" ] && ! grep -q SYSLINUX <(head -c 512 mounted.img) && pass "mounted disk untouched" || fail "mounted disk was written"
      # Unmounted, the same device needs --yes when nobody can answer.
      expect_fail 2 "needs --yes" "device without --yes" -- disk "$loop" --boot-images bi --packages pk --select ppp-7.15.npk < /dev/null
    fi
  fi
  root_source=$(findmnt -n -o SOURCE / 2>/dev/null)
  if [ -b "$root_source" ]; then
    expect_fail 1 "holds the running system" "system disk" -- disk "$root_source" --boot-images bi --packages pk --select ppp-7.15.npk --yes
  fi
else
  echo "note: mounted and system disk refusals need root; skipped"
fi

# 6. Stopped by a signal half-way: the target is said to be unusable, exit 1.
mkdir bigpk
"$mkpkg" bigpk/big-7.15.npk --package big 7.15 --arch i386 --data 400000000 > /dev/null || fail "mkpkg big"
"$tarnlift" disk stopped.img --image-size 600 --boot-images bi --packages bigpk --select big-7.15.npk \
  > stop-out.txt 2> stop-err.txt &
disk_pid=$!
for _ in $(seq 1 200); do grep -q "Copying file: big-7.15.npk" stop-out.txt 2>/dev/null && break; sleep 0.05; done
kill -TERM $disk_pid 2>/dev/null
wait $disk_pid
rc=$?
if [ $rc -eq 1 ] && grep -q "stopped by a signal while .*: stopped.img is not a bootable disk now" stop-err.txt &&
   grep -q $'^stopped.img\tStopped: ' stop-out.txt; then
  pass "stopped by a signal, the target's state said"
else
  fail "stopped by a signal: exit $rc"; tail -3 stop-out.txt stop-err.txt
fi
rm -rf bigpk stopped.img

finish

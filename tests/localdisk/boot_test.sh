#!/bin/bash
# The disk really boots: `tarnlift disk` writes the kit and a package folder
# onto an image file whose path has blanks in it, QEMU (SeaBIOS, no KVM)
# boots it, and the files the booted system reports on its serial console
# are compared with the originals: boot sector, SYSLINUX, kernel, RAM disk
# and files in one go.
#   boot_test.sh TARNLIFT MKPKG CACHE
set -u
tarnlift=$1
mkpkg=$2
cache=$3
here=$(cd "$(dirname "$0")" && pwd)
for tool in qemu-system-x86_64 mkfs.fat mcopy syslinux cpio gzip; do
  if ! command -v "$tool" >/dev/null && [ ! -x "/usr/sbin/$tool" ] && [ ! -x "/sbin/$tool" ]; then
    echo "skip: $tool is not installed"
    exit 77
  fi
done
[ -x /bin/busybox ] || command -v busybox >/dev/null || { echo "skip: busybox is not installed"; exit 77; }
start=$(date +%s)
bash "$here/boot_kit.sh" "$tarnlift" "$cache" || { echo "FAIL: cannot make the boot kit"; exit 1; }
work=$(mktemp -d /tmp/tl-boot.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export HOME=$work/home
unset XDG_CONFIG_HOME
mkdir -p "$HOME"

mkdir pk
random_hex() { head -c "$1" /dev/urandom | od -An -tx1 | tr -d ' \n'; }
"$mkpkg" pk/system-7.15.npk --package system 7.15 --arch i386 --part 99 "$(random_hex 3000)" --data 4000000 >/dev/null || exit 1
"$mkpkg" pk/routing-7.15.npk --package routing 7.15 --arch i386 --depends system:7.15:7.15 --part 99 "$(random_hex 2000)" >/dev/null || exit 1
printf '/system identity set name=booted\n' > config.rsc
printf '/system device-mode update mode=home\n' > mode.rsc
# Blanks in the folder and in the name: every tool gets the path whole.
mkdir "disk images"
disk="disk images/boot disk.img"
truncate -s 64M "$disk"
head -c 512 /dev/urandom > old-sector
dd if=old-sector of="$disk" conv=notrunc 2>/dev/null

"$tarnlift" disk "$disk" --yes --boot-images "$cache/records" --packages pk --select routing-7.15.npk \
  --script config.rsc --mode-script mode.rsc --baud 115200 > disk-out.txt 2> disk-log.txt
if [ $? -ne 0 ]; then
  echo "FAIL: tarnlift disk"
  cat disk-out.txt disk-log.txt
  exit 1
fi
installed=$(date +%s)

timeout 240 qemu-system-x86_64 -m 512 -display none -nic none -no-reboot \
  -drive file="$disk",format=raw,if=ide -boot c -serial file:serial.txt -monitor none
booted=$(date +%s)
tr -d '\r' < serial.txt > console.txt
if ! grep -q '^TLEND' console.txt; then
  echo "FAIL: the booted system did not list the disk"
  tail -40 console.txt
  exit 1
fi
grep '^TLFILE ' console.txt | cut -d ' ' -f 2- | sort > reported.txt

# What the disk must hold, byte for byte.
{ cat config.rsc; printf '\n/port set [/port find] baud-rate=115200\n'; } > autorun.scr
cp mode.rsc mode.scr
cp old-sector mbr
for f in linux initrd.rgz syslinux.cfg; do cp "$cache/$f" "$f"; done
cp pk/system-7.15.npk pk/routing-7.15.npk .
: > expected.txt
for f in autorun.scr initrd.rgz linux mbr mode.scr routing-7.15.npk syslinux.cfg system-7.15.npk; do
  echo "$f $(stat -c %s "$f") $(sha256sum "$f" | cut -d ' ' -f 1)" >> expected.txt
done
# SYSLINUX's own files: present; their bytes are its installer's.
grep -E '^ldlinux\.(sys|c32) ' reported.txt >> expected.txt
sort -o expected.txt expected.txt
failed=0
if ! grep -q '^ldlinux.sys ' reported.txt || ! grep -q '^ldlinux.c32 ' reported.txt; then
  echo "FAIL: SYSLINUX's files are missing"
  failed=1
fi
if ! cmp -s expected.txt reported.txt; then
  echo "FAIL: the booted system saw other files"
  diff expected.txt reported.txt
  failed=1
fi
grep TLERROR console.txt && failed=1
echo "boot test: kit+install $((installed - start)) s, boot $((booted - installed)) s, files:"
cat reported.txt
[ $failed -eq 0 ] && echo "PASS: the disk booted and carried every file byte-identical"
exit $failed

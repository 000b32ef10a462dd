#!/usr/bin/env bash
# Boots the UEFI placeholder image with QEMU and OVMF from a FAT disk image
# (no network) and checks what it prints on the firmware's serial console:
# that it is Tarnlift's placeholder, that the real image must be supplied as
# record 143 and where, and that the firmware goes on afterwards (the image
# returned).
# usage: placeholder_ovmf.sh EFI_FILE   (exit 0 pass, 1 fail, 77 skipped)
set -uo pipefail
efi=${1:?usage: placeholder_ovmf.sh EFI_FILE}
skip() { echo "SKIP: $*"; exit 77; }
command -v qemu-system-x86_64 > /dev/null || skip "needs qemu-system-x86"
command -v mcopy > /dev/null || skip "needs mtools"
command -v mkfs.fat > /dev/null || skip "needs dosfstools"
code=/usr/share/OVMF/OVMF_CODE_4M.fd
vars=/usr/share/OVMF/OVMF_VARS_4M.fd
[ -r "$code" ] && [ -r "$vars" ] || skip "needs ovmf"
[ -r "$efi" ] || { echo "FAIL: no $efi"; exit 1; }

work=$(mktemp -d /tmp/tl-placeholder-XXXXXX)
qemu_pid=
cleanup() {
  [ -n "$qemu_pid" ] && kill "$qemu_pid" 2> /dev/null && wait "$qemu_pid" 2> /dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# The removable-media boot path the firmware tries on its own.
mkfs.fat -C "$work/disk.img" 4096 > /dev/null || { echo "FAIL: mkfs.fat"; exit 1; }
export MTOOLS_SKIP_CHECK=1
mmd -i "$work/disk.img" ::EFI ::EFI/BOOT && mcopy -i "$work/disk.img" "$efi" ::EFI/BOOT/BOOTX64.EFI ||
  { echo "FAIL: mtools"; exit 1; }
cp "$vars" "$work/vars.fd"
# Emulated, not KVM: build machines may offer a /dev/kvm that cannot run
# the firmware (nested virtualisation), and the boot is short either way.
accel=tcg
started=$(date +%s)
: > "$work/serial.log"
timeout 150 qemu-system-x86_64 -machine pc,accel=$accel -m 256 -display none -nic none -no-reboot \
  -drive if=pflash,format=raw,readonly=on,file="$code" -drive if=pflash,format=raw,file="$work/vars.fd" \
  -drive file="$work/disk.img",format=raw,if=ide -serial file:"$work/serial.log" > "$work/qemu.out" 2>&1 &
qemu_pid=$!

# Done once the firmware is past the image: the next boot option starts.
found=0
for _ in $(seq 1 1200); do
  if tr -d '\r' < "$work/serial.log" 2> /dev/null | grep -q "Returning to the firmware" &&
    tr -d '\r' < "$work/serial.log" | sed -n '/Returning to the firmware/,$p' | grep -q "BdsDxe: loading"; then
    found=1
    break
  fi
  kill -0 "$qemu_pid" 2> /dev/null || break
  sleep 0.1
done
elapsed=$(($(date +%s) - started))
text=$(tr -d '\r' < "$work/serial.log" | sed 's/\x1b\[[0-9;=]*[a-zA-Z]//g')
status=0
for want in "Tarnlift placeholder boot image (record 143)" \
  "The real boot image of the router system must be supplied as record 143" \
  "tarnlift bootimage wrap 143 KERNEL FOLDER" "/usr/share/tarnlift/bootimages on Linux" \
  "the bootimages folder beside tarnlift.exe on Windows" "Returning to the firmware in a few seconds."; do
  grep -qF -- "$want" <<< "$text" || { echo "FAIL: console lacks: $want"; status=1; }
done
[ $found = 1 ] || { echo "FAIL: the firmware did not go on after the image (accel $accel, ${elapsed} s)"; status=1; }
if [ $status != 0 ]; then
  echo "--- serial console"
  head -c 4000 <<< "$text"
  cat "$work/qemu.out"
  exit 1
fi
echo "PASS: the placeholder printed its message and returned (accel $accel, ${elapsed} s)"

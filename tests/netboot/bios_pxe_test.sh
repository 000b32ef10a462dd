#!/bin/bash
# A PC with a legacy BIOS (QEMU with SeaBIOS and the iPXE option ROM on its
# network card) network-boots from `tarnlift serve --netboot`.
#   placeholder: no folder holds record 125, so the PC gets the placeholder
#     built into the program. Its message shows on the PC's serial line, it
#     hands the PC back to the firmware (int 18h, seen in SeaBIOS's debug
#     log), the server goes on running, and an installation that runs at the
#     same time (the router simulator on the same segment, formatting while
#     the PC boots) ends successfully.
#   pxelinux: a deployer's PXELINUX as 125, its ldlinux.c32 as 142 and a
#     configuration as 126: the PC boots PXELINUX instead, which loads its
#     second stage and the configuration and carries out the configuration's
#     only entry (boot from the local disk), which it reports on the serial
#     line.
#
# usage: bios_pxe_test.sh placeholder|pxelinux TARNLIFT ROUTERSIM MKPKG
# Exit 0 pass, 1 fail, 77 skipped (not root, or a needed program is missing).
set -u
case_name=${1:?usage: bios_pxe_test.sh placeholder|pxelinux TARNLIFT ROUTERSIM MKPKG}
tarnlift=$2
routersim=$3
mkpkg=$4
here=$(cd "$(dirname "$0")" && pwd)
harness=$here/../lib/ovmf_pxe.sh

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" = 0 ] || skip "needs root for network namespaces"
for program in "$tarnlift" "$routersim" "$mkpkg"; do
  [ -x "$program" ] || skip "no $program"
done
work=$(mktemp -d /tmp/tl-bios-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/images" "$work/pk"
record() {  # NUMBER FILE: wraps FILE into the test's boot image folder
  "$tarnlift" bootimage wrap "$1" "$2" "$work/images" > /dev/null || { echo "FAIL: cannot wrap $2"; exit 1; }
}

case $case_name in
  placeholder)
    "$mkpkg" "$work/pk/system-6.41.npk" --package system 6.41 --arch arm --part 4 "$(head -c 20000 /dev/urandom | od -An -v -tx1 | tr -d ' \n')" \
      --data 300000 > /dev/null || { echo "FAIL: mkpkg"; exit 1; }
    # Once the PC has asked for its boot image, a router announces itself
    # and formats for 8 s: its installation runs while the PC downloads the
    # placeholder and shows its message.
    side="for _ in \$(seq 1 600); do grep -q 'client system arch: 0' \"\$TL_WORK/server.err\" && break; sleep 0.1; done
      grep -q 'client system arch: 0' \"\$TL_WORK/server.err\" || { echo 'the PC never asked'; exit 1; }
      timeout --foreground 100 '$routersim' --interface \"\$TL_BRIDGE\" --format-ms 8000 --repeat-ms 300 || exit 1
      for _ in \$(seq 1 100); do grep -q 'Installation finished successfully' \"\$TL_WORK/server.out\" && exit 0; sleep 0.1; done
      echo 'serve did not report the installation as finished'; exit 1"
    bash "$harness" -f bios -t 150 -F "handle_18" -w "$side" "Returning to the firmware" \
      "$tarnlift" serve --netboot --client-address 192.168.88.1 --boot-images "$work/images" --packages "$work/pk" \
        --select system-6.41.npk
    ;;
  pxelinux)
    pxelinux=/usr/lib/PXELINUX/pxelinux.0
    ldlinux=/usr/lib/syslinux/modules/bios/ldlinux.c32
    [ -r "$pxelinux" ] && [ -r "$ldlinux" ] || skip "needs pxelinux and syslinux-common"
    record 125 "$pxelinux"
    record 142 "$ldlinux"
    printf 'SERIAL 0 115200\nPROMPT 0\nTIMEOUT 10\nDEFAULT local\nLABEL local\n  LOCALBOOT -1\n' > "$work/default"
    record 126 "$work/default"
    bash "$harness" -f bios -t 90 "Booting from local disk..." \
      "$tarnlift" serve --netboot --client-address 192.168.88.1 --boot-images "$work/images" --packages "$work/pk"
    ;;
  *)
    echo "usage: $0 placeholder|pxelinux TARNLIFT ROUTERSIM MKPKG"
    exit 2
    ;;
esac
exit $?

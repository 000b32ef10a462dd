#!/bin/bash
# A UEFI PC (QEMU with OVMF) boots over the network from `tarnlift netboot`:
# it must take the pure BOOTP reply and download its boot image (record 143)
# over TFTP, which its firmware reports as "NBP file downloaded successfully".
#
# usage: ovmf_pxe_test.sh native TARNLIFT BOOT_IMAGE_DIR
#        ovmf_pxe_test.sh wine TARNLIFT_CLI_EXE        (records built into it)
# Exit 77 (skipped) where the harness cannot run.
set -u
here=$(cd "$(dirname "$0")" && pwd)
harness=$here/../lib/ovmf_pxe.sh
expected="NBP file downloaded successfully"
case ${1:-} in
  native)
    exec bash "$harness" -t 150 "$expected" "$2" netboot --client-address 192.168.88.1 --boot-images "$3"
    ;;
  wine)
    command -v wine > /dev/null || { echo "SKIP: needs wine"; exit 77; }
    WINEPREFIX=$(mktemp -d /tmp/tl-ovmf-wine-XXXXXX)
    export WINEPREFIX WINEDEBUG=-all
    # Wine takes seconds to make its prefix: the harness waits for the
    # server's ready line before the PC is powered on.
    bash "$harness" -t 240 "$expected" wine "$2" netboot --client-address 192.168.88.1
    result=$?
    wineserver -k > /dev/null 2>&1
    rm -rf "$WINEPREFIX"
    exit $result
    ;;
  *)
    echo "usage: $0 native TARNLIFT BOOT_IMAGE_DIR | wine TARNLIFT_CLI_EXE"
    exit 2
    ;;
esac

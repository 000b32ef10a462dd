#!/bin/bash
# A UEFI PC (QEMU with OVMF) boots over the network from `tarnlift netboot`:
# it must take the pure BOOTP reply and download its boot image (record 143)
# over TFTP, which its firmware reports as "NBP file downloaded successfully".
#
# usage: ovmf_pxe_test.sh native TARNLIFT BOOT_IMAGE_DIR
#        ovmf_pxe_test.sh wine TARNLIFT_CLI_EXE        (records built into it)
#        ovmf_pxe_test.sh big-native TARNLIFT PLACEHOLDER_EFI MIB
#        ovmf_pxe_test.sh big-wine TARNLIFT_CLI_EXE PLACEHOLDER_EFI MIB
#   big-*: record 143 is the UEFI placeholder padded to MIB MiB (and a byte,
#   so that no block size divides it). Beyond 32 MiB the BOOTP reply has no
#   boot file size (option 13) and the firmware asks for tsize; beyond 96 MiB
#   at its block size of 1468 the block numbers roll over; the firmware asks
#   for a window of blocks. The run passes when the placeholder, downloaded
#   whole, starts and shows its message.
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
  big-native|big-wine)
    efi=$3
    mib=$4
    [ -r "$efi" ] || { echo "SKIP: no placeholder image $efi"; exit 77; }
    images=$(mktemp -d /tmp/tl-ovmf-big-XXXXXX)
    python3 -c 'import struct,sys
efi=open(sys.argv[1],"rb").read()
size=int(sys.argv[2])*1048576+1
content=efi+bytes(size-len(efi))
open(sys.argv[3]+"/143.bin","wb").write(struct.pack("<I",len(content))+content)' "$efi" "$mib" "$images"
    placeholder="Tarnlift placeholder boot image (record 143)"
    memory=$((mib * 2 + 256))
    if [ "$1" = big-native ]; then
      bash "$harness" -t 200 -m "$memory" "$placeholder" "$2" netboot --client-address 192.168.88.1 --boot-images "$images"
      result=$?
    else
      command -v wine > /dev/null || { rm -rf "$images"; echo "SKIP: needs wine"; exit 77; }
      WINEPREFIX=$(mktemp -d /tmp/tl-ovmf-wine-XXXXXX)
      export WINEPREFIX WINEDEBUG=-all
      bash "$harness" -t 280 -m "$memory" "$placeholder" wine "$2" netboot --client-address 192.168.88.1 \
        --boot-images "Z:${images//\//\\}"
      result=$?
      wineserver -k > /dev/null 2>&1
      rm -rf "$WINEPREFIX"
    fi
    rm -rf "$images"
    exit $result
    ;;
  *)
    echo "usage: $0 native TARNLIFT BOOT_IMAGE_DIR | wine TARNLIFT_CLI_EXE | big-native|big-wine TARNLIFT EFI MIB"
    exit 2
    ;;
esac

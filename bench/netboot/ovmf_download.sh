#!/bin/bash
# How long a UEFI PC (QEMU with OVMF) takes to download its boot image over
# PXE: record 143 of MIB MiB (the UEFI placeholder, padded) served in turn by
# `tarnlift netboot` and by dnsmasq (DHCP and TFTP), RUNS boots each, timed on
# the PC's network segment from the read request that starts the transfer to
# the PC's last acknowledgement (bench/netboot/tftp_watch.py). Prints best
# and median seconds per server and Tarnlift's best time / dnsmasq's.
#
# usage: bench/netboot/ovmf_download.sh TARNLIFT PLACEHOLDER_EFI [RUNS] [MIB]
#   PLACEHOLDER_EFI: build/linux/netboot/placeholder/tarnlift-placeholder.efi
# Needs root, QEMU, OVMF and dnsmasq; each boot takes 15-25 s.
set -u
tarnlift=$1
efi=$2
runs=${3:-3}
mib=${4:-24}
here=$(cd "$(dirname "$0")" && pwd)
harness=$here/../../tests/lib/ovmf_pxe.sh
[ "$(id -u)" = 0 ] || { echo "needs root"; exit 77; }
command -v dnsmasq > /dev/null || { echo "needs dnsmasq"; exit 77; }
work=$(mktemp -d /tmp/tl-ovmf-bench-XXXXXX)
chmod 755 "$work"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/images" "$work/root"
python3 -c 'import struct,sys
efi=open(sys.argv[1],"rb").read()
size=int(sys.argv[2])*1048576+1
content=efi+bytes(size-len(efi))
open(sys.argv[3]+"/143.bin","wb").write(struct.pack("<I",len(content))+content)
open(sys.argv[4]+"/image","wb").write(content)' "$efi" "$mib" "$work/images" "$work/root"
chmod 644 "$work/root/image"
expected="Tarnlift placeholder boot image (record 143)"
memory=$((mib * 2 + 256))

boot() {  # NAME RUN SERVER_COMMAND...: one boot, its download time in $work/NAME.RUN
  local name=$1 run=$2
  shift 2
  rm -f "$work/$name.$run"
  bash "$harness" -t 150 -m "$memory" -w "python3 '$here/tftp_watch.py' \"\$TL_TAP\" '$work/$name.$run' 2 100" \
    "$expected" "$@" > "$work/$name.$run.log" 2>&1 || { echo "$name run $run failed:"; tail -20 "$work/$name.$run.log"; return 1; }
  echo "$name run $run: $(cat "$work/$name.$run")"
}

for run in $(seq 1 "$runs"); do
  boot tarnlift "$run" "$tarnlift" netboot --client-address 192.168.88.1 --boot-images "$work/images" || exit 1
  # dnsmasq prints no ready line of its own: the harness waits for one.
  boot dnsmasq "$run" bash -c "echo 'found: true' >&2; exec dnsmasq -k --port=0 --bind-interfaces \
    --listen-address=192.168.88.2 --dhcp-range=192.168.88.1,192.168.88.1,255.255.255.0 --dhcp-boot=image \
    --enable-tftp --tftp-root='$work/root' --user=root --group=root --pid-file='$work/dnsmasq.pid' \
    --dhcp-leasefile='$work/leases' --log-facility=/dev/null" || exit 1
done
python3 - "$work" "$runs" "$mib" << 'PY'
import statistics, sys
work, runs, mib = sys.argv[1], int(sys.argv[2]), sys.argv[3]
best = {}
for name in ("tarnlift", "dnsmasq"):
    times = sorted(float(open(f"{work}/{name}.{r}").read().split()[1]) for r in range(1, runs + 1))
    best[name] = times[0]
    print(f"{name:9s} {mib} MiB to OVMF: best {times[0]:.3f} s, median {statistics.median(times):.3f} s ({runs} boots)")
print(f"ratio tarnlift / dnsmasq (best): {best['tarnlift'] / best['dnsmasq']:.2f}")
PY

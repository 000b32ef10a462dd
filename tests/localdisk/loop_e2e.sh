#!/bin/bash
# End to end on Linux loop devices (as root), in a folder of the test's own:
# `tarnlift disk` refuses an image file that backs a loop device (its bytes
# stay as they were) and a partition (naming the whole disk instead); a
# target held at its check keeps a mount out; and a target whose name is
# swapped for a link to another loop device between the check and the first
# write is refused, with neither device written.
#   loop_e2e.sh TARNLIFT MKPKG
set -u
tarnlift=$1
mkpkg=$2
[ "$(id -u)" = 0 ] || { echo "skip: loop devices need root"; exit 77; }
for tool in losetup mkfs.fat mcopy syslinux; do
  command -v "$tool" > /dev/null || [ -x "/usr/sbin/$tool" ] || [ -x "/sbin/$tool" ] || { echo "skip: no $tool"; exit 77; }
done
work=$(mktemp -d /tmp/tl-disk-loops.XXXXXX)
loops=()
disk_pid=
cleanup() {
  [ -n "$disk_pid" ] && kill "$disk_pid" 2> /dev/null && wait "$disk_pid" 2> /dev/null
  for l in "${loops[@]}"; do
    delpart "$l" 1 2> /dev/null
    losetup -d "$l" 2> /dev/null
  done
  rm -rf "$work"
}
trap cleanup EXIT
here=$(cd "$(dirname "$0")" && pwd)
cd "$work" || exit 1
# shellcheck source=e2e_lib.sh
source "$here/e2e_lib.sh"
mkdir -p pk bi

# A small kit: any bytes for kernel and RAM disk, Debian's SYSLINUX installer.
"$mkpkg" pk/system-7.15.npk --package system 7.15 --arch i386 --data 200000 > /dev/null || exit 1
head -c 20000 /dev/urandom > kernel
head -c 9000 /dev/urandom > initrd
printf 'DEFAULT linux\n' > cfg
for r in "120 kernel" "132 initrd" "124 cfg" "134 $(command -v syslinux)"; do
  # shellcheck disable=SC2086
  "$tarnlift" bootimage wrap $r bi > /dev/null 2>&1 || { echo "cannot wrap record $r"; exit 1; }
done
run_disk() {  # run_disk TARGET OUT-PREFIX [ENV...]: tarnlift disk with the kit, --yes
  local target=$1 out=$2
  shift 2
  env "$@" "$tarnlift" disk "$target" --boot-images bi --packages pk --select system-7.15.npk --yes \
    > "$out.out" 2> "$out.err"
}
attach() {  # attach VAR IMAGE [losetup options]: VAR := the loop device, remembered for clean-up
  local var=$1 image=$2 loop
  shift 2
  loop=$(losetup -f --show "$@" "$image") || return 1
  loops+=("$loop")
  printf -v "$var" '%s' "$loop"
}
image() {  # image NAME: 40 MiB with random bytes in its first MiB
  truncate -s 40M "$1"
  head -c 1048576 /dev/urandom | dd of="$1" conv=notrunc status=none
}
head_sum() { head -c 1048576 "$1" | sha256sum; }

# 1. An image file that backs a loop device: refused, by name or through a
# link, and not one byte changes.
image backing.img
if attach backing_loop backing.img; then
  before=$(sha256sum < backing.img)
  ln -s backing.img other-name.img
  for name in backing.img other-name.img; do
    run_disk "$name" backing
    expect_refusal "backing file refused as $name" $? backing.err \
      "$name is the backing file of $backing_loop: detach it first (losetup -d $backing_loop)"
  done
  [ "$(sha256sum < backing.img)" = "$before" ] && pass "backing file unchanged" || fail "the backing file was written"
  losetup -d "$backing_loop"
fi

# 2. A partition: refused, naming the whole disk. (This kernel may read no
# partition tables; the partition is added by hand.)
image parted.img
if attach parted_loop parted.img -P && addpart "$parted_loop" 1 2048 40960 2> /dev/null; then
  partition=${parted_loop}p1
  if [ ! -b "$partition" ]; then
    numbers=$(cat "/sys/class/block/$(basename "$partition")/dev")
    partition=$work/partition-node
    mknod "$partition" b "${numbers%:*}" "${numbers#*:}"
  fi
  before=$(head_sum "$parted_loop")
  run_disk "$partition" parted
  expect_refusal "partition refused, whole disk named" $? parted.err \
    "$partition is a partition of $parted_loop: a disk is erased whole, so name the whole disk $parted_loop instead"
  [ "$(head_sum "$parted_loop")" = "$before" ] && pass "partitioned disk unchanged" || fail "the partitioned disk was written"
else
  echo "note: no partition could be added to a loop device here; skipped"
fi

# 3. The target's name swapped for a link to another loop device after the
# check: the run stops before its first write, names the change, and
# neither device is written. While it is held, the checked device cannot
# be mounted either.
image a.img
image b.img
if attach loop_a a.img && attach loop_b b.img; then
  ln -s "$loop_a" target
  sum_a=$(head_sum "$loop_a")
  sum_b=$(head_sum "$loop_b")
  run_disk target swap "TARNLIFT_TEST_PAUSE=physical:$work/pause" &
  disk_pid=$!
  for _ in $(seq 1 200); do [ -e pause.reached ] && break; sleep 0.05; done
  if [ -e pause.reached ]; then
    mkfs.fat -I "$loop_a" > /dev/null 2>&1 && fail "the held device could be formatted by another program" ||
      pass "the held device is kept from other programs"
    ln -sfn "$loop_b" target
    touch pause.go
  fi
  wait "$disk_pid"
  rc=$?
  disk_pid=
  if [ $rc -eq 1 ] && grep -q "refused: target changed since it was checked: it now leads to $loop_b" swap.err &&
     grep -q $'^target\tCannot open physical device$' swap.out; then
    pass "a target swapped after the check is refused"
  else
    fail "swapped target: exit $rc"; tail -3 swap.err swap.out
  fi
  [ "$(head_sum "$loop_a")" = "$sum_a" ] && pass "the checked device is unchanged" || fail "the checked device was written"
  [ "$(head_sum "$loop_b")" = "$sum_b" ] && pass "the other device is unchanged" || fail "the other device was written"
  # Unchanged, the same link is followed once and the device it leads to
  # becomes a bootable disk.
  ln -sfn "$loop_a" target
  run_disk target linked
  rc=$?
  if [ $rc -eq 0 ] && dd if="$loop_a" bs=1 skip=3 count=8 2> /dev/null | grep -q SYSLINUX &&
     mdir -a -b -i "$loop_a" ::ldlinux.sys > /dev/null 2>&1; then
    pass "a link to a free loop device makes a bootable disk"
  else
    fail "through a link: exit $rc"; tail -3 linked.err
  fi
fi

finish

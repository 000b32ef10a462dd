#!/bin/bash
# Time of `tarnlift disk` onto a new 256 MiB image file with 100 MB of
# packages: two packages of 60 and 40 MB with random contents, where
# --select extra-7.15.npk pulls in the other. It includes mkfs.fat, the
# boot loader's installer, the copies through mtools and the final flush.
# Prints each run's seconds, then the best and the median.
#
# usage: bench/localdisk/disk_bench.sh TARNLIFT MKPKG RECORDS [RUNS]
#   RECORDS: a folder with the records 120, 124, 132 and 134, such as the
#   boot test's kit: `tests/localdisk/boot_kit.sh $PWD/build/linux/bin/tarnlift
#   build/linux/bootkit` makes build/linux/bootkit/records.
# Not part of CI: compare two builds on the same machine, one after the other.
set -u
tarnlift=$(realpath "$1")
mkpkg=$(realpath "$2")
records=$(realpath "$3")
runs=${4:-5}
for tool in mkfs.fat mcopy syslinux; do
  command -v "$tool" > /dev/null || [ -x "/usr/sbin/$tool" ] || [ -x "/sbin/$tool" ] || { echo "needs $tool"; exit 77; }
done
work=$(mktemp -d /tmp/tl-disk-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export HOME=$work/home
unset XDG_CONFIG_HOME
mkdir -p "$HOME" pk

# A package whose data part holds SIZE random bytes: mkpkg writes zeros (the
# data part is the file's last), which are then overwritten in place.
random_package() {  # random_package FILE SIZE MKPKG-ARGS...
  local file=$1 size=$2
  shift 2
  "$mkpkg" "$file" "$@" --data "$size" > /dev/null || exit 1
  local total
  total=$(stat -c %s "$file")
  head -c "$size" /dev/urandom | dd of="$file" bs=1M seek=$((total - size)) oflag=seek_bytes conv=notrunc status=none
}
random_package pk/system-7.15.npk 60000000 --package system 7.15 --arch i386
random_package pk/extra-7.15.npk 40000000 --package extra 7.15 --arch i386 --depends system:7.15:7.15

times=()
for run in $(seq 1 "$runs"); do
  rm -f t256.img
  sync
  start=$(date +%s.%N)
  if ! "$tarnlift" disk t256.img --boot-images "$records" --packages pk --select extra-7.15.npk > out.txt 2> log.txt; then
    echo "run $run failed"; tail -n 5 out.txt log.txt; exit 1
  fi
  end=$(date +%s.%N)
  seconds=$(echo "$end - $start" | bc -l)
  printf 'run %d: %.3f s\n' "$run" "$seconds"
  times+=("$seconds")
done
printf '%s\n' "${times[@]}" | sort -n > sorted.txt
best=$(head -n 1 sorted.txt)
median=$(sed -n "$(((runs + 1) / 2))p" sorted.txt)
printf 'best %.3f s, median %.3f s over %d runs\n' "$best" "$median" "$runs"

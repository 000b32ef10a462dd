#!/bin/sh
# Builds the installation protocol's fuzz targets (preset "fuzz", clang) and
# runs each for a bounded time with AddressSanitizer and
# UndefinedBehaviorSanitizer.
#
#   fuzz/install/run.sh [TOTAL_SECONDS]     default 60, shared by the targets
#
# Exits non-zero when a target finds a crash, a leak, undefined behaviour or
# a time-out; the reproducer is left in build/fuzz/findings/.
set -eu
total=${1:-60}
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"

cmake --preset fuzz > /dev/null
targets="install_datagram_fuzzer announcement_fuzzer"
cmake --build build/fuzz -j2 --target $targets

count=$(echo $targets | wc -w)
each=$((total / count))
[ "$each" -ge 1 ] || each=1
mkdir -p build/fuzz/findings
status=0
for target in $targets; do
  corpus=build/fuzz/corpus/$target
  mkdir -p "$corpus"
  echo "== $target: ${each}s"
  if ! build/fuzz/fuzz/$target -max_total_time="$each" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
      -print_final_stats=1 -artifact_prefix=build/fuzz/findings/$target- "$corpus" "fuzz/install/seeds/$target" \
      2> build/fuzz/$target.log; then
    status=1
    echo "FINDING in $target (see build/fuzz/$target.log and build/fuzz/findings/)"
    tail -40 build/fuzz/$target.log
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb|^Done" build/fuzz/$target.log || true
done
exit $status

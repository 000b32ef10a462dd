#!/bin/sh
# Builds every libFuzzer target (preset "fuzz", clang, with AddressSanitizer
# and UndefinedBehaviorSanitizer) and runs each for a bounded time.
#
#   fuzz/run.sh [TOTAL_SECONDS [TARGET...]]   default 60 s, shared by the targets
#
# Targets are the fuzz/*/*_fuzzer.cpp programs; each starts from
# its seeds in fuzz/*/seeds/TARGET and keeps what it learns in
# build/fuzz/corpus/TARGET. Exits non-zero when a target finds a crash, a
# leak, undefined behaviour or a time-out; the reproducer is left in
# build/fuzz/findings/. Longer runs: fuzz/run.sh 3600
set -eu
total=${1:-60}
[ $# -gt 0 ] && shift
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

cmake --preset fuzz >/dev/null
if [ $# -gt 0 ]; then
  targets="$*"
else
  targets=$(for source in fuzz/*/*_fuzzer.cpp; do basename "$source" .cpp; done)
fi
# Only the fuzz targets: other programs cannot link the instrumented libraries.
cmake --build build/fuzz -j2 --target $targets

count=$(echo $targets | wc -w)
each=$((total / count))
[ "$each" -ge 1 ] || each=1
mkdir -p build/fuzz/findings
status=0
for target in $targets; do
  corpus=build/fuzz/corpus/$target
  mkdir -p "$corpus"
  seeds=$(ls -d fuzz/*/seeds/"$target" 2>/dev/null || true)
  echo "== $target: ${each}s"
  if ! build/fuzz/fuzz/$target -max_total_time="$each" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix=build/fuzz/findings/$target- "$corpus" $seeds \
      2>build/fuzz/$target.log; then
    status=1
    echo "FINDING in $target (see build/fuzz/$target.log and build/fuzz/findings/)"
    tail -40 build/fuzz/$target.log
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb|^Done" build/fuzz/$target.log || true
done
exit $status

#!/usr/bin/env bash
# Builds every configuration and runs every test: native, with AddressSanitizer
# and UndefinedBehaviorSanitizer, with ThreadSanitizer, the Windows build under
# Wine (with Xvfb for windows), and the fuzz targets for a bounded time.
# Network tests make their own namespaces: it runs as root (and asks sudo for
# that when started as a user).
set -uo pipefail
# shellcheck source=as_root.sh
source "$(dirname "$0")/as_root.sh"
as_root test-all "$@"
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
# Tests at a time: most of a test's time is spent waiting (time-outs, network
# namespaces, Wine start-ups, QEMU boots; the native suite used 105 s of
# processor in 230 s with two at a time), so twice the cores keeps them busy.
# Each test has its own namespaces, temporary folders and Wine prefix.
test_jobs=${TEST_JOBS:-$((2 * jobs))}
# Seconds of fuzzing, shared by all the fuzz targets.
fuzz_seconds=${FUZZ_SECONDS:-60}
status=0
summary=()
started=$(date +%s)

# Processor time (user + system) of this script's finished children, in
# hundredths of a second: beside the wall time it shows what a step costs on
# a machine that others share too.
cpu_ticks() {
  local fields
  read -r -a fields < /proc/$$/stat
  echo $((fields[15] + fields[16]))
}

step() {
  local name=$1
  shift
  local begin cpu_begin outcome=ok
  begin=$(date +%s)
  cpu_begin=$(cpu_ticks)
  echo "=== $name"
  if ! "$@"; then
    outcome=FAILED
    status=1
  fi
  summary+=("$(printf '%-7s %s (%d s, cpu %d s)' "$outcome" "$name" $(($(date +%s) - begin)) \
    $((($(cpu_ticks) - cpu_begin) / 100)))")
}

# CI's trees are the presets' own with two changes that cost nothing in
# what is tested: unity builds, where several sources of a target are compiled
# as one (the headers of GoogleTest, CLI11 and nlohmann-json, and the code
# made from their templates, once per batch instead of once per file); and
# line tables instead of full debugger information, since no debugger reads
# these trees and line tables are what the sanitizers' reports and the
# backtraces need. The settings stay in each tree's cache, so
# scripts/package.sh and fuzz/run.sh bring the same trees up to date.
ci_settings=(-DCMAKE_UNITY_BUILD=ON "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_DEBUG=-g1")
configure() { cmake --preset "$1" "${ci_settings[@]}" >/dev/null; }

build() { configure "$1" && cmake --build "build/$1" -j "$jobs"; }

native_tests() { ctest --test-dir build/linux --output-on-failure -j "$test_jobs" --timeout 900; }

# The sanitizer run covers the unit tests; the namespace end-to-end tests
# already ran natively and would only be slower here.
# Cancelling a thread (destroy of a stuck body) unwinds it without ASan
# seeing the frames go; its alternate signal stack check then misfires.
export ASAN_OPTIONS=${ASAN_OPTIONS:-use_sigaltstack=0}
sanitizer_tests() { ctest --test-dir build/linux-asan --output-on-failure -j "$test_jobs" -LE slow --timeout 900; }

# ThreadSanitizer over the unit test programs, which hold the in-process end
# to end runs too (sessions with simulated routers, the boot server with
# clients, threads started and stopped). Left out: the death tests that
# unlock a mutex they do not own on purpose (the sanitizer rightly stops
# them), and the settings crash test, which forks a thousand writers.
tsan_tests() {
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
    GTEST_FILTER='-MutexDeathTest.Unlock*:SettingsFileCrash.*' \
    ctest --test-dir build/linux-tsan --output-on-failure -j "$jobs" -R '_tests$' --timeout 600
}

windows_tests() {
  export WINEPREFIX
  WINEPREFIX=$(mktemp -d /tmp/tarnlift-wine.XXXXXX)
  export WINEDEBUG=-all
  # Make the prefix now, then let its server end: a server started without a
  # display would keep the windows of later runs out of reach of the probes.
  wineboot -i >/dev/null 2>&1 || true
  wineserver -w || true
  local result=0
  # Side by side like the native tests: each test that starts a server or
  # a boot has its own namespaces, Wine prefix and temporary folder; the
  # window tests take a screen of their own (tests/gui/CMakeLists.txt).
  xvfb-run -a ctest --test-dir build/windows --output-on-failure -j "$test_jobs" --timeout 900 || result=1
  wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
  return $result
}

# The Debian package and the Windows zip from the trees built above; the
# .deb is installed, run and removed again (as root), the zip unpacked and run
# under Wine.
packages() {
  bash scripts/package.sh && WINEDEBUG=-all bash tests/packaging/check_packages.sh build/dist
}

# ThreadSanitizer runs only the unit test programs, so only they (and what
# they depend on) are built: the programs, tools and benchmarks would only
# cost minutes under the sanitizer's compiler.
build_tsan_tests() {
  configure linux-tsan || return 1
  local targets
  targets=$(ctest --test-dir build/linux-tsan -N -R '_tests$' | sed -n 's/^ *Test *#[0-9]*: *\([a-z_]*_tests\)$/\1/p')
  [ -n "$targets" ] || return 1
  # shellcheck disable=SC2086
  cmake --build build/linux-tsan -j "$jobs" --target $targets
}

fuzz_all() { configure fuzz && bash fuzz/run.sh "$fuzz_seconds"; }

step "build linux" build linux
step "tests linux" native_tests
step "build linux-asan" build linux-asan
step "tests linux-asan" sanitizer_tests
step "build linux-tsan" build_tsan_tests
step "tests linux-tsan" tsan_tests
step "build windows" build windows
step "tests windows (Wine)" windows_tests
step "packages (.deb and zip)" packages
step "fuzz (${fuzz_seconds} s in all)" fuzz_all

echo
echo "=== Summary ($(($(date +%s) - started)) s, cpu $(($(cpu_ticks) / 100)) s, load $(cut -d' ' -f1-3 /proc/loadavg))"
printf '%s\n' "${summary[@]}"
exit $status

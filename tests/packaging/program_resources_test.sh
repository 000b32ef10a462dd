#!/usr/bin/env bash
# Both Windows programs carry a version resource (product "Tarnlift", company
# "Quenlark", the build's version) and a manifest (asInvoker, Windows 7 to
# 11, per-monitor DPI awareness, long paths); the window also asks for the
# themed controls, the console program does not. Read under Wine by a probe
# that asks Windows' own version and resource functions.
# usage: program_resources_test.sh PROBE.exe BIN_DIR VERSION_TEXT FILE_VERSION
set -uo pipefail
probe=$1 bin=$2 words=$3 fileversion=$4
status=0
check() { # PROGRAM PATTERN WHAT
  if grep -qE -- "$2" "$work/$1.txt"; then echo "ok: $1: $3"; else echo "FAIL: $1: $3"; status=1; fi
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for program in tarnlift tarnlift-cli; do
  wine "$probe" "$bin/$program.exe" 2> /dev/null | tr -d '\r' > "$work/$program.txt" || { echo "FAIL: probe $program"; status=1; }
  check $program "^CompanyName=Quenlark$" "company"
  check $program "^ProductName=Tarnlift$" "product"
  check $program "^FileVersion=$words$" "version text"
  check $program "^ProductVersion=$words$" "product version text"
  check $program "^fileversion=$fileversion$" "file version $fileversion"
  check $program "^OriginalFilename=$program.exe$" "file name"
  check $program "^manifest=.*requestedExecutionLevel level=\"asInvoker\"" "asInvoker"
  check $program "^manifest=.*PerMonitorV2" "per-monitor DPI awareness"
  check $program "^manifest=.*<longPathAware[^>]*>true<" "long paths"
  check $program "^manifest=.*35138b9a-5d96-4fbd-8e2d-a2440225f93a.*8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a" "Windows 7 to 11"
done
check tarnlift "^manifest=.*Microsoft.Windows.Common-Controls\" version=\"6.0.0.0\"" "themed controls"
if grep -q "Common-Controls" "$work/tarnlift-cli.txt"; then echo "FAIL: the console program asks for the themed controls"; status=1; fi
[ $status = 0 ] && echo "PASS"
exit $status

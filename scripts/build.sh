#!/usr/bin/env bash
# Builds the Linux program (build/linux/bin/tarnlift) and the Windows
# programs (build/windows/bin/tarnlift.exe, tarnlift-cli.exe).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
cmake --preset linux >/dev/null
cmake --build build/linux -j "$jobs"
cmake --preset windows >/dev/null
cmake --build build/windows -j "$jobs"

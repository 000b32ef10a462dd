#!/usr/bin/env bash
# Builds the two packages from this tree: the Debian package (Linux build)
# and the Windows zip and installer (mingw-w64 build, wixl), and copies them
# to build/dist/.
#   build/dist/tarnlift_<version>_amd64.deb
#   build/dist/tarnlift-<version>-win64.zip
#   build/dist/tarnlift-<version>-win64.msi
# The build trees are the presets' own (build/linux, build/windows), so a
# tree that is already built is only brought up to date.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-$(nproc)}
mkdir -p build/dist
for preset in linux windows; do
  cmake --preset "$preset" > /dev/null
  cmake --build "build/$preset" -j "$jobs"
  rm -rf "build/$preset/dist"
  (cd "build/$preset" && cpack > /dev/null)
done
rm -f build/dist/tarnlift_*.deb build/dist/tarnlift-*.zip build/dist/tarnlift-*.msi
cp build/linux/dist/tarnlift_*.deb build/windows/dist/tarnlift-*.zip build/dist/
# The Windows installer, from the source the Windows build configured.
wixl -a x64 -o "build/dist/$(cat build/windows/packaging/msi-name.txt)" build/windows/packaging/tarnlift.wxs
ls -l build/dist/tarnlift_*.deb build/dist/tarnlift-*.zip build/dist/tarnlift-*.msi

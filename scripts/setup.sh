#!/usr/bin/env bash
# Installs what building and testing Tarnlift needs on Debian 12 (as root;
# started as a user it asks sudo). Safe to run again: it installs only what is
# missing.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=as_root.sh
source "$here/scripts/as_root.sh"
as_root setup "$@"
mapfile -t wanted < <(sed -e 's/#.*//' -e '/^[[:space:]]*$/d' "$here/.ci/apt-packages")
missing=()
for package in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#wanted[@]} packages present"
  exit 0
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
if ! apt-get install -y --no-install-recommends "${missing[@]}"; then
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi

#!/usr/bin/env bash
# Both service units stay locked down: systemd's own offline rating of their
# exposure is at most 2.0, they wait for the server's readiness notice, and
# they read their options through --options-file.
# usage: units_security_test.sh PACKAGING_DIR
set -uo pipefail
dir=$1
command -v systemd-analyze > /dev/null || { echo "SKIP: no systemd-analyze"; exit 77; }
status=0
for unit in tarnlift.service tarnlift@.service; do
  line=$(systemd-analyze security --offline=true "$dir/$unit" 2>&1 | grep "Overall exposure level")
  level=$(sed -n 's/.*: \([0-9][0-9]*\.[0-9]\).*/\1/p' <<< "$line")
  [ -n "$level" ] || { echo "FAIL: $unit: no rating: $line"; status=1; continue; }
  if awk -v l="$level" 'BEGIN { exit !(l <= 2.0) }'; then
    echo "ok: $unit exposure $level"
  else
    echo "FAIL: $unit exposure $level, above 2.0"
    status=1
  fi
  grep -qx "Type=notify" "$dir/$unit" || { echo "FAIL: $unit is not Type=notify"; status=1; }
  grep -q "^ExecStart=/usr/bin/tarnlift serve --options-file /etc/tarnlift/" "$dir/$unit" ||
    { echo "FAIL: $unit does not read an options file"; status=1; }
done
[ $status = 0 ] && echo "PASS"
exit $status

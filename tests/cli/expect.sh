#!/usr/bin/env bash
# expect.sh CODE STDOUT_REGEX STDERR_REGEX -- COMMAND...
# Runs COMMAND and checks its exit code and that each stream matches its
# extended regular expression (an empty regex requires an empty stream).
set -u
code=$1 out_re=$2 err_re=$3
shift 4
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
"$@" >"$out" 2>"$err"
rc=$?
tr -d '\r' <"$out" >"$out.n" && mv "$out.n" "$out"
tr -d '\r' <"$err" >"$err.n" && mv "$err.n" "$err"
ok=1
[ "$rc" -eq "$code" ] || { echo "exit code $rc, expected $code"; ok=0; }
check() {
  local file=$1 re=$2 name=$3
  if [ -z "$re" ]; then
    [ -s "$file" ] && { echo "$name should be empty"; ok=0; }
  else
    grep -Eq -- "$re" "$file" || { echo "$name does not match /$re/"; ok=0; }
  fi
}
check "$out" "$out_re" stdout
check "$err" "$err_re" stderr
if [ $ok -eq 0 ]; then
  echo "--- stdout:"; cat "$out"; echo "--- stderr:"; cat "$err"
  exit 1
fi
echo "ok"

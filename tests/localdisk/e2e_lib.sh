# Sourced by the local disk end-to-end tests once they are in their own
# scratch folder: mtools without its geometry check, the program's settings
# in that folder, and the counting of checks.
#   pass TEXT / fail TEXT     one check passed or failed
#   expect_refusal WHAT RC ERR-FILE REASON
#                             exit code 1 and "refused: REASON" in ERR-FILE
#   finish                    the summary; exits 1 when a check failed
export MTOOLS_SKIP_CHECK=1
export HOME=$PWD/home
unset XDG_CONFIG_HOME
mkdir -p "$HOME"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }
expect_refusal() {
  if [ "$2" -eq 1 ] && grep -qF "refused: $4" "$3"; then
    pass "$1"
  else
    fail "$1: exit $2"
    tail -2 "$3"
  fi
}
finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
  fi
  echo "all checks passed"
  exit 0
}

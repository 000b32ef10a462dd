# Sourced by the scripts that need root (installing packages, network
# namespaces): run as root they go on at once; run as a user they start
# themselves again through sudo, which asks for the password, so that one
# command line serves both a root shell (where Debian has no sudo) and a user.
#   as_root NAME "$@"
as_root() {
  local name=$1
  shift
  [ "$(id -u)" = 0 ] && return 0
  if ! command -v sudo > /dev/null 2>&1; then
    echo "$name: needs root: run it as root (sudo is not installed)" >&2
    exit 2
  fi
  echo "$name: needs root, asking sudo" >&2
  exec sudo --preserve-env bash "$0" "$@"
}

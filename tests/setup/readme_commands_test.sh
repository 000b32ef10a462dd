#!/bin/bash
# The README's two commands work as written both for root (no sudo on a fresh
# Debian machine used as root) and for a user (the scripts ask sudo for root
# themselves), and CI runs the README's test command word for word.
# usage: readme_commands_test.sh SOURCE_DIR
set -u
source_dir=$(cd "$1" && pwd)
fail() { echo "FAIL: $*"; exit 1; }

# The first code block of the README: the two commands.
mapfile -t commands < <(awk '/^```/{n++; next} n==1' "$source_dir/README.md")
[ ${#commands[@]} -eq 2 ] || fail "expected two commands in the README, found ${#commands[@]}"
for command in "${commands[@]}"; do
  case $command in
    *sudo*) fail "a README command calls sudo, which a root shell on Debian does not have: $command" ;;
  esac
done
grep -qxF "${commands[1]}" "$source_dir/.ci/run" || fail ".ci/run does not run the README's test command: ${commands[1]}"

# Every script that those commands run and that needs root asks for it.
work=$(mktemp -d /tmp/tl-readme-XXXXXX)
chmod 755 "$work"
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin" "$work/nosudo"
# A stand-in sudo that only records how it was called.
cat > "$work/bin/sudo" << STANDIN
#!/bin/sh
echo "\$@" > $work/sudo-called
STANDIN
chmod 755 "$work/bin/sudo"
for tool in bash id dirname cat sed env sh; do ln -s "$(command -v $tool)" "$work/nosudo/$tool"; done

if [ "$(id -u)" != 0 ]; then
  echo "SKIP: the user half needs root to become another user"
  exit 77
fi
command -v runuser > /dev/null || { echo "SKIP: needs runuser"; exit 77; }
# The user runs a copy of the scripts: the checkout itself may sit where
# other users cannot read (root's home in CI).
root_dir=$source_dir
source_dir=$work/src
mkdir -p "$source_dir/.ci"
cp -r "$root_dir/scripts" "$source_dir/"
cp "$root_dir/.ci/apt-packages" "$source_dir/.ci/"
chmod -R a+rX "$source_dir"

for script in setup demo test-all; do
  : > "$work/sudo-called"
  chmod 666 "$work/sudo-called"
  runuser -u nobody -- env PATH="$work/bin:$PATH" bash "$source_dir/scripts/$script.sh" > "$work/out" 2>&1
  result=$?
  [ $result -eq 0 ] || { cat "$work/out"; fail "$script.sh as a user ended with $result instead of handing over to sudo"; }
  grep -q "bash $source_dir/scripts/$script.sh" "$work/sudo-called" ||
    fail "$script.sh as a user did not start itself again through sudo: $(cat "$work/sudo-called" 2> /dev/null)"
  # Without sudo installed, the user is told to run it as root.
  runuser -u nobody -- env PATH="$work/nosudo" bash "$source_dir/scripts/$script.sh" > "$work/out" 2>&1
  result=$?
  [ $result -eq 2 ] && grep -q "run it as root" "$work/out" || { cat "$work/out"; fail "$script.sh without sudo: $result"; }
done

# As root the scripts go on without sudo: setup finds what is installed (or
# installs it), never calling the stand-in.
rm -f "$work/sudo-called"
PATH="$work/bin:$PATH" bash "$source_dir/scripts/setup.sh" > "$work/out" 2>&1 || { cat "$work/out"; fail "setup.sh as root failed"; }
[ ! -e "$work/sudo-called" ] || fail "setup.sh as root called sudo"
echo "README commands: no sudo needed as root; setup, demo and test-all ask sudo as a user"

#!/usr/bin/env bash
# The manual page and the bash completion name every command, every action
# and every option that the program's own help lists (`tarnlift --help`, then
# `tarnlift COMMAND --help` and `tarnlift COMMAND ACTION --help`, all made
# from the one definition of each command), so that a new option cannot ship
# undocumented.
# usage: manpage_covers_cli.sh TARNLIFT MANPAGE COMPLETION
set -uo pipefail
tarnlift=$1 manpage=$2 completion=$3
help=$("$tarnlift" --help) || { echo "FAIL: $tarnlift --help"; exit 1; }
# The page's text with roff's escaped minus signs made plain.
page=$(sed 's/\\-/-/g' "$manpage")
status=0
commands=$(sed -n 's/^  \([a-z][a-z-]*\)$/\1/p' <<< "$help")
[ -n "$commands" ] || { echo "FAIL: no commands in --help"; exit 1; }
options=""
checked=0
# The actions a command's help lists under "Subcommands:".
actions_of() { sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p' <<< "$1"; }
for command in $commands; do
  grep -qE "^\.(B|BI|BR) \"?$command( |\"|$)" <<< "$page" || { echo "FAIL: man page lacks command $command"; status=1; }
  grep -qw -- "$command" "$completion" || { echo "FAIL: completion lacks command $command"; status=1; }
  command_help=$("$tarnlift" "$command" --help) || { echo "FAIL: $command --help exits $?"; status=1; continue; }
  options+=" $(grep -oE -- '--[a-z][a-z-]*' <<< "$command_help")"
  checked=$((checked + 1))
  for action in $(actions_of "$command_help"); do
    grep -qw -- "$action" <<< "$page" || { echo "FAIL: man page lacks $command $action"; status=1; }
    grep -qw -- "$action" "$completion" || { echo "FAIL: completion lacks $command $action"; status=1; }
    action_help=$("$tarnlift" "$command" "$action" --help) || { echo "FAIL: $command $action --help"; status=1; continue; }
    options+=" $(grep -oE -- '--[a-z][a-z-]*' <<< "$action_help")"
  done
done
options+=" $(grep -oE -- '--[a-z][a-z-]*' <<< "$help")"
for option in $(tr ' ' '\n' <<< "$options" | sed '/^$/d' | sort -u); do
  grep -qF -- "$option" <<< "$page" || { echo "FAIL: man page lacks option $option"; status=1; }
  case $option in --help | --version) continue ;; esac
  grep -qF -- "$option" "$completion" || { echo "FAIL: completion lacks option $option"; status=1; }
done
[ $status = 0 ] && echo "PASS: $checked commands and their options documented"
exit $status

#!/usr/bin/env bash
# The manual page and the bash completion name every command and every option
# that `tarnlift --help` lists, so that a new option cannot ship undocumented.
# usage: manpage_covers_cli.sh TARNLIFT MANPAGE COMPLETION
set -uo pipefail
tarnlift=$1 manpage=$2 completion=$3
help=$("$tarnlift" --help) || { echo "FAIL: $tarnlift --help"; exit 1; }
# The page's text with roff's escaped minus signs made plain.
page=$(sed 's/\\-/-/g' "$manpage")
status=0
commands=$(sed -n 's/^  \([a-z][a-z-]*\).*/\1/p' <<< "$help")
[ -n "$commands" ] || { echo "FAIL: no commands in --help"; exit 1; }
for command in $commands; do
  grep -qE "^\.(B|BI|BR) \"?$command( |\"|$)" <<< "$page" || { echo "FAIL: man page lacks command $command"; status=1; }
  grep -qw -- "$command" "$completion" || { echo "FAIL: completion lacks command $command"; status=1; }
done
for option in $(grep -oE -- '--[a-z][a-z-]*' <<< "$help" | sort -u); do
  grep -qF -- "$option" <<< "$page" || { echo "FAIL: man page lacks option $option"; status=1; }
  case $option in --help | --version) continue ;; esac
  grep -qF -- "$option" "$completion" || { echo "FAIL: completion lacks option $option"; status=1; }
done
[ $status = 0 ] && echo "PASS: $(wc -w <<< "$commands") commands and their options documented"
exit $status

#!/usr/bin/env bash
# The folders' include rules of docs/architecture.md, checked: every
# #include "folder/..." in a product folder must name the folder itself or
# one it may include. Prints each offending line and fails on any.
#   imports_test.sh SOURCE_DIR
set -u
top=$1
declare -A allowed=(
  [app]=""
  [net]="app"
  [packages]="app"
  [netboot]="app net"
  [install]="app net netboot packages"
  [localdisk]="app install netboot packages"
  [doctor]="app net netboot packages"
  [web]="app net packages netboot install"
  [ui]="app net packages netboot install localdisk doctor resources"
  [cli]="app net packages netboot install localdisk doctor web"
  [tools]="net netboot packages install"
)
bad=0
checked=0
for folder in "${!allowed[@]}"; do
  [ -d "$top/$folder" ] || { echo "FAIL: no folder $folder"; exit 1; }
  while IFS= read -r hit; do
    file=${hit%%:*}
    rest=${hit#*:}
    line=${rest%%:*}
    included=$(sed -E 's/.*#include "([a-z_]+)\/.*/\1/' <<< "$rest")
    checked=$((checked + 1))
    [ "$included" = "$folder" ] && continue
    case " ${allowed[$folder]} " in
      *" $included "*) ;;
      *) echo "FAIL: ${file#"$top"/}:$line: $folder/ may not include $included/"; bad=1 ;;
    esac
  done < <(grep -rnE '^#include "[a-z_]+/' "$top/$folder" --include='*.cpp' --include='*.h')
done
[ "$checked" -gt 100 ] || { echo "FAIL: only $checked includes found under $top"; exit 1; }
[ "$bad" = 0 ] && echo "ok: $checked includes follow the folders' rules"
exit "$bad"

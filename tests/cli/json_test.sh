#!/usr/bin/env bash
# `bootimage list --json` and `drives --json` print one JSON document each
# that says what their text says.
# usage: json_test.sh TARNLIFT... (an emulator and the program, or the program)
set -uo pipefail
command -v python3 >/dev/null || { echo "SKIP: needs python3"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/images"
# 143: on Windows the test records 129 to 139 come from the program itself.
printf 'a test record body' > "$work/body"
"$@" bootimage wrap 143 "$work/body" "$work/images" > /dev/null || { echo "FAIL: wrap"; exit 1; }
"$@" bootimage list --boot-images "$work/images" > "$work/list.txt" || { echo "FAIL: list"; exit 1; }
"$@" bootimage list --boot-images "$work/images" --json > "$work/list.json" || { echo "FAIL: list --json"; exit 1; }
python3 - "$work/list.txt" "$work/list.json" <<'PY' || exit 1
import json, sys
text = open(sys.argv[1], encoding="utf-8").read().replace("\r", "")
doc = json.load(open(sys.argv[2], encoding="utf-8"))
records = {r["number"]: r for r in doc["records"]}
assert records[143]["size"] == len("a test record body"), records[143]
assert records[143]["place"].replace("\\", "/").endswith("/images"), records[143]
missing = text.split("missing:")[1].split()
assert [str(n) for n in doc["missing"]] == ([] if missing == ["none"] else missing), (doc["missing"], missing)
for line in text.splitlines():
    if line.startswith("  ") and "\t" in line:
        number = int(line.split("\t")[0])
        assert number in records, line
assert any(o["folder"] is True and o["present"] is True and o["place"].endswith("images")
           for o in doc["searchOrder"]), doc["searchOrder"]
PY
"$@" drives > "$work/drives.txt" || { echo "FAIL: drives"; exit 1; }
"$@" drives --json > "$work/drives.json" || { echo "FAIL: drives --json"; exit 1; }
python3 - "$work/drives.txt" "$work/drives.json" <<'PY' || exit 1
import json, sys
rows = [l.split("\t") for l in open(sys.argv[1], encoding="utf-8").read().replace("\r", "").splitlines() if l]
doc = json.load(open(sys.argv[2], encoding="utf-8"))
assert [[d["label"], d["mac"], d["type"], d["description"]] for d in doc] == rows, (doc, rows)
PY
echo "PASS"

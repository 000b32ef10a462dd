#!/usr/bin/env bash
# `packages --json` says what the tab-separated lines say, field by field,
# for descriptions with quotes, backslashes, a control character, UTF-8 and a
# byte that is not UTF-8; the document is plain ASCII and parses.
# usage: packages_json_test.sh MKPKG TARNLIFT... (an emulator and the program, or the program)
set -uo pipefail
command -v python3 >/dev/null || { echo "SKIP: needs python3"; exit 77; }
mkpkg=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/pk"
"$mkpkg" "$work/pk/odd-1.0.npk" --package odd 1.0 --description $'byte \xe9, control \x01, UTF-8 \xc3\xbc' > /dev/null ||
  { echo "FAIL: mkpkg odd"; exit 1; }
"$mkpkg" "$work/pk/quote-1.0.npk" --package quote 1.0 --description 'a "quoted" \back\slash' > /dev/null ||
  { echo "FAIL: mkpkg quote"; exit 1; }
"$mkpkg" "$work/pk/plain-2.0.npk" --package plain 2.0 --arch mipsel --description "Plain" > /dev/null ||
  { echo "FAIL: mkpkg plain"; exit 1; }
# On a failure, what the program said and printed comes with the message.
show() { echo "--- standard error"; cat "$work/err"; echo "--- text"; cat -v "$work/list.txt"; echo "--- json"; cat -v "$work/list.json"; }
"$@" packages --tick plain-2.0.npk "$work/pk" > "$work/list.txt" 2> "$work/err" ||
  { echo "FAIL: packages exits $?"; show; exit 1; }
"$@" packages --json --tick plain-2.0.npk "$work/pk" > "$work/list.json" 2> "$work/err" ||
  { echo "FAIL: packages --json exits $?"; show; exit 1; }
python3 - "$work/list.txt" "$work/list.json" <<'PY' || { show; exit 1; }
import json, sys
raw = open(sys.argv[2], "rb").read()
assert all(b < 0x80 for b in raw), "the JSON document is not plain ASCII: %r" % raw
doc = json.loads(raw.decode("ascii"))
text = open(sys.argv[1], "rb").read().decode("utf-8", errors="replace").replace("\r", "")
lines = [l.split("\t") for l in text.split("\n") if l]
rows = [l for l in lines if l[0] not in ("selected", "order")]
assert len(rows) == 3 and len(doc["packages"]) == 3, (rows, doc)
for fields, row in zip(rows, doc["packages"]):
    got = [row["file"], row["name"], row["version"], row["architecture"], row["description"], str(row["state"])]
    assert got == fields, (got, fields)
    assert row["checked"] == (row["state"] in (1, 4)), row
odd = next(r for r in doc["packages"] if r["name"] == "odd")
assert odd["description"] == "byte \ufffd, control \x01, UTF-8 \u00fc", repr(odd["description"])
assert "\\u0001" in raw.decode("ascii") and "\\u00fc" in raw.decode("ascii"), raw
for tag in ("selected", "order"):
    line = next(l for l in lines if l[0] == tag)
    assert doc[tag] == line[1:], (tag, doc[tag], line)
PY
echo "PASS"

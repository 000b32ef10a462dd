#!/usr/bin/env python3
"""Wraps a file into a boot image record at build time: a 32-bit
little-endian content length followed by the content, no padding. The same
form `tarnlift bootimage wrap` writes; this script serves builds that have no
host `tarnlift` to run (the Windows cross build).

usage: wrap_record.py CONTENT RECORD
"""
import struct
import sys


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    content = open(sys.argv[1], "rb").read()
    with open(sys.argv[2], "wb") as out:
        out.write(struct.pack("<I", len(content)) + content)


if __name__ == "__main__":
    main()

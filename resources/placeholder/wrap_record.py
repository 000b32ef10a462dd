#!/usr/bin/env python3
"""Wraps a file into a boot image record at build time: a 32-bit
little-endian content length followed by the content, no padding. The same
form `tarnlift bootimage wrap` writes; this script serves builds that have no
host `tarnlift` to run (the Windows cross build).

usage: wrap_record.py [--odd-length] CONTENT RECORD

--odd-length appends a short text trailer (and a newline when needed) so that
the content has an odd length. The TFTP server ends a transfer when the last
block is acknowledged and sends no closing empty block, so a client of a file
whose length is a multiple of its block size would wait for one forever; an
odd length is a multiple of no usual (even) block size. Bytes behind the
last section of a UEFI image are not loaded, and a BIOS boot program never
runs into its tail, so the trailer changes nothing. The trailer names the
record number, taken from RECORD's file name ("125.bin").
"""
import os
import struct
import sys


def main():
    args = sys.argv[1:]
    odd = "--odd-length" in args
    args = [a for a in args if a != "--odd-length"]
    if len(args) != 2:
        sys.exit(__doc__)
    content = open(args[0], "rb").read()
    if odd:
        number = os.path.basename(args[1]).split(".")[0]
        content += b"\nTARNLIFT PLACEHOLDER BOOT IMAGE " + number.encode() + b"\n"
        if len(content) % 2 == 0:
            content += b"\n"
    with open(args[1], "wb") as out:
        out.write(struct.pack("<I", len(content)) + content)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Writes the test boot image records shipped with Tarnlift.

These are TEST IMAGES: a text line naming the record followed by
deterministic filler bytes. They boot nothing. They let the boot services be
exercised end to end; whoever deploys Tarnlift replaces them with real boot
images wrapped by `tarnlift bootimage wrap NUMBER FILE DIR`. Record 143 is
not made here: the build makes a UEFI placeholder for it from
resources/placeholder/.

Record layout: 32-bit little-endian content length, the content, then
optional padding (ignored by the store).
"""
import struct
import sys
from pathlib import Path

# number: (content length, padding bytes after the content)
IMAGES = {
    129: (3000, 0),
    130: (4096, 3),      # a multiple of 512, with padding behind the content
    131: (1468, 0),      # exactly one block of the largest TFTP block size
    135: (2935, 0),
    136: (8192, 0),
    137: (5000, 12),
    138: (1469, 0),
    139: (10000, 0),
}


def content(number, length):
    head = f"TARNLIFT TEST BOOT IMAGE {number}: placeholder payload, not a bootable program\n".encode()
    state = number * 2654435761 & 0xFFFFFFFF
    filler = bytearray()
    while len(head) + len(filler) < length:
        state = (state * 1103515245 + 12345) & 0x7FFFFFFF
        filler.append((state >> 16) & 0xFF)
    return (head + bytes(filler))[:length]


def main():
    out = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).parent
    for number, (length, padding) in IMAGES.items():
        data = content(number, length)
        (out / f"{number}.bin").write_bytes(struct.pack("<I", len(data)) + data + b"\0" * padding)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Draws the list views' small pictures as 16x16 cells of one 24-bit BMP
strip each, magenta (255, 0, 255) standing for transparent.

  package_states.bmp  the package list's check boxes, states 1..5:
                      checked, unchecked, missing dependencies,
                      checked while busy, unchecked while busy
  devices.bmp         the Routers/Drives rows: router, router done,
                      router failed, hard disk, removable medium

Run it again after changing a picture; the BMPs are checked in so that the
build needs nothing but the resource compiler.
"""
import os
import struct
import sys

T = (255, 0, 255)  # transparent
K = (0, 0, 0)
W = (255, 255, 255)
G1 = (128, 128, 128)
G2 = (192, 192, 192)
G3 = (224, 224, 224)
G4 = (96, 96, 96)
BL = (0, 84, 166)
GR = (0, 140, 40)
RD = (200, 20, 20)
YE = (250, 200, 0)
LG = (120, 220, 120)

PALETTE = {".": T, "k": K, "w": W, "1": G1, "2": G2, "3": G3, "4": G4, "b": BL, "g": GR, "r": RD, "y": YE, "l": LG}


def parse(rows):
    assert len(rows) == 16, len(rows)
    for r in rows:
        assert len(r) == 16, r
    return [[PALETTE[c] for c in r] for r in rows]


def box(interior, dark, light, fill):
    """An 11x11 check box at (2, 2): a dark top-left edge, a light
    bottom-right edge and a 9x9 interior where "." is the fill colour."""
    rows = ["." * 16, "." * 16, ".." + dark * 11 + "..."]
    for line in interior:
        rows.append(".." + dark + line.replace(".", fill) + light + "...")
    rows.append(".." + dark + light * 10 + "...")
    rows += ["." * 16] * (16 - len(rows))
    return rows


TICK = [
    ".........",
    ".......k.",
    "......kk.",
    ".k...kkk.",
    ".kk.kkk..",
    ".kkkkk...",
    "..kkk....",
    "...k.....",
    ".........",
]
CROSS = [
    ".........",
    ".r.....r.",
    "..r...r..",
    "...r.r...",
    "....r....",
    "...r.r...",
    "..r...r..",
    ".r.....r.",
    ".........",
]
EMPTY = ["........."] * 9
GREY_TICK = [line.replace("k", "1") for line in TICK]

BOX_CHECKED = box(TICK, "4", "3", "w")
BOX_UNCHECKED = box(EMPTY, "4", "3", "w")
BOX_MISSING = box(CROSS, "4", "3", "3")
BOX_CHECKED_BUSY = box(GREY_TICK, "1", "2", "3")
BOX_UNCHECKED_BUSY = box(EMPTY, "1", "2", "3")

ROUTER = [
    "................",
    "................",
    "................",
    "....1......1....",
    "....1......1....",
    "....1......1....",
    ".kkkkkkkkkkkkkk.",
    ".k222222222222k.",
    ".k2g2g2y2222k2k.",
    ".k222222222222k.",
    ".k333333333333k.",
    ".kkkkkkkkkkkkkk.",
    "..4..........4..",
    "................",
    "................",
    "................",
]


def overlay(base, badge_rows):
    rows = [list(r) for r in base]
    for y, r in enumerate(badge_rows):
        for x, c in enumerate(r):
            if c != ".":
                rows[y][x] = c
    return ["".join(r) for r in rows]


DONE_BADGE = [
    "................",
    "................",
    "................",
    "................",
    "................",
    "................",
    "................",
    "...............w",
    "..............wg",
    ".............wgg",
    "........w...wggw",
    ".......wgw.wggw.",
    "......wgggwggw..",
    ".......wgggggw..",
    "........wgggw...",
    ".........wgw....",
]
FAILED_BADGE = [
    "................",
    "................",
    "................",
    "................",
    "................",
    "................",
    "................",
    "................",
    "........ww....ww",
    "........wrw..wrw",
    ".........wrwwrw.",
    "..........wrrw..",
    "..........wrrw..",
    ".........wrwwrw.",
    "........wrw..wrw",
    "........ww....ww",
]
HARD_DISK = [
    "................",
    "................",
    "................",
    "................",
    "..kkkkkkkkkkkk..",
    ".k222222222222k.",
    ".k233333333332k.",
    ".k222222222222k.",
    ".kkkkkkkkkkkkkk.",
    ".k111111111111k.",
    ".k1111111111g1k.",
    ".k111111111111k.",
    "..kkkkkkkkkkkk..",
    "................",
    "................",
    "................",
]
REMOVABLE = [
    "................",
    "................",
    "......kkkk......",
    ".....k2222k.....",
    ".....k2k2kk.....",
    ".....k2222k.....",
    "....kkkkkkkk....",
    "....kbbbbbbk....",
    "....kbbbbbbk....",
    "....kbwwwwbk....",
    "....kbwwwwbk....",
    "....kbbbbbbk....",
    "....kbbbbbbk....",
    "....kbbbbbbk....",
    ".....kkkkkk.....",
    "................",
]


def write_strip(path, cells):
    cells = [parse(c) for c in cells]
    width = 16 * len(cells)
    height = 16
    row_bytes = (width * 3 + 3) & ~3
    pixels = bytearray()
    for y in range(height - 1, -1, -1):  # bottom-up
        line = bytearray()
        for cell in cells:
            for x in range(16):
                r, g, b = cell[y][x]
                line += bytes((b, g, r))
        line += b"\0" * (row_bytes - len(line))
        pixels += line
    header = struct.pack("<2sIHHI", b"BM", 14 + 40 + len(pixels), 0, 0, 14 + 40)
    info = struct.pack("<IiiHHIIiiII", 40, width, height, 1, 24, 0, len(pixels), 3780, 3780, 0, 0)
    with open(path, "wb") as f:
        f.write(header + info + pixels)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    write_strip(os.path.join(out, "package_states.bmp"),
                [BOX_CHECKED, BOX_UNCHECKED, BOX_MISSING, BOX_CHECKED_BUSY, BOX_UNCHECKED_BUSY])
    write_strip(os.path.join(out, "devices.bmp"),
                [ROUTER, overlay(ROUTER, DONE_BADGE), overlay(ROUTER, FAILED_BADGE), HARD_DISK, REMOVABLE])


if __name__ == "__main__":
    main()

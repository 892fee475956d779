#!/usr/bin/env python3
"""Draws the blocks of a compound file as an SVG picture.

Usage: draw_blocks.py FILE OUT.svg [--columns N]

Each 1024-byte block is a cell in numbering order, coloured by what holds it:
the directory chain (from block 1), each stream's chain (one colour per
stream, the saved block map in grey), free blocks, skipped blocks, and blocks
that nothing explains. A cell shows its number and, for a chain block, its
place in the chain; arrows follow each chain's links. A legend lists the
streams with their sizes.

The script reads the file's fixed layout (all numbers little-endian):
  block head: number u32 @0, inUse u8 @4, signature "BlockFile\\0" @5,
              nextBlock u32 @15
  data block: usedLength u16 @19, payload @21 (1003 bytes)
  directory block: three 317-byte entries from @19 (name 257 bytes,
              created 26, modified 26, firstBlock u32 @309, size u32 @313)
It only reads; a damaged file is drawn as far as it makes sense (walks stop
at the file's end, at a block seen before, or at a bad head).
"""
import struct
import sys
from html import escape

BLOCK = 1024
SIGNATURE = b"BlockFile\0"
ENTRY_OFFSET, ENTRY_SIZE, ENTRIES = 19, 317, 3
FREE_LIST = "zorvanet_block_file_free_list"
PALETTE = ["#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#b07aa1", "#76b7b2",
           "#edc948", "#ff9da7", "#9c755f", "#86bcb6"]


def head(data, n):
    raw = data[(n - 1) * BLOCK:n * BLOCK]
    number, in_use = struct.unpack_from("<IB", raw, 0)
    (next_block,) = struct.unpack_from("<I", raw, 15)
    return number, in_use, raw[5:15] == SIGNATURE, next_block, raw


def walk(data, count, first, taken):
    """Block numbers of a chain, stopping where it stops making sense."""
    chain, n = [], first
    while 0 < n <= count and n not in taken and n not in chain:
        number, _, signed, next_block, _ = head(data, n)
        if number != n or not signed:
            break
        chain.append(n)
        n = next_block
    return chain


def read_file(path):
    with open(path, "rb") as f:
        data = f.read()
    count = len(data) // BLOCK
    role = {}  # block -> (owner index or "dir", place in chain)
    directory = walk(data, count, 1, role)
    for place, n in enumerate(directory):
        role[n] = ("dir", place + 1)
    streams = []
    for d in directory:
        raw = head(data, d)[4]
        for e in range(ENTRIES):
            entry = raw[ENTRY_OFFSET + e * ENTRY_SIZE:ENTRY_OFFSET + (e + 1) * ENTRY_SIZE]
            first, size = struct.unpack_from("<II", entry, 309)
            if first == 0:
                continue
            name = entry[:257].split(b"\0", 1)[0].decode("latin-1")
            chain = walk(data, count, first, role)
            for place, n in enumerate(chain):
                role[n] = (len(streams), place + 1)
            streams.append((name, size, chain))
    return data, count, directory, streams, role


def colour(streams, owner):
    if owner == "dir":
        return "#2f2f2f"
    if streams[owner][0] == FREE_LIST:
        return "#a0a0a0"
    return PALETTE[owner % len(PALETTE)]


def draw(path, out, columns):
    data, count, directory, streams, role = read_file(path)
    cell, gap, margin = 56, 10, 20
    rows = (count + columns - 1) // columns
    grid_h = rows * (cell + gap)
    legend_h = 22 * (len(streams) + 4)
    width = margin * 2 + columns * (cell + gap)
    height = margin * 2 + grid_h + legend_h

    def centre(n):
        i = n - 1
        return (margin + (i % columns) * (cell + gap) + cell / 2,
                margin + (i // columns) * (cell + gap) + cell / 2)

    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="sans-serif" font-size="11">',
           '<defs><marker id="a" markerWidth="8" markerHeight="8" refX="7" refY="4" orient="auto">'
           '<path d="M0,0 L8,4 L0,8 z" fill="#333"/></marker></defs>',
           f'<rect width="{width}" height="{height}" fill="white"/>']
    for n in range(1, count + 1):
        x, y = centre(n)
        number, in_use, signed, _, raw = head(data, n)
        if n in role:
            owner, place = role[n]
            fill, text, label = colour(streams, owner), "white", f"#{place}"
        elif number == n and signed and in_use == 0:
            skipped = raw[19:] == bytes(BLOCK - 19)
            fill, text, label = ("#f4f4f4" if skipped else "#ffffff"), "#555", ("skip" if skipped else "free")
        else:
            fill, text, label = "#ffd6d6", "#900", "?"
        svg.append(f'<rect x="{x - cell / 2}" y="{y - cell / 2}" width="{cell}" height="{cell}" rx="4" '
                   f'fill="{fill}" stroke="#444"/>')
        svg.append(f'<text x="{x}" y="{y - 4}" text-anchor="middle" fill="{text}" font-weight="bold">{n}</text>')
        svg.append(f'<text x="{x}" y="{y + 12}" text-anchor="middle" fill="{text}">{label}</text>')
    for chain in [directory] + [s[2] for s in streams]:
        for a, b in zip(chain, chain[1:]):
            if b != a + 1:  # neighbours need no arrow
                (x1, y1), (x2, y2) = centre(a), centre(b)
                svg.append(f'<path d="M{x1},{y1 + cell / 2 - 6} C{x1},{y1 + cell} {x2},{y2 - cell} '
                           f'{x2},{y2 - cell / 2 + 6}" fill="none" stroke="#333" stroke-width="1.2" '
                           f'marker-end="url(#a)" opacity="0.7"/>')
    y = margin + grid_h + 16
    lines = [("#2f2f2f", f"directory: {len(directory)} block(s) from block 1, 3 entries each")]
    for i, (name, size, chain) in enumerate(streams):
        shown = "saved block map" if name == FREE_LIST else escape(name)
        lines.append((colour(streams, i), f"{shown}: {size} bytes in {len(chain)} block(s)"))
    lines.append(("#ffffff", "free: a block no chain holds; skip: filler written below a block placed further on"))
    lines.append(("#ffd6d6", "?: a block whose head is not a head"))
    for fill, text in lines:
        svg.append(f'<rect x="{margin}" y="{y - 11}" width="14" height="14" fill="{fill}" stroke="#444"/>')
        svg.append(f'<text x="{margin + 22}" y="{y}">{text}</text>')
        y += 22
    svg.append(f'<text x="{margin}" y="{y + 4}" fill="#555">{count} blocks of 1024 bytes; '
               f'#k is a block\'s place in its chain; arrows follow links that skip ahead or back</text>')
    svg.append("</svg>")
    with open(out, "w") as f:
        f.write("\n".join(svg) + "\n")


def main(argv):
    if len(argv) < 3:
        sys.stderr.write(__doc__)
        return 2
    columns = 10
    if len(argv) == 5 and argv[3] == "--columns":
        columns = max(1, int(argv[4]))
    draw(argv[1], argv[2], columns)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

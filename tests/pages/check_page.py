#!/usr/bin/env python3
"""Checks a page as Chromium rendered it.

  check_page.py PAGE.png PAGE.dom NAME...

Every NAME must appear in the rendered DOM, and the screenshot must show one
band of row colour per register: the rows alternate #A060FF and #8040FF,
starting again at every table, and table headings are #FFFF00.
"""
import struct
import sys
import zlib
from collections import Counter

ROW_EVEN = (0xA0, 0x60, 0xFF)
ROW_ODD = (0x80, 0x40, 0xFF)
HEADING = (0xFF, 0xFF, 0x00)


def read_png(path):
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
    at, idat = 8, b""
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
            assert depth == 8 and colour in (2, 6) and interlace == 0, "unexpected PNG format"
            channels = 3 if colour == 2 else 4
        elif kind == b"IDAT":
            idat += body
        at += 12 + length
    raw = zlib.decompress(idat)
    stride = width * channels
    rows, previous = [], bytearray(stride)
    for y in range(height):
        base = y * (stride + 1)
        kind, line = raw[base], bytearray(raw[base + 1:base + 1 + stride])
        for i in range(stride):
            a = line[i - channels] if i >= channels else 0
            b = previous[i]
            c = previous[i - channels] if i >= channels else 0
            if kind == 1:
                line[i] = (line[i] + a) & 0xFF
            elif kind == 2:
                line[i] = (line[i] + b) & 0xFF
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 0xFF
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 0xFF
        rows.append([tuple(line[x * channels:x * channels + 3]) for x in range(width)])
        previous = line
    return rows


def table_span(rows):
    """The table's left and right edges: where its yellow headings reach."""
    xs = [x for row in rows for x, px in enumerate(row) if px == HEADING]
    return (min(xs), max(xs)) if xs else None


def bands(rows, span, colour):
    """Runs of scanlines across the table whose row colour is colour: the
    commonest of the three row colours there (text, input boxes and the
    lines between rows are none of them)."""
    left, right = span
    known = (ROW_EVEN, ROW_ODD, HEADING)
    count, inside = 0, False
    for row in rows:
        seen = Counter(px for px in row[left:right + 1] if px in known)
        now = bool(seen) and seen.most_common(1)[0][0] == colour
        if now and not inside:
            count += 1
        inside = now
    return count


def main():
    png, dom, names = sys.argv[1], sys.argv[2], sys.argv[3:]
    text = open(dom, encoding="utf-8", errors="replace").read()
    missing = [n for n in names if n not in text]
    rows = read_png(png)
    span = table_span(rows)
    if span is None:
        print(f"{png}: no table heading drawn")
        print("0 passed, 1 failed")
        return 1
    even, odd, heading = (bands(rows, span, c) for c in (ROW_EVEN, ROW_ODD, HEADING))
    print(f"{png}: {even} rows #A060FF, {odd} rows #8040FF, {heading} heading bands, "
          f"{len(names) - len(missing)} of {len(names)} registers in the page")
    ok = not missing and even + odd == len(names) and even >= odd and heading >= 1
    if missing:
        print("missing registers: " + " ".join(missing))
    print("1 passed, 0 failed" if ok else "0 passed, 1 failed")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())

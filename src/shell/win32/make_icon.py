#!/usr/bin/env python3
"""Writes zor.ico (16x16 and 32x32, 32-bit with alpha): a white "Z" with a
small yellow spark on a dark blue rounded square. Run it again after
changing the drawing; the .ico is committed so builds need no Python."""
import struct
import sys


def pixel(x, y, n):
    """RGBA of the pixel at (x, y), origin top left, in an n x n icon."""
    s = n / 32.0
    r = 5 * s  # corner radius
    # Rounded square: transparent outside the corners.
    for cx, cy in ((r, r), (n - r, r), (r, n - r), (n - r, n - r)):
        inside_x = x + 0.5 < r if cx == r else x + 0.5 > n - r
        inside_y = y + 0.5 < r if cy == r else y + 0.5 > n - r
        if inside_x and inside_y and (x + 0.5 - cx) ** 2 + (y + 0.5 - cy) ** 2 > r * r:
            return (0, 0, 0, 0)
    fx, fy = (x + 0.5) / s, (y + 0.5) / s  # coordinates on the 32 grid
    # The "Z": top bar, bottom bar, diagonal.
    white = (255, 255, 255, 255)
    if 8 <= fx <= 24 and 7 <= fy <= 11:
        return white
    if 8 <= fx <= 24 and 21 <= fy <= 25:
        return white
    if 8 <= fx <= 24 and 11 <= fy <= 21:
        # diagonal from (24, 11) to (8, 21), about 4.5 units wide
        t = (fy - 11) / 10.0
        centre = 24 - t * 16
        if abs(fx - centre) <= 2.8:
            return white
    # A spark at the top right.
    if 25 <= fx <= 28 and 3 <= fy <= 6:
        return (255, 204, 0, 255)
    # Background: a vertical blue gradient.
    g = int(40 + 60 * (1 - fy / 32))
    return (20, g, 140 + int(40 * (1 - fy / 32)), 255)


def image(n):
    rows = []
    for y in reversed(range(n)):  # bottom-up
        row = b""
        for x in range(n):
            r, g, b, a = pixel(x, y, n)
            row += bytes((b, g, r, a))
        rows.append(row)
    xor = b"".join(rows)
    mask_row = ((n + 31) // 32) * 4
    mask = bytearray()
    for y in reversed(range(n)):
        bits = bytearray(mask_row)
        for x in range(n):
            if pixel(x, y, n)[3] == 0:
                bits[x // 8] |= 0x80 >> (x % 8)
        mask += bits
    header = struct.pack("<IiiHHIIiiII", 40, n, 2 * n, 1, 32, 0, len(xor) + len(mask), 0, 0, 0, 0)
    return header + xor + bytes(mask)


def main(path):
    sizes = (16, 32)
    images = [image(n) for n in sizes]
    out = struct.pack("<HHH", 0, 1, len(sizes))
    offset = 6 + 16 * len(sizes)
    for n, data in zip(sizes, images):
        out += struct.pack("<BBBBHHII", n, n, 0, 0, 1, 32, len(data), offset)
        offset += len(data)
    out += b"".join(images)
    with open(path, "wb") as f:
        f.write(out)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "zor.ico")

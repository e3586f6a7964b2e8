"""Reads the PNG files that screenshots are. Standard library only."""
import struct
import zlib


def read_png(path):
    """Width, height and rows of RGB bytes of an 8-bit RGB or RGBA file that is not interlaced."""
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", f"{path}: not a PNG"
    position, packed = 8, b""
    while position < len(data):
        length, kind = struct.unpack(">I4s", data[position:position + 8])
        body = data[position + 8:position + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
            assert depth == 8 and colour in (2, 6) and not interlace, f"{path}: unexpected kind of PNG"
        elif kind == b"IDAT":
            packed += body
        position += 12 + length
    raw, step = zlib.decompress(packed), 4 if colour == 6 else 3
    stride, rows, previous = width * step, [], bytearray(width * step)
    for y in range(height):
        at = y * (stride + 1)
        kind, line = raw[at], bytearray(raw[at + 1:at + 1 + stride])
        if kind == 1:
            for i in range(step, stride):
                line[i] = (line[i] + line[i - step]) & 255
        elif kind == 2:
            for i in range(stride):
                line[i] = (line[i] + previous[i]) & 255
        elif kind == 3:
            for i in range(stride):
                line[i] = (line[i] + ((line[i - step] if i >= step else 0) + previous[i]) // 2) & 255
        elif kind == 4:
            for i in range(stride):
                a, b, c = (line[i - step] if i >= step else 0), previous[i], (previous[i - step] if i >= step else 0)
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append([line[c::step] for c in range(3)])
        previous = line
    return width, height, rows

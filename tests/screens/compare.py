"""Compares two PNG files by how different they look: both are averaged over small blocks, and a block counts as
different when its mean brightness or colour is off by more than an eye would pass over. Standard library only."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools" / "lib"))
from brisel_png import read_png  # noqa: E402

BLOCK = 8
BLOCK_LIMIT = 20      # of 255, mean difference of a block in one channel
SHARE_LIMIT = 0.015   # of all blocks: smoothing of fonts moves single blocks, a moved or missing part moves many


def blocks(path):
    width, height, rows = read_png(path)
    result = []
    for y in range(0, height, BLOCK):
        band = rows[y:y + BLOCK]
        for x in range(0, width, BLOCK):
            count = len(band) * min(BLOCK, width - x)
            result.append(tuple(sum(sum(row[c][x:x + BLOCK]) for row in band) / count for c in range(3)))
    return width, height, result


def difference(path, other):
    """The share of blocks that look different, 1.0 for pictures of different sizes."""
    if pathlib.Path(path).read_bytes() == pathlib.Path(other).read_bytes():
        return 0.0
    width, height, first = blocks(path)
    other_width, other_height, second = blocks(other)
    if (width, height) != (other_width, other_height):
        return 1.0
    off = sum(1 for a, b in zip(first, second) if max(abs(p - q) for p, q in zip(a, b)) > BLOCK_LIMIT)
    return off / len(first)

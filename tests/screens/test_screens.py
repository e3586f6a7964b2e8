#!/usr/bin/env python3
"""Draws every screen and holds it against its reference picture; `make references` renews those. Reports in TAP."""
import os
import pathlib
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
from compare import SHARE_LIMIT, difference  # noqa: E402

references = sorted((HERE / "reference").glob("*.png"))
with tempfile.TemporaryDirectory(prefix="brisel-screens-") as out:
    walk = subprocess.run([HERE.parent.parent / "tools" / "screens", "--build", os.environ["BRISEL_BUILD"], "--out", out],
                          capture_output=True, text=True)
    drawn = {p.name for p in pathlib.Path(out).glob("*.png")}
    names = sorted({r.name for r in references} | drawn)
    print(f"1..{len(names) + 1}")
    failed = walk.returncode != 0
    print(f"{'not ok' if failed else 'ok'} 1 - the walk reaches every screen")
    for line in walk.stderr.splitlines():
        print(f"# {line}")
    for number, name in enumerate(names, 2):
        reference = HERE / "reference" / name
        if name not in drawn:
            problem = "not drawn"
        elif not reference.exists():
            problem = "has no reference"
        else:
            share = difference(pathlib.Path(out) / name, reference)
            problem = f"{share:.1%} of it looks different" if share > SHARE_LIMIT else ""
        print(f"{'not ok' if problem else 'ok'} {number} - {name}" + (f": {problem}" if problem else ""))
        failed = failed or bool(problem)
sys.exit(1 if failed else 0)

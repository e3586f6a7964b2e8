#!/usr/bin/env python3
"""Walks every screen in the extremes of language, direction, palette, size and scale, looks for texts that cannot be
read, and holds the pictures against the committed ones. Reports in TAP.
usage: test_screens.py [WALK...]            run them (default: all)
       test_screens.py --renew              make what is drawn now the reference pictures; look at them before committing"""
import os
import pathlib
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
sys.path.insert(0, str(HERE))
from compare import SHARE_LIMIT, difference  # noqa: E402
from layout import check_files  # noqa: E402

BUILD = pathlib.Path(os.environ.get("BRISEL_BUILD", TOP / "build")).resolve()
# What the walks after the first leave out: their texts stand on other screens, too, or do not depend on the language.
SHOWN = "connecting,no_mails,single_account,sweep_right,reader_pages,reader_sizes"
# Each screen is compared once; where palette, direction or scale matter most it is compared again.
WALKS = {
    "english": (dict(size="320x320", language="en", theme="dark", scale="1.0", motion="off"), None),
    "arabic": (dict(size="360x480", language="ar", theme="light", scale="0.8", motion="off", skip=SHOWN),
               ["03", "06", "12", "14", "27", "28", "30", "32", "36", "42", "44"]),
    "longest": (dict(size="320x320", language="fr", theme="light", scale="1.5", motion="on", skip=SHOWN), ["02", "03", "14", "27", "30"]),
    "round": (dict(size="360x360", language="de", theme="dark", scale="1.5", motion="off", shape="round"),
              ["03", "10", "14", "30", "42", "43", "44"]),
}


def walk(name, out):
    values, compared = WALKS[name]
    command = [sys.executable, TOP / "tools/screens", "--build", BUILD, "--out", out, "--dump"]
    for key, value in values.items():
        command += [f"--{key}", value]
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    pictures = {p.name for p in pathlib.Path(out).glob("*.png") if compared is None or p.name[:2] in compared}
    return done, pictures


def results(name, out):
    """(what was looked at, what is wrong with it) for each."""
    done, pictures = walk(name, out)
    yield f"{name}: every screen is reached", done.stderr.strip() if done.returncode else ""
    values = WALKS[name][0]
    unreadable = check_files(sorted(pathlib.Path(out).glob("*.json")), values["language"], float(values["scale"]), "shape" in values,
                             "skip" not in values and name != "round")
    yield f"{name}: every text can be read", "\n".join(f"{s}: {line}" for s, lines in unreadable.items() for line in lines)
    folder = HERE / "reference" / name
    for picture in sorted(pictures | {p.name for p in folder.glob("*.png")}):
        reference, drawn = folder / picture, pathlib.Path(out) / picture
        if picture not in pictures:
            wrong = "is not drawn"
        elif not reference.exists():
            wrong = "has no reference picture"
        else:
            share = difference(drawn, reference)
            wrong = f"{share:.1%} of it looks different" if share > SHARE_LIMIT else ""
            if wrong:
                kept = BUILD / "screens-different" / name
                kept.mkdir(parents=True, exist_ok=True)
                (kept / picture).write_bytes(drawn.read_bytes())
                wrong += f"; it is kept in {kept}"
        yield f"{name}: {picture}", wrong


def renew():
    for name in WALKS:
        with tempfile.TemporaryDirectory(prefix="brisel-screens-") as out:
            done, pictures = walk(name, out)
            if done.returncode:
                sys.exit(done.stderr)
            folder = HERE / "reference" / name
            folder.mkdir(parents=True, exist_ok=True)
            for old in folder.glob("*.png"):
                if old.name not in pictures:
                    old.unlink()
            renewed = 0
            for picture in sorted(pictures):
                # What looks the same stays the same file, so that a commit shows what changed.
                if not (folder / picture).exists() or difference(pathlib.Path(out) / picture, folder / picture) > 0:
                    (folder / picture).write_bytes((pathlib.Path(out) / picture).read_bytes())
                    renewed += 1
            print(f"{name}: {renewed} of {len(pictures)} pictures renewed")


def main(names):
    number = failed = 0
    for name in names or WALKS:
        with tempfile.TemporaryDirectory(prefix="brisel-screens-") as out:
            for what, wrong in results(name, out):
                number += 1
                print(f"{'not ok' if wrong else 'ok'} {number} - {what}", flush=True)
                for line in wrong.splitlines():
                    print(f"# {line}", flush=True)
                failed += bool(wrong)
    print(f"1..{number}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(renew() if sys.argv[1:] == ["--renew"] else main(sys.argv[1:]))

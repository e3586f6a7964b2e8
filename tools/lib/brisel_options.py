"""Command lines of the tools that are run by hand: what makes no sense ends with 2 and one line before anything is
started, what cannot be done with 1 and one line, and Ctrl-C is no fault. Standard library only."""
import argparse
import os
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent.parent


class Parser(argparse.ArgumentParser):
    """Tells what is wrong in one line."""

    def error(self, message):
        self.exit(2, f"{self.prog}: {message} (see --help)\n")


def build_folder(text):
    """The path of a build folder with a build in it."""
    if not (pathlib.Path(text) / "tools" / "brisel-session").exists():
        raise argparse.ArgumentTypeError(f"there is no build in '{text}'; make build makes one in build/")
    return text


def size(text):
    found = re.fullmatch(r"(\d{1,5})x(\d{1,5})", text)
    if not found or not all(100 <= int(side) <= 4096 for side in found.groups()):
        raise argparse.ArgumentTypeError(f"'{text}' is no size: WIDTHxHEIGHT in pixels, from 100 to 4096 each")
    return text


def scale(text):
    try:
        good = 0.5 <= float(text) <= 3
    except ValueError:
        good = False
    if not good:
        raise argparse.ArgumentTypeError(f"'{text}' is no scale factor from 0.5 to 3")
    return text


def language(text):
    known = (TOP / "data/po/LINGUAS").read_text().split()
    if text not in known:
        raise argparse.ArgumentTypeError(f"'{text}' is not in data/po/LINGUAS, which has {' '.join(known)}")
    return text


def run(main):
    """Runs a tool's main function, which returns the exit code, to its end."""
    name = pathlib.Path(sys.argv[0]).name
    try:
        code = main()
        sys.stdout.flush()
        sys.exit(code)
    except KeyboardInterrupt:
        print(f"{name}: interrupted", file=sys.stderr)
        code = 130
    except BrokenPipeError:  # who reads has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        code = 1
    except (OSError, RuntimeError, AssertionError, subprocess.SubprocessError) as error:
        told = f"{error.filename}: {error.strerror}" if getattr(error, "filename", None) else str(error)
        print(f"{name}: {' '.join(told.split()) or type(error).__name__}", file=sys.stderr)
        code = 1
    sys.exit(code)

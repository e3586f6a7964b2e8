#!/usr/bin/env python3
"""Finds texts that cannot be read in inspection dumps: clipped ones, ones over each other, and labels that were cut off.
Standard library only.   usage: layout.py LANGUAGE SCALE DUMP..."""
import gettext
import json
import os
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TOP / "tools/lib"))
from brisel_png import read_png  # noqa: E402

BUILD = pathlib.Path(os.environ.get("BRISEL_BUILD", TOP / "build")).resolve()
# A line's box has room above and below its letters, the more the more scripts a font holds: boxes may touch.
AIR = 0.3  # of the letters' size
KEY_AIR = 0.6  # of a single letter's, as on a key
BLANK = 0.4  # of the letters' size: a line from right to left has the blank at which it was wrapped at its left
TOUCH = 48  # pixels; at a scale factor below 1 it is asked for less
OPENED = ("19", "21", "22", "23", "24", "25", "26", "27")  # screens of the reader as it opens
OPENINGS = ("Hello", "مرحبا", "Grüße", "Just a line", "土曜日", "Dear Anna")  # how their mails begin
SWEPT = ("12", "13")  # a row that was drawn aside
TOASTED = "44"  # the screen with a toast about the buttons below it
SMALLEST = 12  # pixels at scale factor 1: the least that a line, which has to fit, shrinks to


def labels(language):
    """The application's own texts, which have to be read whole; what mails bring may be cut."""
    texts = set()
    for domain in ("brisel", "message"):
        catalogue = gettext.translation(domain, str(BUILD / "data/res/locale"), [language])
        texts |= {text for id, text in catalogue._catalog.items() if id}
    return texts


def name(shown):
    return repr(shown["text"][:40])


def edges(rect):
    return rect["x"], rect["y"], rect["x"] + rect["width"], rect["y"] + rect["height"]


def sides_outside(inner, outer, air, blank):
    a, b = edges(inner), edges(outer)
    return [side for side, beyond in (("left", b[0] - a[0] > blank), ("top", b[1] - a[1] > air), ("right", a[2] - b[2] > 1),
                                      ("bottom", a[3] - b[3] > air)) if beyond]


def problems(dump, own, scale):
    shown = [t for t in dump["texts"] if not t["covered"]]
    asked = set() if any(c["kind"] == "Radio" for c in dump["controls"]) else own - {c["text"] for c in dump["controls"] if c["scrolls"]}
    found = []
    for text in shown:
        air = AIR * text["font_size"]
        wrapped = text["whole"]["height"] > 1.7 * text["font_size"] and re.search(r"[\u0590-\u08FF]", text["text"])
        blank = BLANK * text["font_size"] if wrapped else 1
        clipped = sides_outside(text["whole"], text, air, blank)
        if text["scrolls"] and not (text["layer"] and text["text"] in asked):  # what a popup asks is all in view
            clipped = [side for side in clipped if side in ("left", "right")]
        if clipped:
            found.append(f"{name(text)} is clipped at its {' and '.join(clipped)}")
        elif beyond := sides_outside(text["whole"], text["layout"], air, blank):
            found.append(f"{name(text)} stands out of its layout at the {' and '.join(beyond)}")
        if text["cut"] and text["text"] in own:
            found.append(f"{name(text)} is cut off")
        if text["font_size"] < SMALLEST * scale - 1:
            found.append(f"{name(text)} has letters of {text['font_size']:.0f} pixels")
    for number, one in enumerate(shown):
        for other in shown[number + 1:]:
            if one["layer"] != other["layer"]:
                continue
            a, b = edges(one), edges(other)
            wide, high = min(a[2], b[2]) - max(a[0], b[0]), min(a[3], b[3]) - max(a[1], b[1])
            air = KEY_AIR if len(one["text"]) == len(other["text"]) == 1 else AIR
            if wide > 1 and high > air * min(one["font_size"], other["font_size"]):
                found.append(f"{name(one)} and {name(other)} lie over each other by {wide} x {high}")
    return found


def outside_circle(dump):
    """Of a round display: what would stand where there is none. A label's layout is what is pressed with it."""
    radius = dump["window"]["width"] / 2
    places = [(f"the {c['kind'].lower()} {name(c)}", c) for c in dump["controls"] if not c["covered"]]
    for text in (t for t in dump["texts"] if not t["covered"]):
        places.append((name(text), text))
        if not text["scrolls"] and not text["layer"] and text["layout"]["width"] < dump["window"]["width"]:  # or it goes on below the edge, or is the display itself
            places.append((f"what holds {name(text)}", text["layout"]))
    return [f"{what} stands outside the circle at {edges(rect)}" for what, rect in places
            if any((x - radius) ** 2 + (y - radius) ** 2 > (radius + 1) ** 2 for x in edges(rect)[::2] for y in edges(rect)[1::2])]


def drawn_outside_circle(picture):
    """The same of what a dump does not tell, as pictures: nothing but the ground is drawn there."""
    width, height, rows = read_png(picture)
    grounds = set()
    for y, row in enumerate(rows):
        half = max((width / 2 + 1) ** 2 - (y + 0.5 - height / 2) ** 2, 0) ** 0.5
        for x in [*range(0, int(width / 2 - half)), *range(int(width / 2 + half) + 1, width)]:
            grounds.add((row[0][x], row[1][x], row[2][x]))
    return [] if len(grounds) == 1 else ["something is drawn outside the circle"]


def hides_text(dump):
    """Of the reader as it opens: the mail's text begins below what it scrolls with."""
    body = [t for t in dump["texts"] if t["scrolls"] and any(b in t["text"] for b in OPENINGS)]
    return [] if any(t["height"] >= t["font_size"] * 0.5 for t in body) else ["nothing of the mail's text is in view"]


def without_way(dumps):
    """What is cut where it stands has to stand whole on another of the screens."""
    said = {}
    for stem, dump in dumps.items():
        for text in dump["texts"]:
            said.setdefault(re.sub(r"\s+", " ", text["text"]), []).append((stem, text["cut"], text["font_size"]))
    whole = [text for text, places in said.items() if not all(cut for _, cut, _ in places)]
    return {places[0][0]: [f"{text[:40]!r} is cut and nowhere whole"] for text, places in said.items()
            if text not in whole and not any(text in other for other in whole)}


def too_small(dump, scale):
    """What a thumb would miss."""
    return [f"the {c['kind'].lower()} {name(c)} is only {c['whole']['width']} x {c['whole']['height']}" for c in dump["controls"]
            if not c["covered"] and min(c["whole"]["width"], c["whole"]["height"]) < int(TOUCH * min(scale, 1))]


def toast_over_button(dump):
    """A toast about buttons that were touched leaves them to be touched again."""
    toast = max(dump["texts"], key=lambda t: t["layer"])
    a = edges(toast["layout"])
    return [f"the toast lies over the {c['kind'].lower()} {name(c)}" for c in dump["controls"] if c["y"] + c["height"] > dump["window"]["height"] / 2
            for b in [edges(c)] if min(a[2], b[2]) - max(a[0], b[0]) > 1 and min(a[3], b[3]) - max(a[1], b[1]) > 1]


def cut_button(dump):
    """On a round display a row may be higher than the list."""
    return [f"only {c['height']} of {c['whole']['height']} pixels of the {c['kind'].lower()} {name(c)} are in view" for c in dump["controls"]
            if not c["covered"] and c["height"] < 0.8 * c["whole"]["height"]]


def check_files(files, language, scale, is_round=False, is_all=True):
    """{file's stem: problems}, of those that have some. is_all: they are of every screen."""
    own = labels(language)
    found = {}
    dumps = {f: json.loads(pathlib.Path(f).read_text()) for f in files}
    if not any(c["kind"] == "Button" for dump in dumps.values() for c in dump["controls"]):
        found["dumps"] = ["they tell of no button"]
    for f, dump in dumps.items():
        stem = pathlib.Path(f).stem
        found[stem] = problems(dump, own, scale) + too_small(dump, scale)
        if is_round:
            found[stem] += outside_circle(dump) + drawn_outside_circle(pathlib.Path(f).with_suffix(".png"))
        if stem[:2] in OPENED:
            found[stem] += hides_text(dump)
        if stem[:2] in SWEPT:
            found[stem] += cut_button(dump)
        if stem.startswith(TOASTED):
            found[stem] += toast_over_button(dump)
    if not is_all:
        dumps = {}
    for stem, lines in without_way({pathlib.Path(f).stem: dump for f, dump in dumps.items()}).items():
        found[stem] += lines
    return {stem: lines for stem, lines in found.items() if lines}


if __name__ == "__main__":
    result = check_files(sys.argv[3:], sys.argv[1], float(sys.argv[2]))
    for stem, lines in sorted(result.items()):
        for line in lines:
            print(f"{stem}: {line}")
    sys.exit(1 if result else 0)

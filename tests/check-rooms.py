#!/usr/bin/env python3
"""Which folder may include what, and how large a file may grow. The tests run it, so that the direction cannot rot: a
header of another room, a library that a room has no business with, files that need each other in a circle, or a file
that outgrew its job fail it."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# The phone keeps its own state in SQLite; the store is the service's alone, and linking is what tells them apart.
STANDARD = re.compile(r"^[a-z_]+$|^(sys|netinet|arpa)/.*\.h$|^(errno|fcntl|limits|locale|malloc|math|poll|pwd|signal|stdarg|stddef|stdint"
                      r"|stdio|stdlib|string|time|unistd|pthread|ctype|dirent|libintl|dlfcn|wchar|getopt|spawn|iconv)\.h$")
EFL = re.compile(r"^(Elementary|Eo|Evas|Ecore|Ecore_[A-Za-z_]+|Edje|Eina|Eet|Efreet|Elementary_Cursor|Efl[A-Za-z_]*)\.h$")
# What several processes must agree on: those headers of common/ that need no library.
AGREED = re.compile(r"^brisel-(body|bus|contact|reply|settings)\.h$")
# What else a room may include by name, as patterns; its own and allowed folders' headers are found on disk.
ROOMS = {
    "app": (["app", "common", "platform/inc"], [EFL, re.compile(r"^unicode/"), re.compile(r"^glib")]),
    "common": (["common"], [re.compile(r"^glib"), re.compile(r"^systemd/sd-bus\.h$")]),
    "platform": (["platform"], [AGREED, EFL, re.compile(r"^unicode/"), re.compile(r"^glib"), re.compile(r"^(sqlite3\.h|systemd/|fontconfig/)"),
                                re.compile(r"^nlohmann/"), re.compile(r"^(seccomp\.h|linux/landlock\.h)$")]),
    "service": (["service", "common", "platform"], [EFL, re.compile(r"^glib"), re.compile(r"^(zlib\.h|systemd/)"),
                                                    re.compile(r"^(nlohmann|CLI)/"), re.compile(r"^schema\.h$")]),
    # Told apart from the service around it: the store through its functions, the bus, texts.
    "service/src/notify": (["service/src", "common", "platform/inc"], [re.compile(r"^systemd/sd-(bus|id128)\.h$")]),
    "phone": (["phone", "platform/inc"], [AGREED, re.compile(r"^brisel-(bluez|contact-bus)\.h$"), re.compile(r"^(gmime|glib|gio)"), re.compile(r"^systemd/"),
                                          re.compile(r"^(nlohmann|CLI)/"), re.compile(r"^phone-schema\.h$"),
                                          re.compile(r"^seccomp\.h$"),
                                          re.compile(r"^(libetpan|curl|gnutls|libsecret)/"),
                                          re.compile(r"^(resolv|netdb|termios|sysexits|net/if|linux/(rt)?netlink|zlib)\.h$")]),
    "gate": (["gate", "platform/inc"], [AGREED, re.compile(r"^brisel-bluez\.h$"), re.compile(r"^systemd/"), re.compile(r"^seccomp\.h$"),
                                        re.compile(r"^phone-table\.h$")]),
    "tools": (["tools", "platform/inc", "platform/bus"], [AGREED, EFL, re.compile(r"^gio/"), re.compile(r"^systemd/"), re.compile(r"^(nlohmann|CLI)/")]),
}

bad = []
for room, (folders, patterns) in ROOMS.items():
    place = ROOT / room
    for source in sorted(place.rglob("*") if place.is_dir() else place.parent.glob(place.name + "*")):
        if source.suffix not in (".cpp", ".h"):
            continue
        for number, line in enumerate(source.read_text(errors="replace").splitlines(), 1):
            found = re.match(r'\s*#\s*include\s*([<"])([^>"]+)[>"]', line)
            if not found:
                continue
            quote, name = found.groups()
            if quote == "<" and (STANDARD.match(name) or any(p.match(name) for p in patterns)):
                continue
            if quote == '"' and any(p.match(name) for p in patterns):
                continue
            if quote == '"' and any((ROOT / f).exists() and any(h.name == pathlib.Path(name).name
                                                                for h in (ROOT / f).rglob("*.h")) for f in folders):
                continue
            bad.append(f"{source.relative_to(ROOT)}:{number}: {room}/ may not include {name}")

# --- circles and sizes: a file is its .cpp and its .h ---
LONGEST = 700
sources = [p for room in ROOMS for p in sorted((ROOT / room).rglob("*")) if p.suffix in (".cpp", ".h")]
headers = {p.name: p for p in sources if p.suffix == ".h"}
needs = {}
for source in sources + sorted((ROOT / "data" / "theme").glob("*.edc")):
    if (lines := source.read_text(errors="replace").count("\n")) > LONGEST:
        bad.append(f"{source.relative_to(ROOT)}: {lines} lines; at most {LONGEST}: more than one job?")
for source in sources:
    text = source.read_text(errors="replace")
    for name in re.findall(r'^\s*#\s*include\s*"([^"]+)"', text, re.M):
        header = headers.get(pathlib.Path(name).name)
        if header and header.stem != source.stem:
            needs.setdefault(source.stem, set()).add(header.stem)


def reach(start):
    """Every file that a file needs, itself only when a circle leads back."""
    seen, todo = set(), [start]
    while todo:
        for other in needs.get(todo.pop(), ()):
            if other not in seen:
                seen.add(other)
                todo.append(other)
    return seen


reached = {name: reach(name) for name in needs}
circles = {frozenset(o for o in reached[n] if n in reached.get(o, ())) for n in needs if n in reached[n]}
bad += [f"a circle of files: {', '.join(sorted(circle))}" for circle in circles]

print("\n".join(bad) if bad else "every include stays in its rooms, in one direction")
sys.exit(1 if bad else 0)

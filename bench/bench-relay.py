#!/usr/bin/env python3
"""The relay: first relay of a large mailbox beside what the mail library alone needs, memory, idle wake-ups, and from a
file to the screen. Runs inside a private session (brisel-session).   usage: bench-relay [MAILS]"""
import contextlib
import json
import os
import pathlib
import sqlite3
import subprocess
import sys
import time

sys.path.insert(0, "@SOURCE@/bench/lib")
from figures import NOTHING, emit, wakeups  # noqa: E402
from mails import message  # noqa: E402

COUNT = int(sys.argv[1]) if len(sys.argv) > 1 else 10000
PAIRS = 5
SESSION = pathlib.Path(os.environ["BRISEL_SESSION_DIR"])
HERE = pathlib.Path(__file__).resolve().parent
BOX = SESSION / "bench-box"


def tool(*args):
    done = subprocess.run(args, capture_output=True, text=True)
    if done.returncode:
        sys.exit(f"bench-relay: {args[0]} ended with {done.returncode}: {done.stderr[-2000:]}")
    return done.stdout


def mail_library(folder):
    """Seconds by the clock and of the processor, and peak MiB."""
    process = subprocess.Popen([HERE / "gmime-alone", folder], stdout=subprocess.PIPE, text=True)
    said = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    if status:
        sys.exit(f"bench-relay: gmime-alone ended with {status}")
    return *map(float, said.split()), usage.ru_maxrss / 1024


def look():
    """Milliseconds that asking what is on the screen takes."""
    start = time.monotonic()
    tool("brisel-watchctl", "dump")
    return (time.monotonic() - start) * 1000


def wait(condition, what, seconds=600, pause=0.01):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end or relay.poll() is not None:
            sys.exit(f"bench-relay: waited in vain for {what}")
        time.sleep(pause)


def on_watch():
    done = subprocess.run(["brisel-phone", "relay", "status", "--json"], capture_output=True, text=True)
    accounts = json.loads(done.stdout)["accounts"] if done.returncode == 0 else []  # it has only begun
    return accounts[0]["on_watch"] if accounts else 0


def family():
    """The relay's process and those it has started, the reader of mail among them."""
    return [relay.pid, *open(f"/proc/{relay.pid}/task/{relay.pid}/children").read().split()]


def end_relay():
    relay.terminate()
    if relay.wait():
        sys.exit(f"bench-relay: the relay ended with {relay.returncode}")


def processor_seconds(pid):
    """By the scheduler: the clock's ticks are hundredths of a second, and a start takes less than one."""
    return sum(int(task.read_text().split()[0]) for task in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e9


def ours(process):
    """Whether a folder of /proc is the host service of this session."""
    try:
        return ((process / "comm").read_text().startswith("brisel-hostd")
                and f"BRISEL_SESSION_DIR={SESSION}".encode() in (process / "environ").read_bytes().split(b"\0"))
    except OSError:
        return False  # another's, or gone


def value(path, key):
    return next(int(line.split()[1]) for line in open(path) if line.startswith(key))


def to_disk(pid):
    return value(f"/proc/{pid}/io", "write_bytes:")


for folder in ("tmp", "new", "cur"):
    (BOX / folder).mkdir(parents=True)
for n in range(COUNT):
    (BOX / "cur" / f"{1760000000 + n}.M{n}.bench:2,S").write_text(message(n))

mail_library(BOX / "cur")  # once for the page cache
alone = [mail_library(BOX / "cur")]
file_kib = sum(file.stat().st_size for file in (BOX / "cur").iterdir()) / COUNT / 1024
tool("brisel-phone", "account", "list")  # the host service runs from now on
writer = next(int(p.name) for p in pathlib.Path("/proc").iterdir() if p.name.isdigit() and ours(p))
written = to_disk(writer)
relay = subprocess.Popen(["brisel-phone", "relay", "--maildir", f"me@example.org={BOX}", "--newest", str(COUNT + 100)])
wait(lambda: on_watch() >= COUNT, "the first relay", pause=0.2)
emit("relay's peak resident memory", "MiB", [value(f"/proc/{relay.pid}/status", "VmHWM:") / 1024],
     [one[2] for one in alone], "the mail library alone")
emit("bytes to disk per relayed mail, phone", "KiB", [to_disk(relay.pid) / 1024 / COUNT], [file_kib], "its file")
emit("bytes to disk per relayed mail, watch", "KiB", [(to_disk(writer) - written) / 1024 / COUNT], [file_kib], "its file")

time.sleep(1)
before = sum(map(wakeups, family()))
time.sleep(10)
emit("relay's wake-ups in 10 idle seconds", "", [sum(map(wakeups, family())) - before], *NOTHING)

tool("brisel-watchctl", "launch")
shown, looks = [], [look() for _ in range(5)]
begin = time.time()  # each a second after the last: those of one second stand in the order in which they came
before = {"phone": to_disk(relay.pid), "watch": to_disk(writer)}
for n in range(5):
    sender = f"Newcomer {n}"
    text = message(COUNT + n).split("\n", 1)[1]
    (BOX / "tmp" / f"live{n}").write_text(f"From: {sender} <new@example.org>\n" + text.replace(
        "Date: ", f"Date: {time.strftime('%a, %d %b %Y %H:%M:%S +0000', time.gmtime(begin + n))}\nX-Old-Date: "))
    start = time.monotonic()
    os.rename(BOX / "tmp" / f"live{n}", BOX / "new" / f"live{n}")
    wait(lambda: sender in tool("brisel-watchctl", "dump"), f"{sender} on screen", 30)
    shown.append((time.monotonic() - start) * 1000)
emit("file to screen (seen by asking again and again)", "ms", shown, looks, "asking once")
for side, pid in ("phone", relay.pid), ("watch", writer):
    emit(f"bytes to disk for a mail that comes, {side}", "KiB", [(to_disk(pid) - before[side]) / 1024 / len(shown)], [file_kib], "its file")
end_relay()


def first_relay(program, name):
    """By the clock and of the processor, seconds: the mailbox as an account of that name, by a phone that knows nothing."""
    global relay
    env = dict(os.environ, XDG_STATE_HOME=str(SESSION / name))
    state = SESSION / name / "brisel-phone" / "phone.db"
    start = time.monotonic()
    relay = subprocess.Popen([program, "relay", "--maildir", f"{name}@example.org={BOX}", "--newest", str(COUNT + 100)],
                             env=env, stderr=subprocess.DEVNULL)

    def arrived():
        if not state.exists():
            return False
        with contextlib.closing(sqlite3.connect(f"file:{state}?mode=ro", uri=True, timeout=30)) as known:
            try:
                return known.execute("SELECT count(*) FROM relay_mail WHERE mail_id > 0").fetchone()[0] >= COUNT
            except sqlite3.OperationalError:
                return False  # it has only begun
    wait(arrived, f"the relay of {name}", pause=0.05)
    took = time.monotonic() - start
    used = sum(map(processor_seconds, family()))
    end_relay()
    return took, used


# In turn, in one run; which of the two goes first changes.
PROGRAMS = "brisel-phone", HERE / "relay-one-process"
took = {program: [] for program in PROGRAMS}
for n in range(2 * PAIRS):
    program = PROGRAMS[(n + n // 2) % 2]
    took[program].append(first_relay(program, f"turn{n}"))
    if program == PROGRAMS[0]:
        alone.append(mail_library(BOX / "cur"))
own, one = ([[sample[i] for sample in took[program]] for i in range(2)] for program in PROGRAMS)
emit(f"first relay of {COUNT} mails", "s", own[0], [one[0] for one in alone], "the mail library alone")
emit(f"first relay of {COUNT} mails, processor", "s", own[1], [one[1] for one in alone], "the mail library alone")
emit("relayed, mail read in a process of its own", "mails/s", [COUNT / s for s in own[0]], [COUNT / s for s in one[0]],
     "read by the relay", better="more")
emit("first relay, mail read in a process of its own, processor", "s", own[1], one[1], "read by the relay")

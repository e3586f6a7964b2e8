#!/usr/bin/env python3
"""A phone and a watch over a real ssh: bytes on the wire, latency beside an echo, a first sync over a slow link beside
rsync of the same bytes, and how long a silent cut goes unnoticed.   usage: bench-pair [MAILS]"""
import os
import pathlib
import random
import shutil
import sqlite3
import subprocess
import sys
import time

sys.path[:0] = ["@SOURCE@/bench/lib", "@SOURCE@/tools/lib", "@SOURCE@/tests/harness"]
os.environ.setdefault("BRISEL_BUILD", str(pathlib.Path(__file__).resolve().parent.parent))
from brisel_machines import Machines  # noqa: E402
from figures import emit  # noqa: E402
from phone_test import Maildir, message  # noqa: E402

COUNT = int(sys.argv[1]) if len(sys.argv) > 1 else 200
WORDS = "harbour wind boat lamp table bread river stone garden letter morning window paper train island".split()
SLOW = {"delay": 0.1, "rate": 12500}  # 100 ms each way, 100 kbit/s
random.seed(1)


def text(count):
    return " ".join(random.choice(WORDS) for _ in range(count)) + "\n"


def fill(box, count):
    for n in range(count):
        box.deliver(message(f"bench-{n}@x", text(5).strip(), text(random.randrange(20, 300)), date=1790000000 + n), flags="")


def wait(condition, what, seconds=300, pause=0.002):
    start = time.monotonic()
    while not condition():
        if time.monotonic() - start > seconds:
            sys.exit(f"bench-pair: waited in vain for {what}")
        time.sleep(pause)
    return time.monotonic() - start


class Pair:
    def __init__(self, mails, **network):
        self.m = Machines(split=False, **network)
        self.box = Maildir(self.m.phone.dir / "box")
        fill(self.box, mails)
        self.start = time.monotonic()
        self.log = self.m.dir / "relay.log"
        self.relay = self.m.start("brisel-phone", "relay", "--maildir", f"me@example.org={self.box.path}", "--watch",
                                  self.m.address, log=self.log)

    def stored(self, what="count(*)"):
        """Of the watch's mails, from its store: looking costs the watch nothing."""
        try:
            with sqlite3.connect(f"file:{self.m.watch.dir}/data/brisel/store.db?mode=ro", uri=True) as db:
                return db.execute(f"SELECT {what} FROM mail").fetchone()[0]
        except sqlite3.Error:
            return 0  # it is only being made

    def linked(self):
        return self.m.watch.run("brisel-watchctl", "setting", "get", "memory/wms/wmanager_connected",
                                check=False).stdout == "true\n"

    def close(self):
        self.relay.terminate()
        self.relay.wait()
        self.m.close()


# --- bytes, and latency beside an echo ---
pair = Pair(COUNT)
wait(lambda: pair.stored() == COUNT, "the first sync")
emit(f"bytes on the wire for each of {COUNT} mails", "byte", [pair.m.net.bytes[0] / COUNT],
     [sum(p.stat().st_size for p in pair.box.files().values()) / COUNT], "the mail's file")
took, echo, single, sizes = [], [], [], []
ssh = subprocess.Popen([*pair.m.ssh[:-1], "-i", str(pair.m.echo_key), "watch"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
for n in range(20):
    line = text(100).encode()
    start = time.monotonic()
    ssh.stdin.write(line)
    ssh.stdin.flush()
    if ssh.stdout.readline() != line:
        sys.exit("bench-pair: the echo is not what was sent")
    if n:  # the first one connects
        echo.append((time.monotonic() - start) * 1e3)
    before, date = pair.m.net.bytes[0], 1791000000 + n
    mail = message(f"one-{n}@x", text(5).strip(), text(100), date=date)
    sizes.append(len(mail.encode()))
    pair.box.deliver(mail)
    took.append(wait(lambda: pair.stored("max(received_time)") == date, "one mail") * 1e3)
    single.append(pair.m.net.bytes[0] - before)
ssh.terminate()
ssh.wait()
emit("a mail: from its file to the watch's store", "ms", took, echo, "an echo of its text by ssh")
emit("bytes on the wire for one mail that comes", "byte", single, sizes, "the mail's file")
pair.close()

# --- the first sync over a slow link ---
pair = Pair(COUNT, **SLOW)
wait(lambda: pair.stored() > 0, "the first mail")
first = time.monotonic() - pair.start
newest = pair.stored("max(received_time)") == 1790000000 + COUNT - 1
wait(lambda: pair.stored() == COUNT, "the first sync")
synced = time.monotonic() - pair.start
pair.relay.terminate()
pair.relay.wait()
beside = []
if shutil.which("rsync"):
    start = time.monotonic()
    done = subprocess.run(["rsync", "-az", "-e", " ".join([*pair.m.ssh[:-1], "-i", str(pair.m.echo_key)]),
                           str(pair.box.path), f"watch:{pair.m.dir}/copy"], capture_output=True, text=True)
    if done.returncode:
        sys.exit("bench-pair: rsync: " + done.stderr)
    beside.append(time.monotonic() - start)
beside_what = "rsync -z of the files" if beside else "rsync is not installed"
emit(f"first sync of {COUNT} mails, 100 ms and 100 kbit/s", "s", [synced], beside, beside_what)
emit("the same: until the first mail is there" + ("" if newest else ", which is not the newest"), "s", [first], beside, beside_what)
pair.close()

# --- a silent cut ---
pair = Pair(3)
wait(lambda: pair.stored() == 3 and pair.linked(), "the link", pause=0.05)
for name, busy in (("under way", True), ("idle", False)):
    wait(lambda: pair.stored() == (3 if busy else 4), "all that is to come", pause=0.05)
    said = pair.log.read_text().count("waiting for it")
    pair.m.cut()
    start = time.monotonic()
    if busy:
        pair.box.deliver(message("cut@x"))
        pair.m.watch.run("dbus-send", "--session", "--print-reply", "--dest=com.vextora.brisel.Host",
                         "/com/vextora/brisel/Host", "com.vextora.brisel.Watch1.NoAccount", "string:bench")
    knows = {}
    while len(knows) < 2 and time.monotonic() - start < 120:
        if not pair.linked():
            knows.setdefault("watch", time.monotonic() - start)
        if pair.log.read_text().count("waiting for it") > said:
            knows.setdefault("phone", time.monotonic() - start)
        time.sleep(0.05)
    for side in ("watch", "phone"):
        if side not in knows:
            sys.exit(f"bench-pair: the {side} did not notice a silent cut, {name}, in two minutes")
        emit(f"a silent cut, {name}: until the {side} knows", "s", [knows[side]], None, "a bound that is set")
    pair.m.heal()
    again = wait(pair.linked, "the link again", pause=0.02)
    for _ in range(10):  # one that is refused is no login
        start = time.monotonic()
        done = subprocess.run([*pair.m.ssh[:-1], "-i", str(pair.m.echo_key), "watch"], input=b"in\n", capture_output=True)
        login = time.monotonic() - start
        if done.stdout == b"in\n":
            break
    else:
        sys.exit(f"bench-pair: no login by ssh: {done.stderr.decode(errors='replace')[-500:]}")
    emit(f"a silent cut, {name}: until they are together again", "s", [again], [login], "a login by ssh")
pair.close()

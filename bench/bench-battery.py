#!/usr/bin/env python3
"""What the watch's battery pays for: bytes and syncs of the disk for a mail and for each action, the share of the window
that is drawn for each change and for none, and wake-ups while the display is off, in every screen. With a real display,
because the engine without one always draws the whole window.   usage: bench-battery [PART ...] (disk, draw, pause)"""
import collections
import contextlib
import json
import os
import pathlib
import re
import signal
import sqlite3
import subprocess
import sys
import time

BUILD = pathlib.Path(__file__).resolve().parent.parent
os.environ["BRISEL_BUILD"] = str(BUILD)
os.environ.pop("ELM_ENGINE", None)  # of the session around this, which has no display
sys.path[:0] = ["@SOURCE@/tools/lib", "@SOURCE@/bench/lib", "@SOURCE@/tests/harness"]
from brisel_drive import Session, mail  # noqa: E402
from brisel_test import start_display  # noqa: E402
from phone_test import Maildir, Relay, Sendmail, by_uid, journal, message  # noqa: E402
from figures import NOTHING, emit, wakeups  # noqa: E402

PARTS = sys.argv[1:] or ["disk", "draw", "pause"]
WIDTH, HEIGHT = 360, 480
ROW = 78 * WIDTH / (WIDTH * HEIGHT)
T0 = 1767600000
TIMES = 10
BODY = "A line of text.\n" * 120
SUBJECTS = "file/private/brisel/list_subject"
SENT = 2  # of the states in the watch's journal


def process_of(session, name):
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # another's, or gone
            if ((process / "comm").read_text().strip() == name
                    and f"BRISEL_SESSION_DIR={session.dir}".encode() in (process / "environ").read_bytes().split(b"\0")):
                return int(process.name)
    sys.exit(f"bench-battery: no process {name}")


def send(session, number, when):
    return session.send(1, mail(f"Subject {number}", BODY, f"Sender {number % 7} <s{number % 7}@example.org>", when))[0]


def is_read(session, mail_id):
    return next((one["is_read"] for one in session.mails() if one["mail_id"] == mail_id), None)


def open_typed(session):
    """From the reader: a reply, and the keypad is up."""
    session.setting("file/private/msg-consumer-server/reply_value", "int", 3)
    session.watch("keyboard", "Menu")
    session.tap(session.text("IDS_EMAIL_SK_REPLY"))
    session.wait_text("123")
    session.rest()
    session.setting("file/private/msg-consumer-server/reply_value", "int", 0)


# --- the disk ---


COMMITS = """import os, sqlite3, sys
db = sqlite3.connect(sys.argv[1], isolation_level=None)
db.execute("PRAGMA synchronous = FULL")
for n in range(int(sys.argv[2])):
    db.execute("BEGIN IMMEDIATE")
    for statement in sys.argv[3:]:
        db.execute(statement, (n,) if "?1" in statement else ())
    db.execute("COMMIT")
os._exit(0)  # closing would move the log into the file
"""


class Disk:
    """What processes write to files, and how often they wait for the disk."""

    def __init__(self, session, *commands):
        self.out = session.dir / f"trace-{time.monotonic_ns()}"
        self.process = subprocess.Popen(["strace", "-f", "-y", "-o", self.out, "-e", "trace=write,writev,pwrite64,pwritev,fsync,fdatasync",
                                         *commands], env=session.env, stderr=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
        if not commands or commands[0] == "-p":
            self.process.stderr.readline()  # it is attached

    def end(self):
        """KiB and syncs."""
        self.process.terminate()
        self.process.communicate()
        return self.count()

    def ended(self):
        self.process.communicate()
        if self.process.returncode:
            sys.exit(f"bench-battery: {self.process.args[-1]} ended with {self.process.returncode}")
        return self.count()

    def count(self):
        count, begun = collections.Counter(), {}  # calls that another process's came between, by their process
        for line in self.out.read_text(errors="replace").splitlines():
            process, what = line.split(maxsplit=1)
            if re.match(r"f(data)?sync\(", what):
                count["syncs"] += 1
            elif found := re.match(r"p?write(?:v|64)?\(\d+<(/[^>]*)>.* (= (\d+)|<unfinished \.\.\.>)$", what):
                counts = not found[1].startswith("/dev/") and not found[1].endswith("brisel.log")
                if found[3]:
                    count["bytes"] += counts * int(found[3])
                else:
                    begun[process] = counts
            elif found := re.match(r"<\.\.\. p?write(?:v|64)? resumed>.* = (\d+)$", what):
                count["bytes"] += begun.pop(process, False) * int(found[1])
        return count["bytes"] / 1024, count["syncs"]


def disk(session, ids):
    watch = [f"-p{process_of(session, name)}" for name in ("brisel-hostd", "brisel")]

    store = session.dir / "bare.db"
    with contextlib.closing(sqlite3.connect(next(session.dir.rglob("store.db")))) as db:
        db.execute("VACUUM INTO ?", (str(store),))
    with contextlib.closing(sqlite3.connect(store)) as db:
        db.execute("PRAGMA journal_mode = WAL")

    def measure(what, action, *statements):
        """Beside a commit of the same by SQLite alone, to a store like the watch's."""
        alone = [one / TIMES for one in Disk(session, sys.executable, "-c", COMMITS, store, str(TIMES), *statements).ended()]
        trace = Disk(session, "-p", watch[0][2:], watch[1])
        for n in range(TIMES):
            action(n)
        time.sleep(0.5)
        kib, syncs = trace.end()
        emit(f"written to the watch's disk: {what}", "KiB", [kib / TIMES], alone[:1], "a bare commit of it")
        emit(f"waits for the watch's disk: {what}", "syncs", [syncs / TIMES], alone[1:], "a bare commit of it")

    fresh = 20  # the parts before have opened some of those before it, and swept one away

    def opened(n):
        session.launch(brisel_id=ids[fresh + n])
        session.wait(lambda: is_read(session, ids[fresh + n]), "the mark")

    def deleted(n):
        session.launch(brisel_id=ids[fresh + n])
        session.wait_text(f"Subject {fresh + n}", part=False)
        session.rest()
        session.watch("keyboard", "Delete")
        session.tap(session.text("IDS_COM_SK_OK"))
        session.wait(lambda: is_read(session, ids[fresh + n]) is None, "the deletion")

    def replied(n):
        session.launch(brisel_id=asked)
        session.rest()
        session.watch("keyboard", "Menu")
        session.tap(session.text("IDS_EMAIL_SK_REPLY"))
        session.wait_text("Yes")
        session.rest()
        session.tap("Yes")
        session.tap(session.text("IDS_COM_SK_SEND"))
        session.wait(lambda: [row[0] for row in journal(session)].count(SENT) == n + 1, "the reply to be sent")
        session.wait(lambda: "Yes" not in session.texts(), "the reader")

    session.phone("template", "set", "Yes", "No")
    measure("a mail that comes", lambda n: send(session, n, T0 + n),
            "INSERT INTO mail (account_id, received_time, subject, from_name, from_address, message_uid)"
            " VALUES (1, 1767600000 + ?1, 'Subject', 'Sender', 's@example.org', '<' || ?1 || '@example.org>')",
            f"INSERT INTO body (mail_id, text) VALUES (last_insert_rowid(), '{BODY}')")
    measure("an unread mail opened", opened, "UPDATE mail SET is_read = 1, is_new = 0 WHERE mail_id = ?1 + 21")
    measure("a mail opened and deleted", deleted, "DELETE FROM body WHERE mail_id = ?1 + 21", "DELETE FROM mail WHERE mail_id = ?1 + 21")

    # A phone that hands replies over, as one does that is used.
    session.stop_serve(session.running[-1][0])
    box, mta = Maildir(session.dir / "box"), Sendmail(session.dir / "sent")
    box.deliver(message("ask@example.org", "A question"))
    relay = Relay(session, "--maildir", f"me@example.org={box.path}", "--sendmail", mta.command)
    asked = session.wait(lambda: by_uid(session).get("ask@example.org"), "the relayed mail")["mail_id"]
    session.launch(brisel_id=asked)
    session.wait(lambda: is_read(session, asked), "the mark")
    measure("a mail opened and answered", replied, "INSERT INTO outbox (json) VALUES (printf('%.600c%d', 'x', ?1))")
    if code := relay.kill(signal.SIGTERM):
        sys.exit(f"bench-battery: the relay ended with {code}")
    session.setting(SUBJECTS, "bool", "true")  # their folder is made with the first one
    changed = [Disk(session, "brisel-watchctl", "setting", "set", SUBJECTS, "bool", value).ended() for value in ("false", "true")]
    emit("written to the watch's disk: a setting", "KiB", [one[0] for one in changed], [4.5 / 1024], "its value")
    emit("waits for the watch's disk: a setting", "syncs", [one[1] for one in changed], [1], "a file that is there already")


# --- drawing ---


def draw(session, ids):
    phone = session.running[0][0]

    def drawn(action, seconds):
        session.watch("stats", "--reset")
        action()
        time.sleep(seconds)
        return [pixels / (WIDTH * HEIGHT) for pixels in json.loads(session.watch("stats"))["pixels"]]

    def whole(what, action, bare=None, beside=NOTHING[1], seconds=1.0):
        share = sum(drawn(action, seconds))
        if bare and not share:
            sys.exit(f"bench-battery: nothing was drawn though {what}")
        emit(f"drawn: {what}", "windows", [share], bare and [bare], beside)

    def each(what, action, seconds=1.5):
        shares = [share for share in drawn(action, seconds) if share > 0]
        if not shares:
            sys.exit(f"bench-battery: nothing was drawn while {what}")
        emit(f"drawn in a frame: {what}", "windows", shares, [1], "the window")

    def nothing():
        pass

    whole("nothing happens in the list, 5 s", nothing, seconds=5)
    whole("a mail out of sight is read", lambda: session.phone("mail", "update", ids[40], "--read"))
    whole("a setting gets the value it has", lambda: session.setting(SUBJECTS, "bool", "true"))
    for key, kind, value in (("db/setting/date_format", "int", 1), ("db/menu_widget/regionformat_time1224", "int", 1),
                             ("db/setting/theme", "string", "light"), ("db/setting/motion", "bool", "true"),
                             ("db/setting/accessibility/font_size", "int", 1), ("db/menu_widget/language", "string", "en"),
                             ("db/menu_widget/regionformat", "string", "en_GB")):
        session.setting(key, kind, value)
        session.rest()
        whole(f"the same of {key}", lambda: session.setting(key, kind, value))
    whole("the link is told again", lambda: session.setting("memory/wms/wmanager_connected", "bool", "true"))
    whole("templates and states are told again",
          lambda: [session.phone("template", "set", "Yes", "No"), session.phone("status", "reply", 0), session.phone("account", "count", "known")])
    for n in 1, 2, 3:
        whole(f"a mail in sight is read, {n}", lambda: session.phone("mail", "update", ids[n], "--read"), ROW, "its row")
    whole("a mail comes below what is in sight", lambda: send(session, 50, T0 - 5000), ROW, "a row")
    whole("a mail comes in sight", lambda: send(session, 51, T0 + 60), 1, "the window")
    whole("the link goes", lambda: session.stop_serve(phone), ROW, "a row")
    whole("the link comes", session.serve, ROW, "a row")
    each("the list is scrolled", lambda: session.scroll(seconds=0.3))
    session.launch(brisel_id=ids[5])
    session.rest()
    time.sleep(1.5)  # the title has said which mail it is
    whole("nothing happens in the reader, 5 s", nothing, seconds=5)
    whole("another mail is read beside the reader", lambda: session.phone("mail", "update", ids[41], "--read"))
    each("a mail is scrolled", lambda: session.scroll(seconds=0.3))
    each("a page is turned", lambda: session.swipe("left"))
    open_typed(session)
    time.sleep(1)
    whole("nothing happens in the typed reply, 5 s", nothing, seconds=5)
    for letter in "ab":
        whole(f"a letter is typed, {letter}", lambda: session.watch("type", letter), ROW, "a row")
    session.watch("key", "back")
    session.rest()


# --- the display is off ---


def pause(session, ids):
    process = process_of(session, "brisel")

    def off(screen, reach):
        """What is under way is over or put off within a second and a half, the fading of a bar beside what was scrolled."""
        session.watch("resume")
        for _ in range(6):
            if len(session.dump()["views"]) == 1:
                break
            session.watch("key", "back")
            session.watch("resume")
            session.rest()
        while not session.find("Subject 0"):
            session.scroll(up=False, seconds=0.1)
            session.rest()
        reach()
        session.watch("pause")
        time.sleep(1.5)
        before = wakeups(process)
        time.sleep(4)
        emit(f"wake-ups in 4 seconds with the display off: {screen}", "", [wakeups(process) - before], *NOTHING)

    def reader():
        session.launch(brisel_id=ids[7])

    def options():
        reader()
        session.rest()
        session.watch("keyboard", "Menu")
        session.wait_text(session.text("IDS_EMAIL_SK_REPLY"))

    def typed():
        reader()
        session.rest()
        open_typed(session)

    def question():
        reader()
        session.rest()
        session.watch("keyboard", "Delete")

    def swept():
        row = session.wait_text("Subject 2", part=False)
        y = int(row["y"])
        session.watch("drag", int(WIDTH * 0.8), y, int(WIDTH * 0.2), y, 0.2)

    off("list", lambda: session.rest())
    off("list under way", lambda: session.scroll(seconds=0.1))
    off("row swept aside", swept)
    off("mail just opened", reader)
    off("mail under way", lambda: [reader(), session.scroll(seconds=0.1)])
    off("page under way", lambda: [reader(), session.rest(), session.swipe("left", 0.1)])
    off("question", question)
    off("actions", options)
    off("typed reply, keypad up", typed)
    session.watch("resume")


def main():
    display, name = start_display(os.environ)
    try:
        with Session(size=f"{WIDTH}x{HEIGHT}", window=True, env={"DISPLAY": name}) as session:
            session.serve()
            session.account("bench@example.net")
            session.phone("account", "count", "known")
            session.phone("status", "reply", 0)
            ids = [send(session, n, T0 - n * 60) for n in range(60)]
            session.launch()
            session.rest()
            time.sleep(1)
            for part in (draw, pause, disk):
                if part.__name__ in PARTS:
                    part(session, ids)
    finally:
        display.terminate()
        display.wait()


main()

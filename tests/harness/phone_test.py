"""What the phone's end-to-end tests share: mailboxes, a mail system that writes files, and the running relay."""
import contextlib
import json
import os
import pathlib
import re
import sqlite3
import subprocess
import time

from brisel_test import equal, main, options  # noqa: E402,F401

HOST = "com.vextora.brisel.Host"
HOST_PATH = "/com/vextora/brisel/Host"


def message(uid, subject="Subject", body="Body\n", sender="Ann <ann@example.org>", date=1790000000, headers=""):
    stamp = time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime(date))
    return (f"From: {sender}\nTo: me@example.org\nSubject: {subject}\nDate: {stamp}\nMessage-ID: <{uid}>\n{headers}"
            f"MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n{body}")


class Maildir:
    count = 0  # of all, so that no two files are named alike

    def __init__(self, path):
        self.path = pathlib.Path(path)
        for folder in ("tmp", "new", "cur"):
            (self.path / folder).mkdir(parents=True, exist_ok=True)

    def deliver(self, text, flags=None, base=None):
        """As a mail system does: written elsewhere, then moved in. flags None: into "new"."""
        Maildir.count += 1
        base = base or f"{1700000000 + self.count}.M{self.count}P{os.getpid()}.test"
        raw = text if isinstance(text, bytes) else text.encode()
        (self.path / "tmp" / base).write_bytes(raw)
        target = self.path / "new" / base if flags is None else self.path / "cur" / f"{base}:2,{flags}"
        os.rename(self.path / "tmp" / base, target)
        return base

    def files(self):
        return {p.name.split(":2,")[0]: p for folder in ("new", "cur") for p in (self.path / folder).iterdir()}

    def flags(self, base):
        return self.files()[base].name.partition(":2,")[2]

    def set_flags(self, base, flags):
        os.rename(self.files()[base], self.path / "cur" / f"{base}:2,{flags}")

    def remove(self, base):
        self.files()[base].unlink()


class Sendmail:
    """Takes messages like the real one: from standard input, recipients from the headers. Each becomes one file."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.program = self.folder.parent / (self.folder.name + "-program")
        self.refuse = self.folder.parent / (self.folder.name + "-refuse")
        self.program.write_text(f"""#!/bin/sh
[ "$1 $2" = "-t -i" ] || exit 64
code=$(cat '{self.refuse}' 2> /dev/null) # read once: the test may take it away meanwhile
if [ "$code" ]; then cat > /dev/null; echo 'no route to anywhere' >&2; exit "$code"; fi
file=$(mktemp '{self.folder}/.XXXXXXXX') && cat > "$file" && mv "$file" '{self.folder}/'$(basename "$file" | tr -d .).eml
""")
        self.program.chmod(0o755)
        self.command = f"'{self.program}' -t -i"

    def change(self, old, new):
        """As another file: a shell reads the one that it runs bit by bit."""
        text = self.program.read_text()
        assert old in text, text
        changed = self.program.with_suffix(".new")
        changed.write_text(text.replace(old, new))
        changed.chmod(0o755)
        os.rename(changed, self.program)

    def sent(self):
        return [p.read_bytes() for p in sorted(self.folder.glob("*.eml"), key=lambda p: p.stat().st_mtime_ns)]


class Relay:
    def __init__(self, session, *args):
        self.session = session
        self.args = ["brisel-phone", "relay", *map(str, args)]
        self.process = None
        self.start()

    def start(self):
        self.errors = open(self.session.dir / "relay.log", "a")
        self.process = subprocess.Popen(self.args, env=self.session.env, stderr=self.errors, stdout=self.errors)

    def kill(self, how=9):
        self.process.send_signal(how)
        code = self.process.wait()
        self.errors.close()
        return code

    def log(self):
        return (self.session.dir / "relay.log").read_text()

    def children(self, named=b""):
        """The processes below it whose command line holds that."""
        found = []
        for pid in pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it ended meanwhile
                if named in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes():
                    found.append(int(pid))
        return found


def by_uid(session):
    return {m["message_uid"]: m for m in session.mails()}


def call_watch(session, method, *args, uid=None):
    """Calls the host service as the application does; the first argument of every method is a unique text."""
    return session.run("dbus-send", "--session", "--print-reply", f"--dest={HOST}", HOST_PATH,
                       f"com.vextora.brisel.Watch1.{method}", f"string:{uid or time.monotonic_ns()}", *args)


def ids_text(ids):
    return "array:int32:" + ",".join(map(str, ids))


def delete_on_watch(session, *ids):
    call_watch(session, "DeleteNotis", ids_text(ids))


def read_on_watch(session, *ids):
    call_watch(session, "UpdateInd", ids_text(ids), "int32:0")


def more_on_watch(session, mail):
    call_watch(session, "MoreMsg", "string:" + mail["message_uid"], f"int32:{mail['mail_id']}")


def reply_on_watch(session, mail, text, uid=None):
    recipient = mail["from_address"] + ("\x02" + mail["from_name"] if mail["from_name"] else "")
    call_watch(session, "Reply", "string:" + mail["host_tag"], "string:intent.action.email.notifications.reply",
               "string:" + mail["message_uid"], "string:" + recipient, "string:" + text, f"int32:{mail['mail_id']}",
               "string:" + mail["subject"], uid=uid)


def journal(session):
    """What the watch says of its replies, deletions and marks, oldest first: their state, why, and the text."""
    path = pathlib.Path(session.env["XDG_DATA_HOME"]) / "brisel" / "store.db"
    with contextlib.closing(sqlite3.connect(path, timeout=30)) as store:
        return store.execute("SELECT state, reason, text FROM journal ORDER BY id").fetchall()


def body_text(mail):
    return re.sub(r"<tag:thisisover-?\d+>$", "", mail["body"])


def host_pid(session):
    done = session.run("dbus-send", "--session", "--print-reply=literal", "--dest=org.freedesktop.DBus", "/",
                       "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{HOST}", check=False)
    return int(done.stdout.split()[-1]) if done.returncode == 0 else 0


def status(session, *watch):
    return json.loads(session.phone("relay", "status", "--json", *watch))

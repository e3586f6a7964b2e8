#!/usr/bin/env python3
"""An account on a server: the first sync of a large mailbox beside a synchroniser that fetches whole messages (mbsync),
through a proxy that counts the bytes; arrival to screen; wake-ups while nothing happens. Runs inside a private session
(brisel-session).   usage: bench-post [MAILS]"""
import imaplib
import os
import pathlib
import shutil
import socket
import ssl
import subprocess
import sys
import threading
import time

for folder in ("bench", "tools"):
    sys.path.insert(0, f"@SOURCE@/{folder}/lib")
from brisel_servers import PASSWORD, USER, Authority, Dovecot, owner_of_mail  # noqa: E402
from figures import NOTHING, emit, wakeups  # noqa: E402
from mails import message  # noqa: E402

COUNT = int(sys.argv[1]) if len(sys.argv) > 1 else 10000
NEWEST, RUNS = 200, 3
SESSION = pathlib.Path(os.environ["BRISEL_SESSION_DIR"])


class Wire:
    """Stands between a client and a server and counts what crosses."""

    def __init__(self, port):
        self.target, self.bytes = port, 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            client = self.listener.accept()[0]
            server = socket.create_connection(("127.0.0.1", self.target))
            for a, b in ((client, server), (server, client)):
                threading.Thread(target=self.pump, args=(a, b), daemon=True).start()

    def pump(self, source, sink):
        try:
            while data := source.recv(65536):
                self.bytes += len(data)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass


def value(path, key):
    return next(int(line.split()[1]) for line in open(path) if line.startswith(key))


def wait(condition, what, seconds=300, pause=0.005):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"bench-post: waited in vain for {what}")
        time.sleep(pause)


def files(path):
    return sum(len(os.listdir(path / folder)) for folder in ("new", "cur") if (path / folder).is_dir())


def sync_ours(wire, config):
    """From the start of the process to the last file. Returns seconds, bytes, MiB."""
    mirror = SESSION / "state" / "brisel-phone" / "post" / USER
    shutil.rmtree(mirror, ignore_errors=True)
    wire.bytes, start = 0, time.monotonic()
    process = subprocess.Popen(["brisel-phone", "follow-imap", "--config", config, "--account", USER, "--folder", "INBOX",
                                "--newest", str(NEWEST)], stderr=subprocess.DEVNULL)
    wait(lambda: files(mirror) == NEWEST, "the mirror")
    took = time.monotonic() - start
    wait(lambda: list(mirror.glob("agreed.*")), "its end")
    peak = value(f"/proc/{process.pid}/status", "VmHWM:") / 1024
    crossed = wire.bytes
    process.kill()
    process.wait()
    return took, crossed, peak


def sync_mbsync(wire, ca):
    box = SESSION / "mbsync"
    shutil.rmtree(box, ignore_errors=True)
    box.mkdir()
    (box / "rc").write_text(f"""IMAPAccount a
Host localhost
Port {wire.port}
User {USER}
Pass {PASSWORD}
AuthMechs LOGIN
SSLType IMAPS
CertificateFile {ca}

IMAPStore far
Account a

MaildirStore near
Path {box}/
Inbox {box}/INBOX

Channel c
Far :far:
Near :near:
Patterns INBOX
Sync Pull
Create Near
MaxMessages {NEWEST}
ExpireUnread yes
SyncState *
""")
    wire.bytes, start = 0, time.monotonic()
    process = subprocess.Popen(["mbsync", "-c", box / "rc", "c"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = process.stderr.read().decode()
    _, status, usage = os.wait4(process.pid, 0)
    took = time.monotonic() - start
    if status or files(box / "INBOX") != NEWEST:
        sys.exit(f"bench-post: mbsync ended with {status} and {files(box / 'INBOX')} files: {errors[-500:]}")
    return took, wire.bytes, usage.ru_maxrss / 1024


def fill(dovecot):
    """Written into the folder as its owner would. Returns the size of the newest."""
    box, owner, newest = dovecot.home / "Maildir", owner_of_mail(), 0
    for folder in ("", "tmp", "new", "cur"):
        (box / folder).mkdir(exist_ok=True)
        os.chown(box / folder, owner.pw_uid, owner.pw_gid)
    for n in range(COUNT):
        path = box / "cur" / f"{1760000000 + n}.M{n}.bench:2,S"
        path.write_text(message(n))
        os.chown(path, owner.pw_uid, owner.pw_gid)
        newest += path.stat().st_size if n >= COUNT - NEWEST else 0
    return newest


def follow(imap, config):
    relay = subprocess.Popen(["brisel-phone", "relay", "--config", config], stderr=subprocess.DEVNULL)
    start = time.monotonic()
    watch = lambda: subprocess.run(["brisel-phone", "mail", "list", "--json"], capture_output=True, text=True).stdout  # noqa: E731
    wait(lambda: watch().count('"message_uid"') == NEWEST, "the mails on the watch", pause=0.1)
    emit(f"account with {COUNT} mails to the newest {NEWEST} on the watch", "s", [time.monotonic() - start], None,
         "the messages are on the phone already")
    subprocess.run(["brisel-watchctl", "launch"], check=True, stdout=subprocess.DEVNULL)
    shown, looks = [], []
    for _ in range(5):
        start = time.monotonic()
        subprocess.run(["brisel-watchctl", "dump"], check=True, stdout=subprocess.DEVNULL)
        looks.append((time.monotonic() - start) * 1000)
    for n in range(5):
        sender = f"Newcomer {n}"
        text = f"From: {sender} <n@example.org>\nSubject: S\nMessage-ID: <live{n}@x>\n\nText\n"
        imap.append("INBOX", "", imaplib.Time2Internaldate(time.time()), text.encode())
        start = time.monotonic()
        wait(lambda: sender in subprocess.run(["brisel-watchctl", "dump"], capture_output=True, text=True).stdout, sender)
        shown.append((time.monotonic() - start) * 1000)
    emit("at the server to screen (seen by asking again and again)", "ms", shown, looks, "asking once")
    followers = [int(pid) for pid in open(f"/proc/{relay.pid}/task/{relay.pid}/children").read().split()
                 if b"follow-imap" in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()]
    time.sleep(2)
    before = sum(map(wakeups, [relay.pid, *followers]))
    time.sleep(30)
    emit("wake-ups of relay and follower in 30 idle seconds, IDLE on", "",
         [sum(map(wakeups, [relay.pid, *followers])) - before], *NOTHING)
    relay.terminate()
    if relay.wait():
        sys.exit(f"bench-post: the relay ended with {relay.returncode}")


authority = Authority(SESSION / "ca")
with Dovecot(SESSION / "dovecot", authority.issue("server")) as dovecot:
    newest_bytes = fill(dovecot)
    imap = imaplib.IMAP4_SSL("localhost", dovecot.tls, ssl_context=ssl.create_default_context(cafile=authority.ca))
    imap.login(USER, PASSWORD)
    imap.select("INBOX")  # the server makes its index once
    wire = Wire(dovecot.tls)
    config = SESSION / "relay.conf"
    config.write_text(f"[relay]\nnewest={NEWEST}\n\n[account {USER}]\nimap=imaps://localhost:{wire.port}\nca={authority.ca}\n"
                      f"password-command=echo {PASSWORD}\n")
    sync_ours(wire, config)  # once for the caches
    ours, beside = zip(*((sync_ours(wire, config), sync_mbsync(wire, authority.ca)) for _ in range(RUNS)))
    for at, (what, unit, scale) in enumerate((("time", "s", 1), ("bytes on the wire", "KiB", 1024), ("peak resident memory", "MiB", 1))):
        emit(f"first sync of the newest {NEWEST} of {COUNT}, {what}", unit, [o[at] / scale for o in ours],
             [b[at] / scale for b in beside], "mbsync, whole messages")
    emit(f"share of the newest {NEWEST}'s bytes that crossed the wire", "%", [100 * o[1] / newest_bytes for o in ours],
         [100 * b[1] / newest_bytes for b in beside], "mbsync, whole messages")
    follow(imap, config)

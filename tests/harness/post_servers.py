"""Servers that only tests need: one of another make, and one that plays tricks."""
import contextlib
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import threading
import time

from brisel_test import main  # noqa: F401  (puts the tools' folder on the path)
from brisel_servers import NOBODY, PASSWORD, USER, Server, free_port, hand_over, owner_of_mail


class Imap4d(Server):
    """A server of another make, which knows fewer extensions."""

    def __init__(self, folder, certificate):
        self.folder = pathlib.Path(folder)
        home, passwords = self.folder / "home", self.folder / "passwords"
        home.mkdir(parents=True)
        passwords.mkdir()
        self.ports = (self.tls,) = (free_port(),)
        owner = owner_of_mail()
        crypted = subprocess.run(["openssl", "passwd", "-5", PASSWORD], check=True, capture_output=True, text=True).stdout.strip()
        name, domain = USER.split("@")
        (passwords / domain).write_text(f"{name}:{crypted}:{owner.pw_uid}:{owner.pw_gid}:x:{home}:/bin/sh\n")
        (self.folder / "imap4d.conf").write_text(f"""
mode daemon;
foreground yes;
pidfile {self.folder}/pid;
tcp-wrappers {{ enable no; }};
auth {{ authentication clear; authentication generic; authorization clear; authorization virtdomain; }};
virtdomain {{ passwd-dir {passwords}; }};
mailbox {{ mailbox-pattern "maildir:{home}/Maildir"; mailbox-type maildir; }};
namespace personal {{ prefix "" {{ directory "{home}"; mailbox-type maildir; }}; }};
logging {{ syslog no; }};
tls {{ ssl-certificate-file {certificate[0]}; ssl-key-file {certificate[1]}; }};
server 127.0.0.1:{self.tls} {{ tls-mode connection; }};
""")
        self.box = home / "INBOX"
        for path in (home, self.box, *(self.box / name for name in ("tmp", "new", "cur"))):
            path.mkdir(exist_ok=True)
            shutil.chown(path, owner.pw_uid, owner.pw_gid)
        hand_over(self.folder, owner)
        self.command = ["imap4d", "--config-file", self.folder / "imap4d.conf", "--foreground"]
        self.start()

    def end(self):
        os.killpg(self.process.pid, signal.SIGKILL)  # its connections would live on

    def add(self, text, name):
        (self.box / "tmp" / name).write_text(text)
        shutil.chown(self.box / "tmp" / name, NOBODY)
        os.rename(self.box / "tmp" / name, self.box / "new" / name)


class Hostile:
    """What a server may do to who trusts it: each connection plays the next of the given answers, a function of
    command, tag and line. After bytes, or None, it hangs up; a text that is called SLOW comes a byte at a time,
    without end."""

    SLOW = "* 1 FETCH (UID 1 BODY[HEADER] {9000000}\r\n"

    def __init__(self, answers):
        self.answers, self.played = list(answers), 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            script = self.answers[min(self.played, len(self.answers) - 1)]
            self.played += 1
            with contextlib.suppress(OSError), connection, connection.makefile("rwb") as stream:
                stream.write(b"* OK ready\r\n")
                stream.flush()
                while line := stream.readline():
                    tag, command = line.split()[:2]
                    out = script(command.upper().decode(), tag.decode(), line.decode(errors="replace"))
                    if out is None:
                        break
                    stream.write(out if isinstance(out, bytes) else out.encode())
                    stream.flush()
                    while out is self.SLOW:
                        time.sleep(0.1)
                        stream.write(b"x")
                        stream.flush()
                    if isinstance(out, bytes):
                        break

    def stop(self):
        self.listener.close()

"""Real servers of mail on loopback for one test: own processes, own folders, own certificates."""
import contextlib
import getpass
import os
import pathlib
import pwd
import random
import shutil
import signal
import socket
import subprocess
import threading
import time

USER, PASSWORD = "me@example.org", "sesame"
NOBODY = "nobody" if os.getuid() == 0 else getpass.getuser()


def free_port():
    """Below those that the system gives to whoever connects: one of them might be taken before the server is up."""
    while True:
        with socket.socket() as s, contextlib.suppress(OSError):
            s.bind(("127.0.0.1", random.randrange(10000, 32000)))
            return s.getsockname()[1]


def openssl(*args):
    subprocess.run(["openssl", *map(str, args)], check=True, capture_output=True)


class Authority:
    """Certificates for localhost, good ones and others."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ca = self.folder / "ca.pem"
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", 30, "-subj", "/CN=Authority of the tests",
                "-keyout", self.folder / "ca.key", "-out", self.ca)

    def issue(self, name, host="localhost", days=30, signed=True):
        key, cert, request = (self.folder / f"{name}.{kind}" for kind in ("key", "pem", "csr"))
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={host}", "-addext", f"subjectAltName=DNS:{host}",
                "-keyout", key, "-out", request)
        issuer = ["-CA", self.ca, "-CAkey", self.folder / "ca.key", "-CAcreateserial"] if signed else ["-signkey", key]
        openssl("x509", "-req", "-in", request, *issuer, "-days", days, "-copy_extensions", "copy", "-out", cert)
        return cert, key


def hand_over(folder, owner):
    """The servers leave root's rights behind; the session's folder lets them through."""
    shutil.chown(folder, owner.pw_uid, owner.pw_gid)
    folder.chmod(0o755)
    folder.parent.chmod(folder.parent.stat().st_mode | 0o011)


class Server:
    """A program in the foreground that listens on its ports."""
    ports = ()

    def end(self):
        self.process.terminate()

    def start(self):
        self.log = open(self.folder / "output.log", "a")
        self.process = subprocess.Popen(self.command, stdout=self.log, stderr=self.log, stdin=subprocess.DEVNULL,
                                        start_new_session=True)
        end = time.monotonic() + 30
        for port in self.ports:
            while True:
                assert self.process.poll() is None, (self.folder / "output.log").read_text()[-2000:]
                try:
                    socket.create_connection(("127.0.0.1", port), 1).close()
                    break
                except OSError:
                    assert time.monotonic() < end, "the server does not listen"
                    time.sleep(0.02)

    def stop(self):
        self.end()
        self.process.wait()
        self.log.close()


class Dovecot(Server):
    def __init__(self, folder, certificate, more=""):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ports = self.starttls, self.tls = free_port(), free_port()
        if "ssl = no" in more:
            self.ports = (self.starttls,)
        self.home = self.folder / "home"
        self.home.mkdir()
        owner = pwd.getpwnam(NOBODY)
        internal = "" if os.getuid() == 0 else f"default_internal_user = {NOBODY}\ndefault_login_user = {NOBODY}\n"
        (self.folder / "dovecot.conf").write_text(f"""
base_dir = {self.folder}/run
state_dir = {self.folder}/state
log_path = {self.folder}/dovecot.log
protocols = imap
listen = 127.0.0.1
first_valid_uid = 1
ssl = yes
ssl_cert = <{certificate[0]}
ssl_key = <{certificate[1]}
{internal}
service imap-login {{
  chroot =
  inet_listener imap {{
    port = {self.starttls}
  }}
  inet_listener imaps {{
    port = {self.tls}
    ssl = yes
  }}
}}
service anvil {{
  chroot =
}}
service stats {{
  chroot =
}}
passdb {{
  driver = static
  args = password={PASSWORD}
}}
userdb {{
  driver = static
  args = uid={owner.pw_uid} gid={owner.pw_gid} home={self.home}
}}
mail_location = maildir:~/Maildir
namespace inbox {{
  inbox = yes
  mailbox Sent {{
    auto = create
    special_use = \\Sent
  }}
  mailbox Work {{
    auto = create
  }}
}}
{more}
""")
        shutil.chown(self.home, owner.pw_uid, owner.pw_gid)
        hand_over(self.folder, owner)
        self.command = ["dovecot", "-F", "-c", self.folder / "dovecot.conf"]
        self.start()


class Imap4d(Server):
    """A server of another make, which knows fewer extensions."""

    def __init__(self, folder, certificate):
        self.folder = pathlib.Path(folder)
        home, passwords = self.folder / "home", self.folder / "passwords"
        home.mkdir(parents=True)
        passwords.mkdir()
        self.ports = (self.tls,) = (free_port(),)
        owner = pwd.getpwnam(NOBODY)
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
    command, tag and line. After bytes, or None, it hangs up."""

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
            with connection, connection.makefile("rwb") as stream:
                try:
                    stream.write(b"* OK ready\r\n")
                    stream.flush()
                    while line := stream.readline():
                        tag, command = line.split()[:2]
                        out = script(command.upper().decode(), tag.decode(), line.decode(errors="replace"))
                        if out is None:
                            break
                        stream.write(out if isinstance(out, bytes) else out.encode())
                        stream.flush()
                        if isinstance(out, bytes):
                            break
                except OSError:
                    pass

    def stop(self):
        self.listener.close()


class Exim(Server):
    """Takes messages from who logs in and keeps them in its queue."""

    def __init__(self, folder, certificate):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ports = self.starttls, self.tls = free_port(), free_port()
        owner = pwd.getpwnam(NOBODY)
        key = self.folder / "server.key"
        shutil.copy(certificate[1], key)
        (self.folder / "exim.conf").write_text(f"""
primary_hostname = localhost
exim_user = {NOBODY}
exim_group = {owner.pw_gid}
daemon_smtp_ports = {self.starttls} : {self.tls}
tls_on_connect_ports = {self.tls}
local_interfaces = 127.0.0.1
tls_advertise_hosts = *
tls_certificate = {certificate[0]}
tls_privatekey = {key}
auth_advertise_hosts = ${{if eq{{$tls_in_cipher}}{{}}{{}}{{*}}}}
spool_directory = {self.folder}/spool
log_file_path = {self.folder}/%s.log
pid_file_path = {self.folder}/exim.pid
queue_only = true
message_size_limit = 1M
acl_smtp_rcpt = check
begin acl
check:
  deny condition = ${{if match{{$local_part}}{{^nobody-there}}}}
       message = no such user
  accept authenticated = *
  deny message = log in first
begin routers
begin transports
begin authenticators
plain:
  driver = plaintext
  public_name = PLAIN
  server_prompts = :
  server_condition = ${{if and{{{{eq{{$auth2}}{{{USER}}}}}{{eq{{$auth3}}{{{PASSWORD}}}}}}}}}
  server_set_id = $auth2
""")
        shutil.chown(key, owner.pw_uid, owner.pw_gid)
        key.chmod(0o600)
        hand_over(self.folder, owner)
        self.command = ["exim4", "-bdf", "-C", self.folder / "exim.conf"]
        self.start()

    def messages(self):
        """Header and text of each, as one string."""
        found = []
        for head in sorted(self.folder.glob("spool/input/**/*-H")):  # written last: the message is there as a whole
            body = head.with_name(head.name[:-1] + "D").read_text()
            found.append(head.read_text() + "\n" + body.split("\n", 1)[1])
        return found

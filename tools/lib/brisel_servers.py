"""Real servers of mail on loopback for tests and the demo: own processes, own folders, own certificates. A server runs
from its making to the end of its `with` block."""
import contextlib
import getpass
import os
import pathlib
import pwd
import random
import shutil
import socket
import subprocess
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


NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1")  # made in no time


class Authority:
    """Certificates for localhost, good ones and others."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ca = self.folder / "ca.pem"
        openssl("req", "-x509", *NEW_KEY, "-nodes", "-days", 30, "-subj", "/CN=Authority of one session",
                "-keyout", self.folder / "ca.key", "-out", self.ca)

    def issue(self, name, host="localhost", days=30, signed=True, more=()):
        """more: further names."""
        key, cert, request = (self.folder / f"{name}.{kind}" for kind in ("key", "pem", "csr"))
        names = ",".join(f"DNS:{n}" for n in (host, *more))
        openssl("req", *NEW_KEY, "-nodes", "-subj", f"/CN={host}", "-addext", f"subjectAltName={names}",
                "-keyout", key, "-out", request)
        issuer = ["-CA", self.ca, "-CAkey", self.folder / "ca.key", "-CAcreateserial"] if signed else ["-signkey", key]
        openssl("x509", "-req", "-in", request, *issuer, "-days", days, "-copy_extensions", "copy", "-out", cert)
        return cert, key


def owner_of_mail():
    return pwd.getpwnam(NOBODY)


def hand_over(folder, owner):
    """The servers leave root's rights behind; the session's folder lets them through."""
    shutil.chown(folder, owner.pw_uid, owner.pw_gid)
    folder.chmod(0o755)
    folder.parent.chmod(folder.parent.stat().st_mode | 0o011)


class Server:
    """A program in the foreground that listens on its ports."""
    ports = ()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

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
        if self.process.poll() is None:
            self.end()
            self.process.wait()
        self.log.close()


class Dovecot(Server):
    def __init__(self, folder, certificate, more="", ports=None):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ports = self.starttls, self.tls = ports or (free_port(), free_port())
        if "ssl = no" in more:
            self.ports = (self.starttls,)
        self.home = self.folder / "home"
        self.home.mkdir()
        owner = owner_of_mail()
        internal = "" if os.getuid() == 0 else f"default_internal_user = {NOBODY}\ndefault_login_user = {NOBODY}\n"
        (self.folder / "dovecot.conf").write_text(f"""
base_dir = {self.folder}/run
state_dir = {self.folder}/state
log_path = {self.folder}/dovecot.log
protocols = imap
listen = 127.0.0.1
first_valid_uid = 1
auth_failure_delay = 0
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
  unix_listener anvil-auth-penalty {{
    mode = 0
  }}
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


class Exim(Server):
    """Takes messages from who logs in, with the password or that token, and keeps them in its queue."""

    def __init__(self, folder, certificate, ports=None, token=None):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ports = self.starttls, self.tls = ports or (free_port(), free_port())
        tokens = "".join(f"""
{name}:
  driver = plaintext
  public_name = {name.upper()}
  server_prompts = :
  server_condition = ${{if match{{$auth1}}{{Bearer {token}\\x01}}}}
""" for name in ("xoauth2", "oauthbearer") if token)
        owner = owner_of_mail()
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
  server_condition = ${{if eq{{$auth3}}{{{PASSWORD}}}}}
  server_set_id = $auth2
{tokens}""")
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

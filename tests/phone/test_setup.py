"""The dialogue of `setup` as a user has it: on a terminal, in a network of its own with a name service and real servers."""
import contextlib
import http.server
import os
import pathlib
import pty
import select
import shlex
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import threading
import time

INSIDE = "BRISEL_TEST_NETWORK"
if INSIDE not in os.environ:
    if os.getuid() != 0 or subprocess.run(["unshare", "-n", "-m", "true"], capture_output=True).returncode:
        sys.exit(print("1..0 # SKIP a network of its own needs root") or 0)
    os.environ[INSIDE] = tempfile.mkdtemp(prefix="brisel-net-")
    done = subprocess.run(["unshare", "-n", "-m", sys.executable, *sys.argv])
    shutil.rmtree(os.environ[INSIDE])
    sys.exit(done.returncode)

from brisel_test import equal, main  # noqa: E402
from brisel_servers import PASSWORD, Authority, Dovecot, Exim  # noqa: E402

NET = pathlib.Path(os.environ[INSIDE])
TOKEN = "ya29.valid-now"
FILE = """<?xml version="1.0"?><clientConfig version="1.1"><emailProvider id="x"><domain>x</domain>
<incomingServer type="pop3"><hostname>pop.x</hostname><port>995</port><socketType>SSL</socketType></incomingServer>
<incomingServer type="imap"><hostname>bare.x</hostname><port>143</port><socketType>plain</socketType></incomingServer>
<incomingServer type="imap"><hostname>imap.named.example</hostname><port>993</port><socketType>SSL</socketType>
 <username>%EMAILLOCALPART%</username></incomingServer>
<outgoingServer type="smtp"><hostname>smtp.named.example</hostname><port>587</port><socketType>STARTTLS</socketType></outgoingServer>
</emailProvider></clientConfig>"""
HOSTS = ("autoconfig.file.example", "file.example", "well.example", "srv.example", "mx.srv.example", "starttls.example",
         "mx.starttls.example", "away.example", "mx.host.example", "named.example", "imap.named.example",
         "smtp.named.example", "mailed.example", "mail.mailed.example", "bare.example", "split.example",
         "evil.example")
RECORDS = ("_imaps._tcp.srv.example,mx.srv.example,993", "_submissions._tcp.srv.example,mx.srv.example,465",
           "_imap._tcp.starttls.example,mx.starttls.example,143", "_submission._tcp.starttls.example,mx.starttls.example,587",
           "_imaps._tcp.away.example,mx.host.example,993", "_submissions._tcp.away.example,mx.host.example,465",
           "_imaps._tcp.split.example,evil.example,993", "_submissions._tcp.split.example,mx.host.example,465")


class Web(http.server.BaseHTTPRequestHandler):
    """A domain's file of its servers, and whose a token is."""

    def do_GET(self):
        host, text = self.headers["Host"], ""
        if self.path.startswith("/token/"):
            text = '{"email": "me@named.example"}' if self.path.endswith((TOKEN, "reading")) else ""
        elif host == "autoconfig.file.example" and self.path.startswith("/mail/config-v1.1.xml?emailaddress=me%40"):
            text = FILE
        elif host == "well.example" and self.path == "/.well-known/autoconfig/mail/config-v1.1.xml":
            text = FILE.replace("%EMAILLOCALPART%", "%EMAILADDRESS%")
        self.send_response(200 if text else 404)
        self.end_headers()
        self.wfile.write(text.encode())

    def log_message(self, *_):
        pass


def serve_web(port, certificate=None):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Web)
    if certificate:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*certificate)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()


@contextlib.contextmanager
def network():
    """Everything that a provider has."""
    (NET / "resolv.conf").write_text("nameserver 127.0.0.1\n")
    for command in (["ip", "link", "set", "lo", "up"], ["mount", "--bind", NET / "resolv.conf", "/etc/resolv.conf"]):
        subprocess.run(command, check=True)
    names = subprocess.Popen(["dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
                              "--listen-address=127.0.0.1", "--bind-interfaces", "--pid-file=", "--user=root", "--address=/#/",
                              *(f"--host-record={host},127.0.0.1" for host in HOSTS),
                              *(f"--srv-host={record}" for record in RECORDS)])
    authority = Authority(NET / "ca")
    certificate = authority.issue("server", host="localhost", more=HOSTS)
    (NET / "token.conf").write_text("tokeninfo_url = http://127.0.0.1:80/token/\nusername_attribute = email\n")
    tokens = f"auth_mechanisms = plain login xoauth2 oauthbearer\npassdb {{\n driver = oauth2\n mechanisms = xoauth2 oauthbearer\n args = {NET}/token.conf\n}}\n"
    try:
        serve_web(443, certificate)
        serve_web(80)
        with Dovecot(NET / "dovecot", certificate, ports=(143, 993), more=tokens), \
                Exim(NET / "exim", certificate, ports=(587, 465), token=TOKEN):
            yield authority
    finally:
        names.terminate()
        names.wait()


def dialogue(s, *args, answers=(), env=None):
    """Runs setup on a terminal and answers each question in turn: (what it says, what is typed). Returns all that was on
    the screen, and the exit code."""
    pid, fd = pty.fork()
    if pid == 0:
        os.execvpe("brisel-phone", ["brisel-phone", "setup", "--ca", str(NET / "ca" / "ca.pem"), "--no-start", "--config",
                                    str(s.dir / "relay.conf"), *args], {**s.env, **(env or {})})
    screen, at, end = "", 0, time.monotonic() + 60
    answers = list(answers)
    while True:
        assert select.select([fd], [], [], max(0, end - time.monotonic()))[0], f"it waits: {screen}"
        try:
            data = os.read(fd, 4096)
        except OSError:
            break
        screen += data.decode()
        while answers and answers[0][0] in screen[at:]:
            at = len(screen)
            os.write(fd, (answers[0][1] + "\n").encode())
            answers.pop(0)
    code = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    assert not answers, f"never asked {answers}: {screen}"
    return screen.replace("\r\n", "\n"), code


KEEP = ("file that only you can read", "y")
SERVERS = (("incoming mail", "named.example"), ("outgoing mail", "named.example:587"))


def test_servers_are_found(s):
    """(address, more arguments, answers but for the last, what the configuration says)."""
    rows = (("me@file.example", (), (), ("imaps://imap.named.example:993", "smtp://smtp.named.example:587", "user=me\n")),
            ("me@well.example", (), (), ("imaps://imap.named.example:993", "smtp://smtp.named.example:587")),
            ("me@srv.example", (), (), ("imaps://mx.srv.example:993", "smtps://mx.srv.example:465")),
            ("me@starttls.example", (), (), ("imap://mx.starttls.example:143", "smtp://mx.starttls.example:587")),
            ("me@away.example", (), (("Is that your provider?", "y"),), ("imaps://mx.host.example:993",)),
            ("me@away.example", (), (("Is that your provider?", ""), *SERVERS), ("imaps://named.example\n", "smtp://named.example:587")),
            ("me@named.example", (), (), ("imaps://imap.named.example\n", "smtps://smtp.named.example\n")),
            ("me@mailed.example", (), (), ("imaps://mail.mailed.example\n",)),
            ("me@bare.example", (), SERVERS, ("imaps://named.example\n", "smtp://named.example:587\n")),
            ("me@bare.example", ("--imap", "named.example", "--smtp", "named.example:587"), (), ("imaps://named.example\n", "smtp://named.example:587\n")),
            (' "me too"@named.example. ', ("--user", "me"), (), ('[account "me too"@named.example]\n', "imaps://imap.named.example\n")))
    for address, args, answers, wanted in rows:
        (s.dir / "relay.conf").unlink(missing_ok=True)
        screen, code = dialogue(s, address, *args, answers=(*answers, ("Password:", PASSWORD), KEEP))
        equal(code, 0, screen)
        assert PASSWORD not in screen, screen
        config = (s.dir / "relay.conf").read_text()
        assert all(w in config for w in wanted) and ("user=me\n" in config) == ("file" in address or "too" in address), config


GIVEN = ("--imap", "imaps://imap.named.example", "--smtp", "smtps://smtp.named.example")


def setup(s, address, *args, password=PASSWORD, prefix=(), env=None):
    """Without a terminal."""
    done = subprocess.run([*prefix, "brisel-phone", "setup", address, "--ca", NET / "ca" / "ca.pem", "--no-start", "--config",
                           s.dir / "relay.conf", *args], env={**s.env, **(env or {})}, input=password + "\n", text=True,
                          capture_output=True, timeout=60)
    return done.stdout + done.stderr, done.returncode


def test_tokens(s):
    refused = "does not take the user me@named.example with this token"
    for auth in ("xoauth2", "oauthbearer"):
        for token, code, said in (("expired", 1, "imap.named.example " + refused), ("reading", 1, "smtp.named.example " + refused),
                                  ("", 1, "the password command printed nothing"), (TOKEN, 0, "is set up")):
            out, got = setup(s, "me@named.example", *GIVEN, "--auth", auth, "--password-command", f"echo {token}")
            assert (got, said in out, len(out.splitlines())) == (code, True, 2 - code), out
        assert "both directions work" in s.phone("account", "test", "--config", s.dir / "relay.conf")
        before = (s.dir / "relay.conf").read_text()
        equal((setup(s, "me@named.example")[1], (s.dir / "relay.conf").read_text()), (0, before), "set up again")


def test_each_error_is_one_sentence(s):
    elsewhere = ("unshare", "-m", "sh", "-c", f'mount --bind {NET}/nowhere.conf /etc/resolv.conf && exec "$@"', "sh")
    (NET / "nowhere.conf").write_text("nameserver 127.0.0.9\n")
    places = {"-": (), "nowhere": elsewhere, "alone": ("unshare", "-n")}
    rows = [line.split(" | ") for line in (pathlib.Path(__file__).parent / "cases" / "setup.txt").read_text().splitlines()[1:]]
    for said, place, words in rows:
        out, code = setup(s, *shlex.split(words.replace("GIVEN", " ".join(GIVEN))), prefix=places[place])
        assert code in (1, 2) and said in out.splitlines()[-1] and len(out.splitlines()) <= 3, out
        assert not (s.dir / "relay.conf").exists(), said


def test_a_password_in_the_keyring(s):
    account = lambda *args: s.run("brisel-phone", "account", *args, "--config", s.dir / "relay.conf", check=False).stdout  # noqa: E731

    @contextlib.contextmanager
    def keyring(*args):
        daemon = subprocess.Popen(["gnome-keyring-daemon", "--foreground", "--components=secrets", *args], env=s.env,
                                  stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        daemon.stdin.write(b"of the user")
        daemon.stdin.close()
        s.wait(lambda: "secrets" in s.run("dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                                          "org.freedesktop.DBus.ListNames").stdout, "the keyring")
        yield
        daemon.terminate()
        daemon.wait()

    with keyring("--unlock"):
        screen, code = dialogue(s, "me@named.example", answers=[("Password:", "mistyped"), ("Password:", PASSWORD)])
        equal(code, 0, screen)
        assert not any(PASSWORD in p.read_text(errors="ignore") for p in s.dir.rglob("*") if p.is_file()), "a file has it"
        equal(account("test"), "me@named.example: both directions work\n")
    with keyring():
        assert "the keyring that may have its password is locked" in account("test"), account("test")
    with keyring("--unlock"):
        assert "imaps://imap.named.example" in account("list")
        assert "forgotten here and on the watch" in account("remove", "me@named.example")
        equal((account("list"), list(s.dir.rglob("post/*"))), ("", []), "what is left")


if __name__ == "__main__":
    with network():
        main(globals())

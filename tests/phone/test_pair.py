"""The phone and the watch as two machines: a real sshd, keys of their own, and links that end in every way."""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import sqlite3
import subprocess

from brisel_test import BUILD, PATIENCE, Session, kill_service
from brisel_machines import free_port, start_sshd
from phone_test import Maildir, Relay, body_text, by_uid, delete_on_watch, equal, main, message, status

GATE = BUILD / "gate" / "brisel-gate"


class Watch:
    """A machine that lets people in over ssh: the session's bus, and a home folder with somebody else's key in it."""

    def __init__(self, session, folder):
        self.session, self.home = session, pathlib.Path(folder)
        (self.home / ".ssh").mkdir(parents=True)
        self.keys = self.home / ".ssh" / "authorized_keys"
        for name in ("host-key", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.home / name], check=True)
        self.others = "# mine\n" + (self.home / "user.pub").read_text().rstrip("\n")  # a last line without its end
        self.keys.write_text(self.others)
        self.port = free_port()
        self.env = {k: v for k, v in session.env.items() if k.startswith(("XDG_", "BRISEL_", "DBUS_"))}
        self.env |= {"HOME": str(self.home), "PATH": f"{GATE.parent}:{session.env['PATH']}"}
        self.address = f"ssh://127.0.0.1:{self.port}"
        self.start()

    def start(self):
        self.sshd = start_sshd(self.home, "127.0.0.1", self.port, self.keys, self.env)
        self.session.wait(self.answers, "sshd")

    def answers(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def stop(self):
        self.sshd.terminate()
        self.sshd.wait()


def users_ssh(s, watch):
    """What the user's ssh knows by itself: one identity and no host. Only where no key is named, as none of ours is used
    for pairing, and none of the user's for the link."""
    own = s.dir / "bin"
    own.mkdir(exist_ok=True)
    (own / "ssh").write_text(f"""#!/bin/sh
case " $* " in *" -i "*) exec /usr/bin/ssh -F /dev/null "$@";; esac
exec /usr/bin/ssh -F /dev/null -i '{watch.home}/user' -o StrictHostKeyChecking=no -o UserKnownHostsFile='{s.dir}/known' "$@"
""")
    (own / "ssh").chmod(0o755)
    if not s.env["PATH"].startswith(f"{own}:"):
        s.env["PATH"] = f"{own}:" + s.env["PATH"]


def on_watch(s):
    return set(by_uid(s))


def test_pairing_over_ssh(s):
    watch = Watch(s, s.dir / "watch")
    users_ssh(s, watch)
    box = Maildir(s.dir / "box")
    box.deliver(message("one@x"))
    for old in (True, False):  # the second time changes nothing but the line of a phone that did not say who it is
        assert "is paired" in s.phone("pair", watch.address, "--name", "wrist")
        lines = watch.keys.read_text().splitlines()
        equal((lines[:2], len(lines), watch.keys.stat().st_mode & 0o777), (watch.others.splitlines(), 3, 0o600), "keys")
        me = (s.dir / "state" / "brisel-phone" / "phone-id").read_text().strip()
        assert lines[2].startswith(f'restrict,command="brisel-gate --phone={me}" ssh-ed25519 '), lines[2]
        if old:
            watch.keys.write_text(watch.keys.read_text().replace(f" --phone={me}", ""))
        s.phone("account", "list")
    # Nothing but the gate can be had with the key.
    folder = s.dir / "state" / "brisel-phone" / "watches" / "wrist"
    equal([(folder / f).stat().st_mode & 0o77 for f in ("", "key", "watch.ini", "known_hosts")], [0] * 4, "modes")
    told = subprocess.run(["/usr/bin/ssh", "-F", "/dev/null", "-i", folder / "key", "-o", "IdentitiesOnly=yes", "-o",
                           f"UserKnownHostsFile={folder}/known_hosts", "-p", str(watch.port), "127.0.0.1", "echo", "out"],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert "out" not in told.stdout, told
    relay = Relay(s, "--maildir", f"me@example.org={box.path}")
    s.wait(lambda: on_watch(s) == {"one@x"}, "the first mail, without a word on which watch")
    listed = json.loads(s.phone("watches", "--json"))
    equal([(w["name"], w["address"], w["linked_since"] > 0) for w in listed], [("wrist", watch.address, True)], "watches")
    assert "in use" in s.run("brisel-phone", "unpair", "wrist", check=False).stderr
    watch.stop()
    relay.kill(15)
    equal(relay.process.returncode, 0, "exit code")
    box.deliver(message("two@x"))
    relay.start()
    s.wait(lambda: "refused" in status(s)["link"]["trouble"], "the reason why there is no link")
    watch.start()
    s.wait(lambda: on_watch(s) == {"one@x", "two@x"}, "the second mail")
    relay.kill(15)
    # A machine with another host key gets nothing.
    shutil.copy(watch.home / "user", watch.home / "host-key")
    watch.stop()
    watch.start()
    refused = s.run("brisel-phone", "mail", "list", check=False)
    assert "host key is another" in refused.stderr and len(refused.stderr.splitlines()) == 1, refused.stderr
    s.phone("unpair", "wrist")
    equal((watch.keys.read_text().rstrip("\n"), folder.exists()), (watch.others, False), "everything is as before")
    s.phone("pair", watch.address, "--name", "wrist")
    watch.stop()
    gone = s.run("brisel-phone", "unpair", "wrist", check=False)
    equal((gone.returncode, folder.exists(), s.phone("watches")), (1, False, ""), "unpaired on this side")
    assert "could not be told" in gone.stderr, gone.stderr


@contextlib.contextmanager
def radio(*sessions):
    """A stand-in for BlueZ, on the first one's bus in the place of the system's: a watch for each session."""
    buses = [session.env["DBUS_SESSION_BUS_ADDRESS"] for session in sessions]
    sessions[0].env["DBUS_SYSTEM_BUS_ADDRESS"] = buses[0]
    process = subprocess.Popen([BUILD / "tests" / "phone" / "radio", GATE, *buses], env=sessions[0].env)
    try:
        yield
    finally:
        process.kill()
        process.wait()


def test_two_watches_get_everything(s):
    """Over Bluetooth, where BlueZ takes one program of the phone for both."""
    other, box, ways = Session(), Maildir(s.dir / "box"), ("left", "right")
    mails = lambda w: {m["message_uid"]: m for m in json.loads(s.phone("mail", "list", "--json", "--watch", w))}  # noqa: E731
    try:
        with radio(s, other):
            box.deliver(message("one@x"))
            for n, name in enumerate(ways):
                pair = ("brisel-phone", "pair", f"bluetooth:00:11:22:33:44:0{n}", "--name", name)
                s.wait(lambda: s.run(*pair, input="y\n", check=False).returncode == 0, f"{name} to be paired")
            several = s.run("brisel-phone", "mail", "list", check=False)
            assert "left or right" in several.stderr, several.stderr
            relay = Relay(s, "--maildir", f"me@example.org={box.path}")
            s.wait(lambda: all("one@x" in mails(w) for w in ways), "the mail on both")
            delete_on_watch(s, mails("left")["one@x"]["mail_id"])
            box.deliver(message("two@x"))
            s.wait(lambda: [set(mails(w)) for w in ways] == [{"two@x"}, {"one@x", "two@x"}], "each its own")
            for pid in relay.children(b"relay"):  # hears nothing of an end
                os.kill(pid, signal.SIGSTOP)
            relay.process.terminate()
            equal(relay.process.wait(PATIENCE), 0, "exit code")
    finally:
        other.close()


def test_pairing_over_bluetooth(s):
    address = "bluetooth:00:11:22:33:44:00"
    s.env["DBUS_SYSTEM_BUS_ADDRESS"] = s.env["DBUS_SESSION_BUS_ADDRESS"]
    none = s.run("brisel-phone", "pair", address, check=False)
    assert "Bluetooth is not there" in none.stderr, none
    with radio(s):
        s.wait(lambda: "not paired with" in s.run("brisel-phone", "mail", "list", "--watch", address, check=False).stderr,
               "only bonded devices")
        no = s.run("brisel-phone", "pair", address, input="n\n", check=False)
        assert no.returncode == 1 and "123456" in no.stderr and "codes differ" in no.stderr, no
        equal(s.phone("watches"), "", "nothing is left of it")
        yes = s.run("brisel-phone", "pair", address, "--name", "wrist", input="y\n")
        assert "wrist is paired" in yes.stdout, yes
        box = Maildir(s.dir / "box")
        box.deliver(message("one@x", body="a long text\n" * 400))
        relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--first", "100000")
        s.wait(lambda: "one@x" in on_watch(s), "the mail")
        equal(len(body_text(by_uid(s)["one@x"])), 400 * 12 - 1, "all of its text")
        # BlueZ takes a profile once: commands go through who has it.
        listed = json.loads(s.phone("mail", "list", "--json"))
        equal([m["message_uid"] for m in listed], ["one@x"], "by way of the relay")
        s.phone("mail", "update", str(listed[0]["mail_id"]), "--subject", "By the relay")
        equal(by_uid(s)["one@x"]["subject"], "By the relay", "the watch took it")
        assert "wrist\t" in s.phone("watches") and "is linked since" in s.phone("watches"), s.phone("watches")
        assert "in use" in s.run("brisel-phone", "unpair", "wrist", check=False).stderr
        for _ in range(2):  # the device goes out of reach, and comes back
            carrier = s.wait(lambda: relay.children(b"carry-bluetooth"), "the link")[0]
            os.kill(carrier, signal.SIGKILL)
            s.wait(lambda: carrier not in relay.children(b"carry-bluetooth") and s.linked(), "the link again")
        box.deliver(message("two@x"))
        s.wait(lambda: "two@x" in on_watch(s), "the second mail")
        equal(relay.kill(15), 0, "exit code")
        s.phone("unpair", "wrist")
        assert "not paired with" in s.run("brisel-phone", "mail", "list", "--watch", address, check=False).stderr


def test_asks_without_being_heard(s):
    """A machine that answers nobody is asked often, also by way of another program; its server hears only of who speaks."""
    with socket.create_server(("127.0.0.1", 0), backlog=0) as server, contextlib.ExitStack() as crowd:
        port, others = server.getsockname()[1], set()
        for _ in range(4):  # no more than that come in
            one = crowd.enter_context(socket.socket())
            one.setblocking(False)
            one.connect_ex(("127.0.0.1", port))
            others.add(one.getsockname()[1])
        relay = Relay(s, "--maildir", f"me@example.org={Maildir(s.dir / 'box').path}", "--watch",
                      f"exec:ssh -F /dev/null -o BatchMode=yes -p {port} 127.0.0.1 brisel-gate; true")
        asking = re.compile(f" 0100007F:{port:04X} 02 ")
        s.wait(lambda: len(asking.findall(pathlib.Path("/proc/net/tcp").read_text())) > len(others) + 1, "questions")
        crowd.close()
        server.settimeout(PATIENCE)
        heard = None
        while not heard:
            caller, (_, number) = server.accept()
            with caller:
                heard = number not in others and (caller.recv(4), )
        equal(heard[0], b"SSH-", "what comes of it")
        relay.kill(15)


def test_ends_while_it_connects(s):
    box = Maildir(s.dir / "box")
    for address in ("exec:exec sleep 1000", "exec:exec true", "ssh://192.0.2.1", "bluetooth:00:11:22:33:44:55"):
        (s.dir / "relay.log").write_text("")  # or a late word of the one before were taken for this one's
        relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--watch", address)
        s.wait(lambda: relay.children() or "waiting" in relay.log(), "a try")
        relay.process.terminate()
        equal(relay.process.wait(5), 0, address)
    # So does what asks for a password.
    asked = s.dir / "asked"
    (s.dir / "relay.conf").write_text("[account me@example.org]\nplain=yes\nimap=imap://127.0.0.1:1\n"
                                      f"password-command=sleep 1000 & echo $! > {asked}; wait\n")
    relay = Relay(s, "--config", s.dir / "relay.conf")
    s.wait(lambda: asked.exists() and asked.read_text(), "the password command")
    relay.kill(15)
    s.wait(lambda: not pathlib.Path(f"/proc/{asked.read_text().strip()}").exists(), "the end of all that it started")
    # So does the service, while somebody else holds its store.
    s.phone("account", "list")
    with contextlib.closing(sqlite3.connect(f"{s.env['XDG_DATA_HOME']}/brisel/store.db", isolation_level=None)) as store:
        store.execute("BEGIN IMMEDIATE")
        waiting = subprocess.Popen(["brisel-phone", "account", "add", "me@example.org"], env=s.env, stderr=subprocess.DEVNULL)
        service = pathlib.Path(f"/proc/{kill_service(s, 0)}")
        naps = lambda: int((service / "status").read_text().split("voluntary_ctxt_switches:")[1].split()[0])  # noqa: E731
        before = naps()
        s.wait(lambda: naps() > before + 10, "the service to wait for its store")
        os.kill(int(service.name), signal.SIGTERM)
        s.wait(lambda: not service.exists(), "its end", 5)
    waiting.wait()
    for address, said in (("ssh://-oProxyCommand=x", "is wanted"), ("ssh://a:x", "no port"), ("bluetooth:1", "hexadecimal"),
                          ("nowhere", "no watch is called")):
        failed = s.run("brisel-phone", "mail", "list", "--watch", address, check=False)
        assert failed.returncode and said in failed.stderr, (address, failed)


if __name__ == "__main__":
    main(globals())

"""A watch and a phone as two machines on this one, with a real sshd between them. As root: two network namespaces joined
by a cable, and another user on each side. Otherwise, or where the kernel has no such cable: this user twice, over
loopback. Everything lives in a folder of its own and ends with it. Standard library only."""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from brisel_drive import BUILD, Session
from cut_proxy import Cut

USERS = {"watch": 4201, "phone": 4202}
ADDRESSES = {"watch": "10.98.76.1", "phone": "10.98.76.2"}
SSHD = shutil.which("sshd", path=os.environ.get("PATH", "") + ":/usr/sbin") or "/usr/sbin/sshd"


def sh(*command):
    return subprocess.run([str(c) for c in command], check=True, capture_output=True, text=True).stdout


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as s:
        return s.getsockname()[1]


def start_sshd(folder, address, port, authorized_keys, env, prefix=()):
    """A server of its own in that folder, where its host key is; who logs in gets env. Quiet until it is asked."""
    folder = pathlib.Path(folder)
    (folder / "sshd_config").write_text(
        f"Port {port}\nListenAddress {address}\nHostKey {folder}/host-key\nPidFile none\nUsePAM no\nStrictModes no\n"
        f"PermitRootLogin yes\nPasswordAuthentication no\nAuthorizedKeysFile {authorized_keys}\n" +
        ("SetEnv " + " ".join(f'"{k}={v}"' for k, v in env.items() if v) + "\n" if env else ""))
    if os.getuid() == 0 and not prefix:
        pathlib.Path("/run/sshd").mkdir(exist_ok=True)
    return subprocess.Popen([*prefix, SSHD, "-D", "-f", str(folder / "sshd_config"), "-E", str(folder / "sshd.log")])


def can_split():
    """Whether namespaces with a cable between them can be had."""
    if os.getuid() != 0 or not shutil.which("setpriv"):
        return False
    return subprocess.run(["unshare", "-n", "-m", "ip", "link", "add", "end0", "type", "veth", "peer", "name", "end1"],
                          capture_output=True).returncode == 0


class Machines:
    """watch and phone: their sessions. address: what the phone calls the watch. split: two machines indeed."""

    def __init__(self, split=None, delay=0, rate=0, gate_env=None):
        self.split = can_split() if split is None else split
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="brisel-pair-"))
        self.dir.chmod(0o755)
        self.holders, self.spaces, self.sshd, self.net = {}, set(), None, None
        self.gate_env = gate_env or {}
        for name in USERS:
            (self.dir / name).mkdir()
        if self.split:
            self.namespaces()
        self.watch = Session(prefix=self.on("watch"), env={"TMPDIR": str(self.dir / "watch")})
        self.phone = Session(prefix=self.on("phone"), env={"TMPDIR": str(self.dir / "phone")})
        self.keys()
        self.listen(delay, rate)

    def on(self, name, user=True):
        """What a command begins with to run on that machine."""
        if not self.split:
            return ()
        enter = ("nsenter", "-t", str(self.holders[name].pid), "-n", "-m")
        return (*enter, "setpriv", f"--reuid={USERS[name]}", f"--regid={USERS[name]}", "--clear-groups") if user else enter

    def namespaces(self):
        lines = [f"{n}:*:{i}:{i}::{self.dir / n}:/bin/sh\n" for n, i in USERS.items()]
        (self.dir / "passwd").write_text(pathlib.Path("/etc/passwd").read_text() + "".join(lines))
        (self.dir / "group").write_text(pathlib.Path("/etc/group").read_text() +
                                        "".join(f"{n}:x:{i}:\n" for n, i in USERS.items()))
        for name, uid in USERS.items():
            os.chown(self.dir / name, uid, uid)
            script = (f"mount --bind {self.dir}/passwd /etc/passwd && mount --bind {self.dir}/group /etc/group && "
                      "mount -t tmpfs tmpfs /run && mkdir -p /run/sshd /run/user && ip link set lo up && echo ready && exec cat")
            self.holders[name] = subprocess.Popen(["unshare", "-n", "-m", "sh", "-c", script], stdin=subprocess.PIPE,
                                                  stdout=subprocess.PIPE, text=True)
            assert self.holders[name].stdout.readline() == "ready\n", "no namespace"
            self.spaces.add(os.readlink(f"/proc/{self.holders[name].pid}/ns/net"))
        pids = {name: str(holder.pid) for name, holder in self.holders.items()}
        sh("nsenter", "-t", pids["watch"], "-n", "ip", "link", "add", "cable", "type", "veth", "peer", "name", "cable",
           "netns", pids["phone"])
        for name in USERS:
            ip = ("nsenter", "-t", pids[name], "-n", "ip")
            sh(*ip, "addr", "add", ADDRESSES[name] + "/24", "dev", "cable")
            sh(*ip, "link", "set", "cable", "up")

    def keys(self):
        """A key for the host, one for the phone; the phone's can do nothing but reach the gate."""
        ssh = self.dir / "phone" / ".ssh"
        ssh.mkdir(mode=0o700)
        self.echo_key = ssh / "echo-key"  # of somebody who may do anything, to compare with
        for path in (self.dir / "host-key", ssh / "watch-key", self.echo_key):
            sh("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path)
        key = (ssh / "watch-key.pub").read_text()
        echo = self.echo_key.with_suffix(".pub").read_text()
        (self.dir / "authorized_keys").write_text(
            f"restrict,command=\"'{BUILD}/gate/brisel-gate'\" {key}"
            f'restrict,command="eval ${{SSH_ORIGINAL_COMMAND:-cat}}" {echo}')
        if self.split:
            sh(*self.on("watch", user=False), "ln", "-s", self.watch.dir / "run", f"/run/user/{USERS['watch']}")

    def listen(self, delay, rate):
        port, address = (22, ADDRESSES["watch"]) if self.split else (free_port(), "127.0.0.1")
        env = {**self.gate_env, **({} if self.split else
                                   {"DBUS_SESSION_BUS_ADDRESS": self.watch.env["DBUS_SESSION_BUS_ADDRESS"]})}
        self.sshd = start_sshd(self.dir, address, port, self.dir / "authorized_keys", env, self.on("watch", user=False))
        if not self.split:
            self.net = Cut((address, port), delay=delay, rate=rate)
            port = self.net.port
        ssh = self.dir / "phone" / ".ssh"
        (ssh / "known_hosts").write_text(f"watch {(self.dir / 'host-key.pub').read_text()}")
        (ssh / "config").write_text(
            f"Host watch\n  HostName {address}\n  Port {port}\n  HostKeyAlias watch\n  IdentityFile {ssh}/watch-key\n"
            f"  IdentitiesOnly yes\n  UserKnownHostsFile {ssh}/known_hosts\n  ConnectTimeout 5\n" +
            ("  User watch\n" if self.split else ""))
        if self.split:
            for path in (ssh, *ssh.iterdir()):
                os.chown(path, USERS["phone"], USERS["phone"])
        self.ssh = ("ssh", "-F", str(ssh / "config"), "-T", "watch")
        self.address = "ssh://watch" if self.split else f"exec:exec ssh -F {ssh}/config -T -C watch brisel-gate"

    def start(self, *command, log):
        """A program on the phone's machine."""
        out = open(log, "a")
        return subprocess.Popen([*self.on("phone"), *map(str, command)], env=self.phone.env, stdout=out, stderr=out)

    def cut(self):
        """From now on what is sent is gone, and nobody is told."""
        if self.split:
            sh(*self.on("watch", user=False), "ip", "link", "set", "cable", "down")
        else:
            self.net.set("stall")

    def heal(self):
        if self.split:
            sh(*self.on("watch", user=False), "ip", "link", "set", "cable", "up")
        else:
            self.net.set("pass")

    def end_logins(self):
        """Whatever is left on the two machines: a login whose way was cut does not see its end for hours."""
        keep = {holder.pid for holder in self.holders.values()}
        for entry in pathlib.Path("/proc").iterdir():
            try:
                if entry.name.isdigit() and int(entry.name) not in keep and os.readlink(entry / "ns/net") in self.spaces:
                    os.kill(int(entry.name), signal.SIGKILL)
            except OSError:  # it has ended
                continue

    def close(self):
        for process in (self.sshd,):
            if process:
                process.terminate()
                process.wait()
        if self.net:
            self.net.close()
        for session in (self.phone, self.watch):
            session.close()
        self.end_logins()
        for holder in self.holders.values():
            holder.stdin.close()
            holder.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

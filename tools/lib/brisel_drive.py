"""Drives a private session of Brisel from outside, through its own tools: brisel-session, brisel-phone and
brisel-watchctl. The screen walker and the end-to-end tests stand on it. Standard library only."""
import gettext
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

from brisel_bus import Bus

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = pathlib.Path(os.environ.get("BRISEL_BUILD", TOP / "build")).resolve()
# How long a condition may take before the wait gives up. A bound for a broken run, not an expectation.
PATIENCE = float(os.environ.get("BRISEL_PATIENCE", "15"))


class ToolError(RuntimeError):
    """A tool ended with a non-zero code: its code and what it said."""

    def __init__(self, command, code, out, err):
        super().__init__(f"{' '.join(map(str, command))}: exit {code}: {err.strip() or out.strip()}")
        self.code, self.out, self.err = code, out, err


class Session:
    """A private session. Use as a context manager; everything it started ends with it."""

    def __init__(self, size="320x320", window=False, env=None, keep=None, prefix=()):
        self.prefix = prefix  # what commands begin with, where they run elsewhere
        command = [*prefix, str(BUILD / "brisel-session"), "--size", size]
        if window:
            command.append("--window")
        if keep:
            command += ["--keep", str(keep)]
        # The command inside the session hands its environment out and then lives as long as our pipe to it.
        command += ["--", "sh", "-c", "env -0 > \"$BRISEL_SESSION_DIR/env\"; echo \"$BRISEL_SESSION_DIR\"; exec cat > /dev/null"]
        self.errors = tempfile.TemporaryFile("w+", errors="replace")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True,
                                        env={**os.environ, **(env or {})})
        line = self.process.stdout.readline().strip()
        if not line:
            self.process.wait()
            self.errors.seek(0)
            raise RuntimeError(self.errors.read().strip() or "brisel-session did not start")
        self.dir = pathlib.Path(line)
        pairs = (self.dir / "env").read_bytes().split(b"\0")
        self.env = dict(p.decode(errors="replace").split("=", 1) for p in pairs if b"=" in p)
        self.bus = None if prefix else Bus(self.env["DBUS_SESSION_BUS_ADDRESS"])
        self.running = []  # serve processes
        self.language = "en"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for process, _ in self.running:
            if process.poll() is None:
                process.terminate()
                process.wait()
        self.running.clear()
        if self.bus:
            self.bus.close()
        if self.process.poll() is None:
            self.process.stdin.close()
            try:
                self.process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                self.process.terminate()
                self.process.wait()
        self.process.stdout.close()
        self.errors.close()

    # --- tools -------------------------------------------------------------------------------------------------

    def run(self, *command, check=True, timeout=60, input=None):
        done = subprocess.run([*self.prefix, *map(str, command)], env=self.env, capture_output=True, text=True, timeout=timeout,
                              input=input)
        if check and done.returncode:
            raise ToolError(command, done.returncode, done.stdout, done.stderr)
        return done

    def phone(self, *args, **kw):
        return self.run("brisel-phone", *args, **kw).stdout.strip()

    def watch(self, *args, **kw):
        return self.run("brisel-watchctl", *args, **kw).stdout.strip()

    def account(self, address, *args):
        return int(self.phone("account", "add", address, *args))

    def send(self, account, *mails, args=()):
        """Sends mails given as texts or paths; returns their ids."""
        files = []
        for number, mail in enumerate(mails):
            if isinstance(mail, pathlib.Path):
                files.append(mail)
            else:
                path = self.dir / f"mail-{time.monotonic_ns()}-{number}.eml"
                path.write_text(mail)
                files.append(path)
        return [int(i) for i in self.phone("mail", "send", *files, "--account", account, *args, timeout=180).split()]

    def mails(self):
        return json.loads(self.phone("mail", "list", "--json"))

    def setting(self, key, kind=None, value=None):
        if kind is None:
            return self.watch("setting", "get", key)
        return self.watch("setting", "set", key, kind, value)

    def serve(self, counts=False):
        """Starts the phone and waits for its link. counts: it says that there are no more accounts than it has told of."""
        out = open(self.dir / f"serve-{len(self.running)}.jsonl", "w+")
        process = subprocess.Popen(["brisel-phone", "serve"], env=self.env, stdout=out, stderr=subprocess.DEVNULL)
        self.running.append((process, out))
        self.wait(lambda: self.linked(), "the phone's link")
        if counts:
            self.phone("account", "count", "known")
        return process

    def linked(self):
        done = self.run("brisel-watchctl", "setting", "get", "memory/wms/wmanager_connected", check=False)
        return done.stdout.strip() in ("true", "1")

    def stop_serve(self, process, how=signal.SIGTERM):
        process.send_signal(how)
        process.wait()
        self.wait(lambda: not self.linked(), "the link to go")

    def served(self):
        """Every request line that a running serve printed, in order."""
        lines = []
        for _, out in self.running:
            lines += [json.loads(line) for line in pathlib.Path(out.name).read_text().splitlines() if line.endswith("}")]
        return lines

    def requests(self, kind=None):
        return [r for r in self.served() if kind is None or r["request"] == kind]

    # --- the application -----------------------------------------------------------------------------------------

    def launch(self, **extra):
        return self.watch("launch", *[f"{k}={v}" for k, v in extra.items()], timeout=60)

    def inspect(self, *calls):
        """Calls of the inspection, one directly behind the other: the last one's answer, None without one."""
        return self.bus and self.bus.call("com.vextora.brisel", "/com/vextora/brisel", "com.vextora.Inspect1", *calls)

    def look(self):
        """What is on screen. Without an answer brisel-watchctl tells why."""
        answer = self.inspect(("Dump",))
        return answer[0] if answer else self.watch("dump")

    def dump(self):
        return json.loads(self.look())

    def seen(self):
        """What a person sees: a text that something lies over is not among them."""
        return [t for t in self.dump()["texts"] if not t["covered"]]

    def texts(self):
        return [t["text"] for t in self.seen()]

    def find(self, text, part=False):
        for shown in self.seen():
            if shown["text"] == text or (part and text in shown["text"]):
                return shown
        return None

    def titles(self):
        return [v.get("title") for v in self.dump()["views"]]

    def shows(self, text, part=True):
        return self.find(text, part) is not None

    def wait(self, condition, what="a condition", patience=None):
        end = time.monotonic() + (patience or PATIENCE)
        while True:
            result = condition()
            if result:
                return result
            if time.monotonic() > end:
                raise AssertionError(f"waited in vain for {what}" + self._state())
            time.sleep(0.05)

    def rest(self):
        """Waits until the screen stands still: two looks in a row show the same."""
        last = [None]

        def still():
            before, last[0] = last[0], self.look()
            return last[0] == before
        self.wait(still, "the screen to come to rest")

    def _state(self):
        try:
            return ": on screen: " + " | ".join(t[:60] for t in self.texts())
        except Exception as error:  # the application may be what is missing
            return f" (no screen: {error})"

    def wait_text(self, text, part=True):
        return self.wait(lambda: self.find(text, part), f"the text {text!r}")

    def wait_gone(self, text, part=True):
        return self.wait(lambda: not self.find(text, part), f"the text {text!r} to go")

    def tap(self, text, part=False):
        """Taps the middle of the first shown text equal to (or holding) text."""
        shown = self.wait_text(text, part)
        x, y = middle(shown)
        self.watch("tap", x, y)
        return shown

    def press(self, text, seconds=1.2, part=False):
        x, y = middle(self.wait_text(text, part))
        self.watch("press", x, y, seconds)

    def size(self):
        window = self.dump()["window"]
        return window["width"], window["height"]

    def swipe(self, direction, seconds=0.2):
        """A page swipe: 'left' shows the next mail, 'right' the one before."""
        width, height = self.size()
        a, b = int(width * 0.85), int(width * 0.15)
        if direction == "right":
            a, b = b, a
        self.watch("drag", a, height // 2, b, height // 2, seconds)

    def scroll(self, up=True, seconds=0.3):
        width, height = self.size()
        a, b = int(height * 0.8), int(height * 0.35)
        if not up:
            a, b = b, a
        self.watch("drag", width // 2, a, width // 2, b, seconds)

    def screenshot(self, path):
        if self.inspect(("Screenshot", absolute(path))) is None:
            self.watch("screenshot", path)

    def shot_and_dump(self, path, tap=()):
        """A picture and the dump of one and the same moment; tap: when what a touch there causes has come to rest."""
        calls = [("Tap", *tap)] if tap else []
        answer = self.inspect(*calls, ("Screenshot", absolute(path)), ("Dump",))
        return json.loads(answer[0] if answer else self.watch("dump"))

    def log(self):
        path = self.dir / "brisel.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def complaints(self):
        """What the toolkit has told of as faults; that the machine is slow to draw is none."""
        self.errors.seek(0)
        return [line.strip() for line in self.errors
                if line.startswith(("ERR<", "CRI<")) and "timeout waiting for async rendering" not in line]

    def text(self, id, domain="brisel"):
        """The translation of an id, from the catalogue that the application reads."""
        return self.catalogue(domain).gettext(id)

    def counted(self, id, number, domain="brisel"):
        """The translation of a text with a number in it, which stands for "%d" in the digits of the region."""
        return self.catalogue(domain).ngettext(id, id, number)

    def catalogue(self, domain):
        locale = pathlib.Path(self.env["BRISEL_RES_DIR"]) / "locale"
        return gettext.translation(domain, str(locale), [self.language])


def absolute(path):
    return str(pathlib.Path(path).absolute())


def middle(shown):
    return int(shown["x"] + shown["width"] / 2), int(shown["y"] + shown["height"] / 2)


def mail(subject="Hello", body="Text.", sender="Ann Example <ann@example.org>", date=None, extra=""):
    """A small RFC 5322 mail. date: seconds since the epoch."""
    head = [f"From: {sender}", "To: me@example.net", "Message-ID: <%d@example.org>" % time.monotonic_ns(), "MIME-Version: 1.0",
            "Content-Type: text/plain; charset=utf-8", "Content-Transfer-Encoding: 8bit"]
    if subject is not None:
        head.insert(0, f"Subject: {subject}")
    head.append("Date: " + time.strftime("%a, %d %b %Y %H:%M:%S +0000", time.gmtime(date if date is not None else time.time())))
    if extra:
        head.append(extra)
    return "\n".join(head) + "\n\n" + body + "\n"


def scratch(name):
    path = pathlib.Path(tempfile.mkdtemp(prefix=f"brisel-{name}-"))
    return path, lambda: shutil.rmtree(path, ignore_errors=True)

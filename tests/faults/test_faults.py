"""The phone and the service as they are, on a disk that fails at a chosen step: once, or until there is room again.
BRISEL_EVERY_FAULT tries every step, BRISEL_FAULT_STRIDE every so many; otherwise a few are tried."""
import os
import shutil
import subprocess

from brisel_test import BUILD, owner
from phone_test import (HOST, Maildir, Relay, Sendmail, by_uid, delete_on_watch, equal, main, message, read_on_watch,
                        reply_on_watch, status)

FAULTY = BUILD / "tests" / "faults"


class Disk:
    """The plan that the programs of one session follow."""

    def __init__(self, s, service):
        self.plan = s.dir / "disk"
        self.mark = s.dir / "disk.struck"
        # The phone talks to the installed service, or to the one beside it; its commands work on a disk that works.
        bin = s.dir / "bin"
        self.phone, self.service, self.gate = bin / "relay", bin / "service" / "brisel-hostd", bin / "gate" / "brisel-gate"
        for program in (self.service, self.gate):
            program.parent.mkdir(parents=True)
        (bin / "build.ninja").touch()  # as in the tree where all are built
        for program, place in ((FAULTY / "faulty-phone", self.phone), (FAULTY / service, self.service),
                               (BUILD / "gate" / "brisel-gate", self.gate),
                               (BUILD / "phone" / "brisel-phone", bin / "brisel-phone")):
            shutil.copy(program, place)
        s.env["PATH"] = f"{bin}:{s.env['PATH']}"
        s.env["BRISEL_FAULT_PLAN"] = str(self.plan)
        self.hostd = subprocess.Popen([self.service], env=s.env, stderr=subprocess.DEVNULL)
        # Before anybody asks for it, or the bus starts the installed one beside it.
        s.wait(lambda: owner(s, HOST) == self.hostd.pid, "the service")
        s.phone("account", "list")

    def fails(self, kind, step=1, for_good=True, file="phone.db"):
        self.mark.unlink(missing_ok=True)
        new = self.plan.with_suffix(".new")
        new.write_text(f"{kind} {step} {int(for_good)} {file}")
        os.rename(new, self.plan)

    def works(self):
        self.plan.unlink(missing_ok=True)

    def struck(self):
        return len(self.mark.read_text().splitlines()) if self.mark.exists() else 0

    def end(self):
        self.hostd.kill()
        self.hostd.wait()


def begin(s, service="faulty-hostd"):
    disk, box, mta = Disk(s, service), Maildir(s.dir / "box"), Sendmail(s.dir / "mta")
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--sendmail", mta.command, "--retry-first", "1")
    relay.args[0] = str(disk.phone)
    relay.kill()
    return disk, box, mta, relay


def uids(s):
    return set(by_uid(s))


def replies(s):
    return [r["state"] for r in status(s)["replies"]]


def test_no_room_in_the_phones_state(s):
    disk, box, mta, relay = begin(s)
    box.deliver(message("first@x"))
    kept = box.deliver(message("kept@x"), flags="")
    relay.start()
    s.wait(lambda: len(uids(s)) == 2, "the mails")
    # No room while sendmail is at it: what came of it is written down later, and the reply is not sent again.
    full = f"echo 'full 1 1 phone.db' > '{disk.plan}' #"
    mta.change("#!/bin/sh\n", f"#!/bin/sh\n{full}\n")
    reply_on_watch(s, by_uid(s)["first@x"], "once")
    s.wait(lambda: "cannot be written down yet" in relay.log(), "the reply's process that waits for room")
    mta.change(full, "")
    box.deliver(message("late@x"))
    read_on_watch(s, by_uid(s)["kept@x"]["mail_id"])
    reply_on_watch(s, by_uid(s)["kept@x"], "twice")
    delete_on_watch(s, by_uid(s)["first@x"]["mail_id"])
    s.wait(lambda: relay.log().count("full") >= 3, "what the relay says of it")
    equal(len(mta.sent()), 1, "messages handed over while there was no room")
    equal(replies(s), ["sending"], "its state on disk")
    disk.works()
    s.wait(lambda: uids(s) == {"kept@x", "late@x"}, "the mail that came, and the deletion, without another change")
    s.wait(lambda: "S" in box.flags(kept), "the read mark")
    s.wait(lambda: replies(s) == ["sent", "sent"], "both replies")
    equal(len(mta.sent()), 2, "each once")
    relay.kill()
    disk.end()


def test_no_room_in_the_store(s):
    disk, box, mta, relay = begin(s)
    relay.start()
    s.wait(s.linked, "the link")
    disk.fails("full", file="store.db")
    box.deliver(message("late@x"))
    s.wait(lambda: disk.struck() >= 2, "two tries")
    equal(uids(s), set(), "a store without room")
    trouble = lambda: status(s)["accounts"][0]["error"]  # noqa: E731
    s.wait(trouble, "the status to say so")
    disk.works()
    s.wait(lambda: uids(s) == {"late@x"} and not trouble(), "the mail, without another change, and no word of it any more")
    relay.kill()
    disk.end()


def test_a_refused_mail_is_split_off(s):
    disk, box, mta, relay = begin(s, "picky-hostd")
    bad = {n: box.deliver(message(f"m{n}@x", "refuse me" if n in (3, 11, 12) else "good")) for n in range(30)}
    relay.start()
    s.wait(lambda: uids(s) == {f"m{n}@x" for n in range(30) if n not in (3, 11, 12)}, "the good ones")
    aside = lambda: {t["message"] for t in status(s)["accounts"][0]["set_aside"]}  # noqa: E731
    s.wait(lambda: aside() == {bad[3], bad[11], bad[12]}, "the three that are named")
    box.deliver(message("after@x"))
    s.wait(lambda: "after@x" in uids(s), "a mail after them")
    equal(len(s.mails()), 28, "each once")
    # When every mail is refused it is perhaps none of them: a single one is, and it stops nothing.
    box.deliver(message("alone@x", "refuse me"))
    box.deliver(message("last@x"))
    s.wait(lambda: "last@x" in uids(s) and len(aside()) == 4, "the last one")
    relay.kill()
    disk.end()


def test_a_mail_that_holds_up_its_reader_costs_itself(s):
    """Its answer goes with those of good ones before it, none of which pays for it; nor does the link, on which nobody may
    be silent for as long."""
    s.env["BRISEL_GATE_IDLE"] = "4"
    disk, box, mta, relay = begin(s)
    watch = ("--watch", f"exec:exec '{disk.gate}'")
    relay.args += ["--ping-after", "1", *watch]
    held = box.deliver(message("held@x", "hold me up"))
    for n in range(6):
        box.deliver(message(f"m{n}@x"))
    relay.start()
    readers = set()

    def all_came():
        readers.update(relay.children(b"read-mail"))
        assert len(readers) <= 3, "for all of them, for each alone until the one to blame, and for what follows it"
        return len(uids(s)) == 6 and [t["message"] for t in status(s, *watch)["accounts"][0]["set_aside"]] == [held]

    s.wait(all_came, "the good ones, and the one that is named", patience=120)
    assert "lost" not in relay.log() and "waiting for it" not in relay.log(), relay.log()
    relay.kill()
    disk.end()


def life(s, disk, box, mta, relay, round_):
    """A mail of each fate while the disk fails. Whatever cannot be done at once is done when the disk works."""
    relay.start()
    gone, read, ask = (f"{name}{round_}@x" for name in ("gone", "read", "ask"))
    files = {uid: box.deliver(message(uid), flags="") for uid in (gone, read, ask)}

    def wish(uid, act):
        """Done on the watch as soon as the mail is there; never, when the disk failed for good before."""
        s.wait(lambda: uid in uids(s) or disk.struck() > 3 or relay.process.poll() is not None, "the mail, or the fault")
        if uid in uids(s):
            act(by_uid(s)[uid])
            return uid
        return None

    done = {wish(gone, lambda m: delete_on_watch(s, m["mail_id"])), wish(read, lambda m: read_on_watch(s, m["mail_id"])),
            wish(ask, lambda m: reply_on_watch(s, m, f"text {round_}"))}
    settled = lambda: ((gone in uids(s)) != (gone in done) and {read, ask} <= uids(s)  # noqa: E731
                       and ("S" in box.flags(files[read])) == (read in done)
                       and (ask not in done or f"text {round_}" in sent(mta)))
    s.wait(lambda: settled() or disk.struck() or relay.process.poll() is not None, "the fault, or the end")
    return files, done, settled


def sent(mta):
    return [raw.split(b"\n\n", 1)[1].decode().strip() for raw in mta.sent()]


def each_step(s, kind, for_good, step, stride):
    """What the relay wants to write fails at one step after the other."""
    disk, box, mta, relay = begin(s)
    faults = round_ = 0
    struck = True
    while struck:
        round_ += 1
        disk.fails(kind, step, for_good)
        files, done, settled = life(s, disk, box, mta, relay, round_)
        struck = disk.struck() > 0
        disk.works()

        def whole():  # what strikes is written down before it does
            if relay.process.poll() is not None:
                relay.kill()
                relay.start()
            return settled()

        s.wait(whole, f"all of round {round_} ({kind} at step {step}{' for good' if for_good else ''}) when the disk "
                       f"works: {done} {uids(s)}")
        twice = [text for text in set(sent(mta)) if sent(mta).count(text) > 1]
        assert not twice or kind == "kill", (kind, step, twice)
        relay.kill()
        for name in files.values():
            box.remove(name)
        faults += struck
        step += stride
    print(f"# the relay, {kind}{' for good' if for_good else ''}: {faults} faults in {round_} rounds", flush=True)
    disk.end()


def steps(*plan):
    return lambda s: each_step(s, *plan)


# Each kind of fault in sessions of its own, side by side; every step in several.
for row, (kind, for_good) in enumerate((("full", False), ("full", True), ("io", False), ("io", True), ("kill", False))):
    every = os.environ.get("BRISEL_EVERY_FAULT")
    stride, parts = int(os.environ.get("BRISEL_FAULT_STRIDE", "1" if every else "29")), 4 if every else 1
    for first in range(1 + row * 6 % stride, 1 + row * 6 % stride + stride * parts, stride):
        globals()[f"test_each_step_{kind}_{for_good}_{first}"] = steps(kind, for_good, first, stride * parts)


if __name__ == "__main__":
    main(globals())

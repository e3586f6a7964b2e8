"""Mail comes and goes, is read, answered and deleted on both sides, while something is done to what carries it; then all
of it comes to rest, and mailbox, watch and outbox are compared: no mail twice, none missing, no reply lost or sent
twice."""
import collections
import email
import email.policy
import os
import random
import subprocess
import time

from phone_test import Maildir, Relay, Sendmail, equal, message, status

READER = os.environ.get("BRISEL_CRASH_READER", "")
WINDOW = 30


class Mailbox:
    """A mailbox that its owner works on from elsewhere. Every change can lose a race with the relay, which renames
    files too: it is then simply not made."""

    def __init__(self, path, rng):
        self.box, self.rng, self.count = Maildir(path), rng, 0

    def change(self):
        files = list(self.box.files())
        choice = self.rng.random()
        try:
            if choice < 0.6 or len(files) < 5:
                self.count += 1
                self.box.deliver(message(f"mail{self.count}@x", f"Mail {self.count}", date=1790000000 + self.count,
                                         body="text\n" * self.rng.randrange(1000)), flags=self.rng.choice([None, "", "S"]))
            elif choice < 0.8:
                self.box.remove(self.rng.choice(files))
            else:
                self.box.set_flags(self.rng.choice(files), self.rng.choice(["F", "S", "FS"]))
        except (FileNotFoundError, KeyError):
            pass

    def mails(self):
        """Message-ID: read, of the newest ones."""
        out = {}
        for path in self.box.files().values():
            try:
                uid = email.message_from_bytes(path.read_bytes())["Message-ID"].strip("<>")
            except FileNotFoundError:
                return self.mails()  # the relay has renamed it since
            out[uid] = "S" in path.name.partition(":2,")[2]
        newest = sorted(out, key=lambda uid: int(uid[4:-2]), reverse=True)[:WINDOW]
        return {uid: out[uid] for uid in newest}, set(out)


class World:
    """The relay and a reader (a program that makes the application's requests) around one mailbox."""

    def __init__(self, s, seed, options):
        self.s, self.seed, self.rng = s, seed, random.Random(seed)
        self.mailbox = Mailbox(s.dir / "box", self.rng)
        for _ in range(20):
            self.mailbox.change()
        self.mta = Sendmail(s.dir / "mta")
        self.relay = Relay(s, "--maildir", f"me@example.org={self.mailbox.box.path}", "--sendmail", self.mta.command,
                           "--newest", WINDOW, "--first", "512", "--retry-first", "1", *options)
        self.log = s.dir / "reader.log"
        self.log.touch()
        self.reader = None
        self.start_reader(0)

    def start_reader(self, n):
        if self.reader:
            self.reader.kill()
            self.reader.wait()
        self.reader = subprocess.Popen([READER, self.log, str(self.seed + n)], env=self.s.env, stderr=subprocess.DEVNULL)


def torture(s, rounds, seed, hurt, heal=lambda: None, options=(), watch=()):
    """hurt(world, n) does the n-th harm. options: more of the relay's. watch: which watch it is, as options."""
    world = World(s, seed, (*options, *watch))
    try:
        torment(world, rounds, hurt, heal, watch)
    finally:  # the reader outlives no failure: whoever waits for our output would wait for its end
        world.reader.kill()
        world.reader.wait()


def torment(world, rounds, hurt, heal, watch):
    s, relay, mailbox, mta = world.s, world.relay, world.mailbox, world.mta
    for n in range(1, rounds + 1):
        for _ in range(world.rng.randrange(3)):
            mailbox.change()
        time.sleep(world.rng.random() ** 2 * 0.3)
        assert relay.process.poll() is None, "the relay ended by itself: " + relay.log()[-1000:]
        hurt(world, n)
    heal()
    # However few the rounds were, there is something to compare.
    s.wait(lambda: all(f"\ndone {what} " in "\n" + world.log.read_text() for what in ("reply", "delete")),
           "a reply and a deletion", patience=120)
    world.reader.kill()
    world.reader.wait()
    print(f"# {len(world.log.read_text().splitlines())} lines of requests", flush=True)
    assert relay.process.poll() is None, "the relay ended by itself: " + relay.log()[-1000:]

    done, begun = set(), set()
    for line in world.log.read_text().splitlines():
        kind, what = line.split(" ", 1)
        (done if kind == "done" else begun).add(what)
    deleted = {what[7:] for what in done if what.startswith("delete ")}
    maybe_deleted = {what[7:] for what in begun if what.startswith("delete ")}

    # A last change makes the relay look once more; then all three come to rest.
    mailbox.box.deliver(message("mail999999@x", date=1795000000), flags="S")

    def settled():
        expected, everything = mailbox.mails()
        there = collections.Counter(m["message_uid"] for m in s.mails())
        read = {m["message_uid"]: bool(m["is_read"]) for m in s.mails()}
        missing = set(expected) - set(there) - maybe_deleted
        extra = set(there) - set(expected)
        twice = [uid for uid, n in there.items() if n > 1]
        back = deleted & set(there)
        marks = [uid for uid in read if uid in expected and read[uid] != expected[uid]]
        waiting = [r for r in status(s, *watch)["replies"] if r["state"] != "sent"]
        return {"missing": missing, "extra": extra, "twice": twice, "back": back, "marks": marks, "replies": waiting}

    # As long as it gets better it goes on: how fast that is says nothing.
    state, best, since = settled(), None, time.monotonic()
    while any(state.values()) and time.monotonic() - since < 60:
        time.sleep(0.3)
        state = settled()
        left = sum(len(v) for v in state.values())
        if best is None or left < best:
            best, since = left, time.monotonic()
    assert not any(state.values()), ({k: list(v)[:5] for k, v in state.items()}, relay.log()[-2000:])

    sent, message_ids = collections.Counter(), collections.defaultdict(list)
    for raw in mta.sent():
        reply = email.message_from_bytes(raw, policy=email.policy.default)
        text = reply.get_content().strip()
        sent[text] += 1
        message_ids[text].append(reply["Message-ID"])
    accepted = {what[6:] for what in done if what.startswith("reply ")}
    possible = {what[6:] for what in begun if what.startswith("reply ")}
    print(f"# {len(accepted)} replies accepted, {len(sent)} sent, {mailbox.count} mails came", flush=True)
    assert accepted, "the reader got to make replies"
    equal(accepted - set(sent), set(), "lost replies")
    twice = [text for text, n in sent.items() if n > 1]
    # One Message-ID: handed over twice. Two: the request was taken for two.
    kept = [r for r in s.phone("requests", *watch).splitlines() if any(f'"{text}"' in r for text in twice)]
    equal([(text, message_ids[text]) for text in twice], [], f"replies sent twice, from the requests {kept}")
    equal(set(sent) - possible, set(), "replies nobody made")
    again = [r for r in status(s, *watch)["replies"] if r["sent_again_after_interruption"]]
    equal(again, [], "interrupted deliveries: the process that sends is never killed here")
    assert deleted, "the reader got to delete"
    equal(deleted - mailbox.mails()[1] - {f"mail{n}@x" for n in range(mailbox.count + 1)}, set(), "known mails")

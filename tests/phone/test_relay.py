"""The relay between real mailboxes and the watch."""
import contextlib
import email
import email.policy
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import time

from brisel_test import BUILD
from phone_test import (HOST, Maildir, Relay, Sendmail, body_text, by_uid, call_watch, delete_on_watch, equal, host_pid,
                        ids_text, journal, main, message, more_on_watch, read_on_watch, reply_on_watch, status)

HANDED_OVER, SENT, REFUSED = 1, 2, 3


def follow(s, *args, name="Me <me@example.org>"):
    box = Maildir(s.dir / "box")
    mta = Sendmail(s.dir / "mta")
    relay = Relay(s, "--maildir", f"{name}={box.path}", "--sendmail", mta.command, "--retry-first", "1", *args)
    return box, mta, relay


def uids(s):
    return set(by_uid(s))


def test_mailbox_and_watch_stay_equal(s):
    box = Maildir(s.dir / "box")
    many = ",\n ".join(f"r{n}@example.org" for n in range(2000))  # above the date
    old = box.deliver(message("old@x", "Old", sender=f"Ann <ann@example.org>\nCc: {many}", date=1789000000), flags="S")
    box.deliver(message("unread@x", "Unread"), flags="")
    box.deliver(message("hidden@x"), base=".hidden")  # what begins so is not delivered yet
    shown = s.dir / "shown"
    box, mta, relay = follow(s, "--show", f"sh -c 'env >{shown}.part; mv {shown}.part {shown}; echo >>{shown}.all'")
    s.wait(lambda: uids(s) == {"old@x", "unread@x"}, "the first mails")
    mails = by_uid(s)
    equal([mails["old@x"][k] for k in ("is_read", "is_new", "received_time")], [1, 0, 1789000000], "read mail")
    equal([mails["unread@x"][k] for k in ("is_read", "is_new")], [0, 0], "a mail that was there before")

    new = box.deliver(message("new@x", "New"), base="1700000000.M:1.test")
    s.wait(lambda: "new@x" in uids(s), "a new mail")
    equal([by_uid(s)["new@x"][k] for k in ("is_read", "is_new")], [0, 1], "new mail")
    call_watch(s, "ShowAt", "string:email", ids_text([by_uid(s)["new@x"]["mail_id"]]), ids_text([2]))
    s.wait(shown.exists, "the command that shows a mail")
    equal(sorted(line.partition("=")[2] for line in shown.read_text().splitlines() if line.startswith("BRISEL_") and
                 line[7:10] in ("MES", "FIL", "ADD", "POS", "WOR")),
          sorted(["new@x", str(box.path / "new" / new), "me@example.org", "2", "dy"]), "what it was told")

    call_watch(s, "Show", "string:email", ids_text([by_uid(s)["new@x"]["mail_id"]] * 100))
    s.wait(lambda: "left out" in relay.log(), "a watch that hands over without end")
    s.wait(lambda: len(pathlib.Path(f"{shown}.all").read_text()) == 32, "what may be shown in a minute")

    box.set_flags(new, "S")
    s.wait(lambda: by_uid(s)["new@x"]["is_read"] == 1, "read elsewhere")
    equal(by_uid(s)["new@x"]["is_new"], 0, "what was read is not new")
    box.set_flags(new, "")
    s.wait(lambda: by_uid(s)["new@x"]["is_read"] == 0, "unread elsewhere")

    box.remove(old)
    s.wait(lambda: uids(s) == {"unread@x", "new@x"}, "deleted elsewhere")

    read_on_watch(s, by_uid(s)["new@x"]["mail_id"])
    s.wait(lambda: "S" in box.flags(new), "the seen flag")
    delete_on_watch(s, by_uid(s)["new@x"]["mail_id"])
    s.wait(lambda: uids(s) == {"unread@x"}, "deleted on the watch")
    box.deliver(message("later@x", date=2000000000))
    s.wait(lambda: "later@x" in uids(s), "a later mail")
    assert by_uid(s)["later@x"]["received_time"] < time.time() + 60, "no date in the future stays on top"
    equal(uids(s), {"unread@x", "later@x"}, "what was deleted on the watch does not come back")
    assert new in box.files(), "the mailbox keeps what was deleted on the watch"
    equal(relay.kill(15), 0, "exit code")
    with sqlite3.connect(f"file:{s.dir}/state/brisel-phone/phone.db?mode=ro", uri=True) as db:
        equal(db.execute("SELECT count(*) FROM relay_mail").fetchone()[0], 3, "what is gone is forgotten")


def test_changes_while_the_relay_is_away(s):
    box, mta, relay = follow(s)
    keep, gone, read = [box.deliver(message(f"{n}@x"), flags="") for n in ("keep", "gone", "read")]
    s.wait(lambda: len(uids(s)) == 3, "three mails")
    mails = by_uid(s)
    relay.kill()
    box.remove(gone)
    box.set_flags(read, "FS")
    box.deliver(message("came@x"))
    read_on_watch(s, mails["keep@x"]["mail_id"])
    box.remove(keep)  # and its file gets another name
    keep = box.deliver(message("keep@x"), flags="", base="renamed")
    relay.start()
    s.wait(lambda: uids(s) == {"keep@x", "read@x", "came@x"}, "the mailbox as it is now")
    s.wait(lambda: by_uid(s)["read@x"]["is_read"] == 1, "read meanwhile")
    s.wait(lambda: "S" in box.flags(keep), "read on the watch meanwhile")
    equal(by_uid(s)["read@x"]["mail_id"], mails["read@x"]["mail_id"], "the same mail as before")

    # The phone's memory is lost: the watch's mails are recognised, not sent again.
    relay.kill()
    state = s.dir / "state" / "brisel-phone"
    for name in os.listdir(state):
        if name.startswith("phone.db"):
            os.unlink(state / name)
    ids = {m["mail_id"] for m in s.mails() if m["message_uid"] != "read@x"}
    box.remove(read)
    box.deliver(message("after@x"))
    relay.start()
    s.wait(lambda: "after@x" in uids(s) and "read@x" not in uids(s), "a mail after the loss, and one less")
    equal({m["mail_id"] for m in s.mails() if m["message_uid"] != "after@x"}, ids, "mails after the loss")

    # The service ends in the middle, and its store with it: it is started again and gets everything.
    pid = host_pid(s)
    os.kill(pid, signal.SIGSTOP)
    for file in (s.dir / "data" / "brisel").glob("store.db*"):
        file.unlink()
    os.kill(pid, signal.SIGKILL)
    s.wait(lambda: uids(s) == {"keep@x", "came@x", "after@x"}, "all mails after the service's end, without another change")
    box.deliver(message("again@x"))
    s.wait(lambda: "again@x" in uids(s), "the next one")
    equal(len(s.mails()), len(uids(s)), "no mail twice")

    # Its account is taken from the watch: the next mail brings it and its mails back.
    s.phone("account", "remove", s.mails()[0]["account_id"])
    box.deliver(message("back@x"))
    s.wait(lambda: {"keep@x", "again@x", "back@x"} <= uids(s) and not status(s)["accounts"][0]["error"], "the mailbox again")


def test_window_copies_and_renames(s):
    box = Maildir(s.dir / "box")
    for n in range(8):
        box.deliver(message(f"m{n}@x", f"Mail {n}", date=1790000000 + n), flags="", base=f"box.{n + 7}")
    box.deliver(message("older@x", date=1790000003), flags="", base="box.9.5")  # of the same second as box.10
    box, mta, relay = follow(s, "--newest", "5")
    s.wait(lambda: uids(s) == {f"m{n}@x" for n in range(3, 8)}, "the newest five")
    last = box.deliver(message("m8@x", date=1790000008), flags="")
    s.wait(lambda: uids(s) == {f"m{n}@x" for n in range(4, 9)}, "a new mail pushes the oldest out")
    box.remove(last)
    s.wait(lambda: uids(s) == {f"m{n}@x" for n in range(3, 8)}, "and lets it in again")
    equal(by_uid(s)["m3@x"]["is_new"], 0, "a mail that comes back is not new")

    # The same message under another file name is the same mail; a second copy is none at all.
    before = by_uid(s)["m5@x"]["mail_id"]
    text = message("m5@x", "Mail 5", date=1790000005)
    copy = box.deliver(text, flags="", base="copy.of.m5")
    ninth = box.deliver(message("m9@x", date=1790000009))
    s.wait(lambda: "m9@x" in uids(s), "a mail after the copy")
    equal(len(s.mails()), len(uids(s)), "no mail twice")
    box.remove(next(b for b, p in box.files().items() if b != copy and b"m5@x" in p.read_bytes()))
    box.deliver(message("m10@x", date=1790000010))
    s.wait(lambda: "m10@x" in uids(s), "a mail after the rename")
    equal(by_uid(s)["m5@x"]["mail_id"], before, "the mail under its other name")
    delete_on_watch(s, before)
    os.rename(box.files()[copy], box.path / "cur" / "another.name:2,")
    box.remove(ninth)
    box.deliver(message("m11@x", date=1790000011))
    s.wait(lambda: {"m9@x", "m11@x"} & uids(s) == {"m11@x"}, "a mail after the rename")
    assert "m5@x" not in uids(s), "what was deleted on the watch does not come back under another name"


def test_long_bodies_come_in_three_pieces(s):
    box, mta, relay = follow(s, "--first", "600")
    text = "".join(f"Zeile {n} mit Wörtern und einem Gruß 👋🏽 am Ende.\n" for n in range(6000))
    box.deliver(message("long@x", body=text))
    s.wait(lambda: "long@x" in uids(s), "the mail")
    have = lambda: len(body_text(by_uid(s)["long@x"]).encode())  # noqa: E731
    for least, most in ((500, 600), (4000, 4800), (38000, 38400)):
        assert least < have() <= most and by_uid(s)["long@x"]["body"].endswith("<tag:thisisover500>"), have()
        more_on_watch(s, by_uid(s)["long@x"])
    equal(by_uid(s)["long@x"]["body"], text.rstrip() + "<tag:thisisover-1>", "the whole text")


def test_replies(s):
    box, mta, relay = follow(s, name="Mé Myself <me@example.org>")
    box.deliver(message("ask@x", "=?utf-8?B?UmU6IFJlOiBHcsO8w59l?=", sender='"Ann, the Great" <ann@example.org>',
                        headers="References: <first@x>\n <second@x>\n"))
    box.deliver(message("list@x", "Plan", headers="Reply-To: list@example.org\n"))
    box.deliver(message("evil@x", "a\n b", sender="\"x\\r\\nBcc: victim@example.org\" <ann@example.org>"))
    s.wait(lambda: len(uids(s)) == 3, "three mails")
    mails = by_uid(s)
    reply_on_watch(s, mails["ask@x"], "Ja &amp; nein &lt;3<br/>Grüße 👋<br/>.<br/>From here")
    s.wait(lambda: len(mta.sent()) == 1, "the reply")
    raw = mta.sent()[0]
    sent = email.message_from_bytes(raw, policy=email.policy.default)
    equal(sent["From"].addresses[0].addr_spec, "me@example.org", "from")
    equal(sent["From"].addresses[0].display_name, "Mé Myself", "from name")
    equal(str(sent["To"]), '"Ann, the Great" <ann@example.org>', "to")
    equal(sent["Subject"], "Re: Grüße", "subject")
    equal(sent["In-Reply-To"], "<ask@x>", "in reply to")
    equal(sent["References"], "<first@x> <second@x> <ask@x>", "references")
    equal(sent.get_content().rstrip("\n"), "Ja & nein <3\nGrüße 👋\n.\nFrom here", "text")
    assert raw.isascii() and max(map(len, raw.splitlines())) <= 998, "safe on every way"

    reply_on_watch(s, mails["list@x"], "plain < text & more")
    s.wait(lambda: len(mta.sent()) == 2, "the second reply")
    sent = email.message_from_bytes(mta.sent()[1], policy=email.policy.default)
    equal((str(sent["To"]), sent["Subject"]), ("list@example.org", "Re: Plan"), "an answer goes where it was asked for")
    equal(sent.get_content().rstrip("\n"), "plain < text & more", "text that is no markup")

    # Nothing in any field becomes a header or a recipient.
    evil = dict(mails["evil@x"], from_name="X\r\nBcc: victim@example.org", subject="S\r\nBcc: victim@example.org\r\n\r\nbody")
    reply_on_watch(s, evil, "text\r\n.\r\nBcc: victim@example.org")
    s.wait(lambda: len(mta.sent()) == 3, "the third reply")
    sent = email.message_from_bytes(mta.sent()[2], policy=email.policy.default)
    equal(sent["Bcc"], None, "no injected header")
    equal([a.addr_spec for a in sent["To"].addresses], ["ann@example.org"], "one recipient")

    # One that has no address to go to is held and told; it does not stop the others.
    reply_on_watch(s, dict(mails["ask@x"], from_address="ann@example.org, victim@example.org", message_uid="?"), "no")
    reply_on_watch(s, mails["list@x"], "after it")
    s.wait(lambda: [r["state"] for r in status(s)["replies"]] == ["sent", "sent", "sent", "held", "sent"], "states")
    equal(len(mta.sent()), 4, "the reply after it")
    assert "no address" in status(s)["replies"][3]["error"]


def test_another_phone_leaves_alone_what_is_not_its_own(s):
    box, mta, relay = follow(s)
    ask = [box.deliver(message(uid), flags="") for uid in ("gone@x", "ask@x")][1]
    s.wait(lambda: len(uids(s)) == 2, "two mails")
    relay.kill()
    mails, mine = by_uid(s), s.env["XDG_STATE_HOME"]
    s.env["XDG_STATE_HOME"] = str(s.dir / "other")
    others = Maildir(s.dir / "other-box")
    answered, _ = [others.deliver(message(uid), flags="") for uid in ("other@x", "bye@x")]
    other = Relay(s, "--maildir", f"Other <other@example.org>={others.path}", "--sendmail", mta.command)
    s.wait(lambda: len(uids(s)) == 4, "the other phone's mails")
    all_mails = by_uid(s)
    reply_on_watch(s, mails["ask@x"], "for the first phone")
    delete_on_watch(s, *(all_mails[uid]["mail_id"] for uid in ("bye@x", "gone@x")))
    read_on_watch(s, *(all_mails[uid]["mail_id"] for uid in ("ask@x", "other@x", "gone@x")))
    reply_on_watch(s, all_mails["other@x"], "for the other one")
    s.wait(lambda: len(mta.sent()) == 1 and "S" in others.flags(answered), "the other phone's reply and mark")
    s.wait(lambda: [row[0] for row in journal(s)] == [0, 0, 0, SENT], "the rest of what is for both of them, waiting")
    other.kill()
    s.env["XDG_STATE_HOME"] = mine
    relay.start()
    s.wait(lambda: len(mta.sent()) == 2 and "S" in box.flags(ask), "the first phone's reply and mark")
    s.wait(lambda: [row[0] for row in journal(s)] == [SENT, HANDED_OVER, HANDED_OVER, SENT], "all of it")
    box.deliver(message("after@x"))
    s.wait(lambda: "after@x" in uids(s), "a mail after it")
    equal(uids(s), {"ask@x", "other@x", "after@x"}, "what was deleted does not come back")
    equal([email.message_from_bytes(raw)["From"].split("<")[1] for raw in mta.sent()], ["other@example.org>", "me@example.org>"],
          "each under its own address")
    relay.kill()
    s.env["XDG_STATE_HOME"] = str(s.dir / "other")
    other.start()
    others.deliver(message("last@x"))
    s.wait(lambda: "last@x" in uids(s), "a mail of the other phone")
    equal(uids(s), {"ask@x", "other@x", "after@x", "last@x"}, "its deleted mail does not come back either")


def test_unsendable_replies_wait(s):
    box, mta, relay = follow(s)
    box.deliver(message("ask@x"))
    s.wait(lambda: "ask@x" in uids(s), "the mail")
    s.send(by_uid(s)["ask@x"]["account_id"], message("hand@x"))
    mta.refuse.write_text("68")  # no such host: it says that without a network, too
    reply_on_watch(s, by_uid(s)["ask@x"], "wait for it")
    s.wait(lambda: [r["state"] for r in status(s)["replies"] if r["attempts"] >= 2] == ["queued"], "two tries")
    reply = status(s)["replies"][0]
    assert "no route to anywhere" in reply["error"] and "68" in reply["error"], reply
    assert "could not be sent" in relay.log()
    s.wait(lambda: journal(s) == [(HANDED_OVER, reply["error"], "wait for it")], "why it waits, on the watch")
    for n in range(3, 10):
        s.phone("relay", "retry")
        s.wait(lambda: status(s)["replies"][0]["attempts"] >= n, "another try")
    s.wait(lambda: status(s)["replies"][0]["next_try"] > time.time() + 60, "pauses that have grown")
    # Asked for while a try is under way, which fails: it may have begun too early.
    mta.refuse.unlink()
    os.mkfifo(mta.refuse)
    tries = status(s)["replies"][0]["attempts"]
    s.phone("relay", "retry")
    s.wait(lambda: status(s)["replies"][0]["attempts"] == tries + 1, "a try that hangs")
    s.phone("relay", "retry")
    mta.refuse.write_text("68")
    s.wait(lambda: status(s)["replies"][0]["attempts"] == tries + 2, "the one that was asked for")
    mta.refuse.write_text("68")
    mta.refuse.rename(s.dir / "mta-hung")
    mta.refuse.write_text("68")
    s.wait(lambda: status(s)["replies"][0]["next_try"] > time.time() + 60, "its pause again")
    reply_on_watch(s, by_uid(s)["ask@x"], "waits less")
    s.wait(lambda: [r["attempts"] >= 1 for r in status(s)["replies"]] == [True] * 2, "the first try of the second one")
    mta.refuse.unlink()
    s.wait(lambda: len(mta.sent()) == 1, "the one that waits less")
    relay.kill()
    relay.start()
    s.phone("relay", "retry")
    s.wait(lambda: len(mta.sent()) == 2, "the reply at last")
    s.wait(lambda: {r["state"] for r in status(s)["replies"]} == {"sent"}, "its state")
    s.wait(lambda: {row[:2] for row in journal(s)} == {(SENT, "")}, "its state on the watch")
    # A reply that came while only `serve` ran is sent when the relay is back.
    relay.kill()
    serve = s.serve()
    reply_on_watch(s, by_uid(s)["ask@x"], "by way of serve")
    s.wait(lambda: s.requests("reply"), "the request")
    s.stop_serve(serve)
    relay.start()
    s.wait(lambda: len(mta.sent()) == 3, "the third reply")
    assert "hand@x" in uids(s), "the relay leaves alone what it did not send"
    mta.change('cat > "$file"', 'head -c 9 > "$file"')
    reply_on_watch(s, by_uid(s)["ask@x"], "read by half")
    s.wait(lambda: "whole message" in status(s)["replies"][-1]["error"], "a try that ended before it had read it all")


def test_the_watch_hears_what_came_of_each_reply(s):
    box, mta, relay = follow(s)
    box.deliver(message("ask@x"))
    s.wait(lambda: "ask@x" in uids(s), "the mail")
    mail = by_uid(s)["ask@x"]
    mta.refuse.write_text("67")
    reply_on_watch(s, mail, "to nobody")
    reply_on_watch(s, dict(mail, from_address="", message_uid="?"), "no address")
    s.wait(lambda: [r[:2] for r in journal(s)] == [(REFUSED, "no route to anywhere"), (REFUSED, "no-address")],
           "both refused")
    equal(len(status(s)["replies"]), 2, "each was tried once")

    # The user changes one and sends it again, and drops the other.
    mta.refuse.unlink()
    call_watch(s, "RepeatRequest", "int64:1", "boolean:true", "string:to Ann")
    call_watch(s, "DropRequest", "int64:2")
    s.wait(lambda: journal(s) == [(SENT, "", "to Ann")], "sent at last")
    assert b"to Ann" in mta.sent()[0], mta.sent()

    # The watch's side is away while a reply is sent, and the relay is killed before it could tell.
    (gate := mta.refuse.with_suffix(".gate")).touch()
    mta.program.write_text(mta.program.read_text() + f"while [ -e '{gate}' ]; do sleep 0.05; done\n")
    reply_on_watch(s, mail, "meanwhile")
    s.wait(lambda: len(mta.sent()) == 2, "the mail system has it")
    os.kill(host_pid(s), 9)  # it may not have written down that the reply is here, and sends it once more
    s.wait(lambda: journal(s)[-1] == (HANDED_OVER, "", "meanwhile"), "the watch to know that it is there, as no outcome came")
    equal([r["subject"] for r in status(s)["replies"]].count("Re: Subject"), 4, "what it was sent again it knew")
    s.phone("relay", "drop", str(status(s)["replies"][-1]["id"]))  # too late
    host = host_pid(s)
    os.kill(host, 19)
    gate.unlink()
    s.wait(lambda: status(s)["replies"][-1]["state"] == "sent", "sent, on the phone")
    relay.kill()
    os.kill(host, 9)
    relay.start()
    s.wait(lambda: journal(s)[-1] == (SENT, "", "meanwhile"), "told by the next relay to the next service")
    equal(len(mta.sent()), 2, "each once")

    # One that the user drops on the phone is refused on the watch.
    mta.refuse.write_text("75")
    reply_on_watch(s, mail, "dropped")
    s.wait(lambda: journal(s)[-1][1] == "no route to anywhere", "why it waits")
    s.phone("relay", "drop", str(status(s)["replies"][-1]["id"]))
    s.wait(lambda: journal(s)[-1][0] == REFUSED, "dropped on the phone")
    equal([r["state"] for r in status(s)["replies"]].count("dropped"), 0, "forgotten on the phone")

    # What many of them came to is told in a row, each in a turn of its own.
    relay.kill(15)
    with contextlib.closing(sqlite3.connect(f"{s.dir}/state/brisel-phone/phone.db", isolation_level=None)) as db:
        db.executemany("INSERT INTO outbox (account_id, created, recipient, subject, message, state, error, uid) SELECT"
                       " account_id, 0, 'a@b', 's', '', 3, 'no', ? FROM outbox LIMIT 1", [(f"u{n}",) for n in range(20)])
        relay.start()
        s.wait(lambda: db.execute("SELECT count(*) FROM outbox WHERE told = ''").fetchone() == (0,), "all told")
        s.phone("relay", "drop", *map(str, db.execute("SELECT max(id) FROM outbox").fetchone()))


def test_killed_delivery_sends_once(s):
    box, mta, relay = follow(s)
    gate = s.dir / "gate"
    mta.change("file=$(mktemp", f"while [ -e '{gate}' ]; do sleep 0.05; done; file=$(mktemp")
    box.deliver(message("ask@x"))
    s.wait(lambda: "ask@x" in uids(s), "the mail")
    for n in range(4):
        gate.touch()
        reply_on_watch(s, by_uid(s)["ask@x"], f"text {n}")
        os.kill(s.wait(lambda: relay.children(b"deliver-reply"), "the process that hands it over")[0], 9)
        gate.unlink()
        s.wait(lambda: sum(r["state"] == "sent" for r in status(s)["replies"]) == n + 1, "the reply")
    equal(len(mta.sent()), 4, "each once")
    relay.kill()


def test_clocks_that_are_set_strand_nothing(s):
    clock, go = s.dir / "clock", s.dir / "go"
    set_clock = lambda days: (clock.with_suffix(".new").write_text(str(days * 86400)),  # noqa: E731
                              os.rename(clock.with_suffix(".new"), clock))
    (s.dir / "clock.so").symlink_to(BUILD / "tests" / "phone" / "libset-clock.so")  # by a name without blanks
    s.env |= {"LD_PRELOAD": str(s.dir / "clock.so"), "SET_CLOCK": str(clock),
              "ASAN_OPTIONS": "verify_asan_link_order=0"}
    box, mta, relay = follow(s)
    box.deliver(message("ask@x"))
    s.wait(lambda: "ask@x" in uids(s), "the mail")
    # A year back while a reply waits for its next try: a new process does not wait for that year.
    mta.refuse.write_text("75")
    reply_on_watch(s, by_uid(s)["ask@x"], "a year back")
    s.wait(lambda: [r for r in status(s)["replies"] if r["attempts"] >= 2], "two tries")
    relay.kill()
    set_clock(-365)
    relay.start()
    s.wait(lambda: status(s)["replies"][0]["attempts"] >= 3, "a try after that")
    assert status(s)["replies"][0]["next_try"] < time.time() - 300 * 86400, "the clock of the relay was set"
    mta.refuse.unlink()
    s.wait(lambda: len(mta.sent()) == 1, "the reply")
    # An hour forward while sendmail is at it: it is let finish, and the reply goes once.
    mta.change("file=$(", f"touch '{go}.1'; until [ -e '{go}' ]; do sleep 0.1; done; file=$(")
    reply_on_watch(s, by_uid(s)["ask@x"], "an hour on")
    s.wait(lambda: pathlib.Path(f"{go}.1").exists(), "sendmail, that takes its time")
    set_clock(400)
    box.deliver(message("meanwhile@x"))
    s.wait(lambda: "meanwhile@x" in uids(s), "a mail while the clock is ahead")
    go.touch()
    s.wait(lambda: [r["state"] for r in status(s)["replies"]] == ["sent", "sent"], "both replies")
    equal([r["attempts"] for r in status(s)["replies"]][1:], [1], "tries of the second")
    equal(len(mta.sent()), 2, "each once")
    relay.kill()


def test_mbox_and_config_file(s):
    box = s.dir / "mail.mbox"
    letter = lambda n, status="": "From ann Thu Jan  1 00:00:00 2026\n" + message(f"b{n}@x", f"Box {n}",
        body="Hello\n\n>From the box\nFrom here on\n", headers=status) + "\n"  # noqa: E731
    box.write_text(letter(1, "Status: RO\n") + letter(2))
    config = s.dir / "relay.conf"
    config.write_text(f"[relay]\nfirst=4096\n\n[account Box]\nmbox={box}\naddress=box@example.org\nname=The box\n"
                      "color=11223344\nnewest=3\n")
    relay = Relay(s, "--config", config)
    s.wait(lambda: uids(s) == {"b1@x", "b2@x"}, "the mails of the box")
    equal([by_uid(s)[f"b{n}@x"]["is_read"] for n in (1, 2)], [1, 0], "read marks")
    equal(body_text(by_uid(s)["b2@x"]), "Hello\n\nFrom the box\nFrom here on", "text")
    equal(s.phone("account", "list").split("\t")[1:], ["box@example.org", "The box", "11223344"], "account")
    with open(box, "a") as out:
        out.write(letter(3) + letter(4))
    s.wait(lambda: uids(s) == {"b2@x", "b3@x", "b4@x"}, "what was appended")
    box.write_text(letter(4))
    s.wait(lambda: uids(s) == {"b4@x"}, "what was left")
    relay.kill()


def test_hostile_mail_stops_nothing(s):
    box = Maildir(s.dir / "box")
    hostile = sorted((pathlib.Path(__file__).resolve().parent / "hostile").glob("*.eml"))
    for path in hostile:
        box.deliver(path.read_bytes())
    # Groups in groups, once deep enough to end whoever read them; and characters that no bus takes.
    box.deliver(message("groups@x", headers="Cc: " + "g:\n " * 40000 + "\n"))
    box.deliver(message("groups@y", sender="g:" * 40000 + " <ann@example.org>"))
    box.deliver(message("odd@x", "a\uffffb\ufdd0c", "d\uffff\ufdd0\U0001fffee\n", sender="A\uffff <a\ufdd0@example.org>"))
    box.deliver(message("good@x"))
    relay = Relay(s, "--maildir", f"me@example.org={box.path}")
    s.wait(lambda: {"good@x", "odd@x", "groups@x"} <= uids(s), "the good mails")
    equal((by_uid(s)["odd@x"]["subject"], body_text(by_uid(s)["odd@x"])), ("abc", "de"), "odd characters")
    s.wait(lambda: relay.log().count("it is left out") == 3, "the three that are no mail")
    equal(len(s.mails()), len(hostile) - 3 + 4, "every other one is there")
    box.deliver(message("after@x"))
    s.wait(lambda: "after@x" in uids(s), "a mail after them")
    # A program that writes into the folder itself: the mail is there when it is whole.
    with open(box.path / "new" / "slow", "w") as out:
        out.write("From: a@b.c\nMessage-ID: <slow@x>\n")
        out.flush()
        s.wait(lambda: "slow@x" in uids(s), "the beginning")
        out.write("Subject: whole\n\nand its text\n")
    s.wait(lambda: by_uid(s).get("slow@x", {}).get("subject") == "whole", "the whole mail")
    relay.kill()


def test_a_dying_reader_costs_one_mail(s):
    """The process that reads mail is killed whenever it is at the one mail that takes it long."""
    box = Maildir(s.dir / "box")
    relay = Relay(s, "--maildir", f"me@example.org={box.path}")
    box.deliver(message("before@x"))
    s.wait(lambda: "before@x" in uids(s), "a mail before it")
    parsers = lambda: relay.children(b"read-mail")  # noqa: E731
    first = parsers()[0]
    os.kill(first, 9)
    box.deliver(message("between@x"))
    s.wait(lambda: "between@x" in uids(s), "a mail for a new reader")
    equal([pid == first for pid in parsers()], [False], "the reader is another")
    limits = pathlib.Path(f"/proc/{parsers()[0]}/limits").read_text()
    seccomp = pathlib.Path(f"/proc/{parsers()[0]}/status").read_text()
    assert "Seccomp:\t2" in seccomp and "NoNewPrivs:\t1" in seccomp, seccomp
    assert re.search(r"Max file size +0 ", limits) and re.search(r"Max stack size +8388608 ", limits), limits

    box.deliver(message("beside@x"))  # handed over before or behind it
    deadly = box.deliver(message("deadly@x", body="\n--\n" * 15000 + "x\n" * 15000000))

    def killed_until_left_out():
        for pid in parsers():
            if int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1]) > 8000:  # pages: it holds the large one
                os.kill(pid, 9)
        return "it is left out" in relay.log()

    s.wait(killed_until_left_out, "the mail that is set aside")
    assert deadly in relay.log() and "ends whoever reads it" in relay.log(), relay.log()
    box.deliver(message("after@x"))
    s.wait(lambda: uids(s) == {"before@x", "between@x", "beside@x", "after@x"}, "the mails around it")
    relay.kill()
    relay.start()
    box.deliver(message("later@x"))
    s.wait(lambda: uids(s) == {"before@x", "between@x", "beside@x", "after@x", "later@x"}, "and it is not read again")
    relay.kill()


def test_an_impostor_is_told_nothing(s):
    """Another program has the service's name: the service itself, from a place that is not its own."""
    impostor = s.dir / "brisel-hostd"
    shutil.copy(BUILD / "service" / "brisel-hostd", impostor)
    process = subprocess.Popen([impostor], env=s.env, stderr=subprocess.DEVNULL)
    s.wait(lambda: host_pid(s) == process.pid, "its name")
    box, mta, relay = follow(s)
    box.deliver(message("secret@x"))
    s.wait(lambda: str(impostor) in relay.log(), "what the relay says of it")
    fails = s.run("brisel-phone", "mail", "list", check=False)
    assert fails.returncode == 1 and str(impostor) in fails.stderr, fails
    with contextlib.closing(sqlite3.connect(f"file:{s.dir}/data/brisel/store.db?mode=ro", uri=True)) as store:
        equal(store.execute("SELECT count(*) FROM mail").fetchall(), [(0,)], "mails that it was given")
    process.kill()
    process.wait()
    s.wait(lambda: uids(s) == {"secret@x"}, "the mail, when the service itself is there")
    relay.kill()


ENDS = f"""import ctypes, os, threading, time
def hold():
    lib, bus = ctypes.CDLL("libsystemd.so.0"), ctypes.c_void_p()
    lib.sd_bus_open_user(ctypes.byref(bus))
    lib.sd_bus_request_name(bus, b"{HOST}", ctypes.c_uint64(0))
    print("held", flush=True)
    time.sleep(1)
    os._exit(0)
threading.Thread(target=hold).start()
ctypes.CDLL(None).pthread_exit(None)"""


def test_a_service_that_takes_long_to_end_is_no_impostor(s):
    """What has its name runs no program any more, which takes it longer to let go of than a busy machine does."""
    with subprocess.Popen([sys.executable, "-c", ENDS], env=s.env, stdout=subprocess.PIPE) as ends:
        equal(ends.stdout.readline(), b"held\n", "the name")
        equal(s.mails(), [], "of the next service")


def test_clear_refusals(s):
    box = Maildir(s.dir / "mail" / "box")
    config = s.dir / "bad.conf"
    config.write_text("[relay]\nnewest=many\n")
    for args, said in ((["relay"], "no mailbox"), (["relay", "--maildir", "x"], "NAME=..."),
                       (["relay", "--maildir", f"x={s.dir}/none"], "no Maildir"),
                       (["relay", "--maildir", "x=/a", "--mbox", "x=/b"], "two mailboxes"),
                       (["relay", "--config", config], "a number is wanted"),
                       (["relay", "--config", s.dir / "none"], "none"),
                       (["relay", "drop", "7"], "no such reply")):
        done = s.run("brisel-phone", *args, check=False)
        assert done.returncode != 0 and said in done.stderr and len(done.stderr.splitlines()) <= 2, done
    relay = Relay(s, "--maildir", f"me@example.org={box.path}")
    s.wait(s.linked, "the link")
    done = s.run("brisel-phone", "relay", "--maildir", f"me@example.org={box.path}", check=False)
    assert done.returncode == 1 and "running already" in done.stderr, done
    # A mailbox that goes away as a whole is no empty one: the relay ends, and the watch keeps its mails.
    box.deliver(message("kept@x"))
    s.wait(lambda: "kept@x" in uids(s), "the mail")
    os.rename(box.path.parent, s.dir / "elsewhere")
    equal(relay.process.wait(20), 1, "exit code")
    assert "its mailbox is gone" in relay.log(), relay.log()
    equal(uids(s), {"kept@x"}, "the watch's mails")
    # What a configuration names may come later, with the folders above it.
    config.write_text(f"[account me@example.org]\nmaildir={s.dir}/later/on/box\n")
    relay = Relay(s, "--config", str(config))
    s.wait(lambda: "no Maildir" in relay.log() and s.linked(), "the relay to wait for it")
    equal(uids(s), {"kept@x"}, "the watch's mails meanwhile")
    Maildir(s.dir / "later" / "on" / "box").deliver(message("late@x"))
    s.wait(lambda: "late@x" in uids(s), "its first mail")
    equal(relay.kill(15), 0, "exit code")


if __name__ == "__main__":
    main(globals())

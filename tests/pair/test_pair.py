"""Phone and watch at the two ends of a network that fails: nothing lost, nothing twice, both sides know, and both are
together again.   BRISEL_CUT_ROUNDS (cuts, default 15) and BRISEL_CUT_SEED choose how much and which."""
import os
import random
import shutil
import signal
import subprocess
import sys
import time

from brisel_test import BUILD, kill_service
import cut_proxy
from cut_proxy import MODES, Cut
from phone_test import (Maildir, Relay, Sendmail, by_uid, call_watch, delete_on_watch, equal, journal, main, message,
                        more_on_watch, reply_on_watch)
from torture import torture

ROUNDS = int(os.environ.get("BRISEL_CUT_ROUNDS", "15"))
SEED = int(os.environ.get("BRISEL_CUT_SEED", "0")) or int.from_bytes(os.urandom(3), "big")
LINKED = "memory/wms/wmanager_connected"
PACE = ("--ping-after", "1", "--patience", "1")


def network(s):
    """A way from a phone to the session's watch, and the options that name it."""
    net = Cut([str(BUILD / "gate" / "brisel-gate")],
              env={**s.env, "BRISEL_GATE_IDLE": "4", "BRISEL_GATE_ANSWER": "2"})
    return net, ("--watch", f"exec:{sys.executable} '{cut_proxy.__file__}' {net.port}")


def linked(s):
    return s.setting(LINKED).strip() in ("true", "1")


def test_random_cuts(s):
    print(f"# seed {SEED}, {ROUNDS} cuts", flush=True)
    net, watch = network(s)
    held = []

    def cut(world, n):
        mode = MODES[1 + world.rng.randrange(len(MODES) - 1)]
        net.set(mode)
        held.append(mode)
        # Most end before anybody noticed; some are noticed, by one side or by both.
        time.sleep(world.rng.choice([0.05, 0.2, 0.5, 0.5, 3]))
        net.set("pass")

    torture(s, ROUNDS, SEED, cut, lambda: net.set("pass"), PACE, watch)
    print(f"# {net.connections} connections, {sum(net.bytes)} bytes, {held}", flush=True)
    net.close()


def test_both_sides_know_and_come_together_again(s):
    net, watch = network(s)
    box, mta = Maildir(s.dir / "box"), Sendmail(s.dir / "mta")
    box.deliver(message("one@x", "One", "a line of text\n" * 200))
    s.setting("db/setting/device_name", "string", "Wrist")
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--sendmail", mta.command, "--phone-name", "Ann's", "--first",
                  "600", *PACE, *watch)
    mail = s.wait(s.mails, "the first mail")[0]
    s.wait(lambda: linked(s), "the link")
    for mode in ("stall", "half", "ghost", "reset", "drop"):
        before = net.connections
        net.set(mode)
        if mode in ("stall", "half"):
            s.wait(lambda: not linked(s), f"the watch to know ({mode})")
            failed = s.run("dbus-send", "--session", "--print-reply", "--dest=com.vextora.brisel.Host",
                           "/com/vextora/brisel/Host", "com.vextora.brisel.Watch1.MoreMsg", f"string:{mode}",
                           f"string:{mail['message_uid']}", f"int32:{mail['mail_id']}", check=False)
            assert "NoPhone" in failed.stderr, failed.stderr
            call_watch(s, "Show", "string:email", f"array:int32:{mail['mail_id']}")
        box.deliver(message(f"{mode}@x", mode))
        if mode == "ghost":
            s.wait(lambda: net.connections > before, "the phone to come again")
        net.set("pass")
        s.wait(lambda: linked(s), f"the link again ({mode})")
        s.wait(lambda: mode in {m["subject"] for m in s.mails()}, f"the mail of that time ({mode})")
    shown = [line for line in s.phone("requests", *watch).splitlines() if '"show"' in line]
    equal(len(shown), 2, "what was asked while the phone was away")
    more_on_watch(s, mail)
    s.wait(lambda: len(by_uid(s)["one@x"]["body"]) > len(mail["body"]), "more of a mail after all that")

    # Another process of this phone is refused; another phone hears who is linked; both end when they are told to.
    equal(s.run("brisel-phone", "serve", *watch, check=False).returncode, 1, "a second one")
    other = {**s.env, "XDG_STATE_HOME": str(s.dir / "other")}
    with open(s.dir / "other.log", "w") as log:
        second = subprocess.Popen(["brisel-phone", "serve", *PACE, *watch], env=other, stderr=log, stdout=log)
    s.wait(lambda: "Ann's is linked" in (s.dir / "other.log").read_text(), "the other phone to hear who is linked")
    before = net.connections
    relay.kill(signal.SIGTERM)
    s.wait(lambda: "linked with" in (s.dir / "other.log").read_text(), "the other phone's turn")
    equal(net.connections, before, "connections: it stayed")
    net.set("stall")
    second.send_signal(signal.SIGTERM)
    second.wait()
    s.wait(lambda: not linked(s), "the watch to know that the phone ended")
    net.close()


def test_deleted_and_sent_while_away(s):
    net, watch = network(s)
    box, mta = Maildir(s.dir / "box"), Sendmail(s.dir / "mta")
    for n in range(3):
        box.deliver(message(f"{n}@x", f"Mail {n}"))
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--sendmail", mta.command, *PACE, *watch)
    s.wait(lambda: len(s.mails()) == 3, "the mails")
    net.set("stall")
    s.wait(lambda: not linked(s), "the watch to know")
    gone = s.mails()[0]
    delete_on_watch(s, gone["mail_id"])
    box.deliver(message("new@x", "New"))
    net.set("pass")
    s.wait(lambda: "New" in {m["subject"] for m in s.mails()}, "the new mail")
    equal(len(s.mails()), 3, "what was deleted stays deleted")
    # A reply is sent while the watch is away, which hears of it afterwards.
    begun, go = s.dir / "begun", s.dir / "go"
    mta.change("file=$(mktemp", f"touch '{begun}'; until [ -e '{go}' ]; do sleep 0.1; done; file=$(mktemp")
    reply_on_watch(s, s.mails()[0], "Yes")
    s.wait(lambda: begun.exists() and journal(s)[-1][0] == 1, "the mail system at work, and the watch to know")
    net.set("stall")
    go.touch()
    s.wait(lambda: mta.sent() and not linked(s), "the reply, without a watch")
    equal(journal(s)[-1], (1, "", "Yes"), "handed over, as far as the watch knows")
    net.set("pass")
    s.wait(lambda: journal(s)[-1][0] == 2, "sent, on the watch")
    relay.kill()
    net.close()


def test_more_while_the_first_sync_is_under_way(s):
    net = Cut([str(BUILD / "gate" / "brisel-gate")], env=s.env, rate=20000)
    box, texts = Maildir(s.dir / "box"), random.Random(1)
    for n in range(120):
        text = "".join(texts.choices("abcdefghijklmnopqrstuvwxyz ", k=1500))
        box.deliver(message(f"{n}@x", body=text, date=1790000000 + n), flags="")
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--first", "600", "--watch",
                  f"exec:{sys.executable} '{cut_proxy.__file__}' {net.port}")
    mail = s.wait(s.mails, "the first mails")[0]
    relay.kill()  # the rest is no newer for it
    s.wait(lambda: not linked(s), "the watch to know")
    relay.start()
    s.wait(lambda: linked(s), "the link again")
    more_on_watch(s, mail)
    mails = by_uid(s)
    assert len(mails[mail["message_uid"]]["body"]) > 1500 and len(mails) < 120, len(mails)
    s.wait(lambda: len(s.mails()) == 120, "all the others")
    equal({m["is_new"] for m in s.mails()}, {0}, "mails that were there before")
    before = net.bytes[1]
    kill_service(s)  # the list is compared again
    box.deliver(message("last@x"))
    s.wait(lambda: len(s.mails()) == 121, "the link again")
    assert net.bytes[1] - before < 20000, f"{net.bytes[1] - before} bytes for 121 names"
    relay.kill()
    net.close()


def test_sides_of_another_age(s):
    box = Maildir(s.dir / "box")
    box.deliver(message("one@x", body="a long text\n" * 200))
    log = s.dir / "calls"
    for age, said, calls in (("first", "", {"ListMails", "with body"}), ("newest", "", {"ListMails", "with body_zlib"}),
                             ("least", "update brisel on the watch", set()), ("refuses", "update it on the phone", set())):
        log.write_text("")
        s.env["XDG_STATE_HOME"] = str(s.dir / age)
        relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--first", "100000", "--watch",
                      f"exec:exec '{BUILD}/tests/pair/other-watch' {age} '{log}'")
        s.wait(lambda: calls and calls < set(log.read_text().splitlines()) or said and said in relay.log(), f"the {age} watch")
        equal(relay.kill(15), 0, "exit code")
        assert calls or "Connect" not in log.read_text(), log.read_text()


def test_a_watch_that_floods(s):
    """What does not fit is left there and comes later, and each once; the phone neither asks in a row nor answers."""
    log, box = s.dir / "calls", Maildir(s.dir / "box")
    box.deliver(message("one@x"))
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--watch", f"exec:exec '{BUILD}/tests/pair/other-watch' floods '{log}'")
    s.wait(lambda: log.exists() and "all" in log.read_text().split(), "all that it asks for")
    s.wait(lambda: "AddMails" in log.read_text(), "the mail")
    equal(relay.kill(15), 0, "exit code")
    calls = log.read_text().splitlines()
    assert 2 <= calls.count("Connect") <= 5 and "answered" not in calls, calls
    equal(relay.log().count("what does not fit"), 1, "words of it")


def test_the_network_tells(s):
    """No other reason to look at the link, or for it, comes while the test lasts: a change of the network has to."""
    if os.getuid():
        return print("# only root can change a network")
    box = Maildir(s.dir / "box")
    gate = ("--watch", f"exec:exec '{BUILD}/gate/brisel-gate'", *"--ping-after 3600 --patience 3600 --again-after 3600".split())
    relay = Relay.__new__(Relay)
    relay.session, relay.args = s, ["unshare", "-n", "brisel-phone", "relay", "--maildir", f"me@example.org={box.path}", *gate]
    relay.start()
    box.deliver(message("one@x"))
    s.wait(lambda: s.mails() and linked(s), "the link")

    def ip(*words):
        subprocess.run(["nsenter", "-t", str(relay.process.pid), "-n", "ip", *words], check=True)

    def neighbour(state):
        ip(*"neigh replace 10.9.8.7 lladdr 02:00:00:00:00:01 dev lo nud".split(), state)

    ip("link", "set", "lo", "up")
    # The same phone from elsewhere: this one does not try again by itself.
    state = s.dir / "elsewhere" / "brisel-phone"
    state.mkdir(parents=True, mode=0o700)
    shutil.copy(s.dir / "state" / "brisel-phone" / "phone-id", state)
    with open(s.dir / "elsewhere.log", "w") as log:
        other = subprocess.Popen(["brisel-phone", "serve", *gate], env={**s.env, "XDG_STATE_HOME": str(state.parent)},
                                 stderr=log, stdout=log)
    s.wait(lambda: "took over the link" in relay.log(), "the other one to take over")
    s.wait(lambda: neighbour("failed") or neighbour("reachable") or
           "took over the link" in (s.dir / "elsewhere.log").read_text(), "the first one to come again")
    other.terminate()
    other.wait()
    # What cannot be heard is not noticed either, but for the network.
    for pid in relay.children():
        os.kill(pid, signal.SIGSTOP)
    ip("link", "set", "lo", "down")
    s.wait(lambda: "does not answer" in relay.log(), "the phone to know")
    equal(relay.kill(15), 0, "exit code")


if __name__ == "__main__":
    main(globals())

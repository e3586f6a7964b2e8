"""Phone and watch at the two ends of a network that fails: nothing lost, nothing twice, both sides know, and both are
together again.   BRISEL_CUT_ROUNDS (cuts, default 15) and BRISEL_CUT_SEED choose how much and which."""
import os
import signal
import subprocess
import sys
import time

from brisel_test import BUILD
import cut_proxy
from cut_proxy import MODES, Cut
from phone_test import Maildir, Relay, Sendmail, call_watch, delete_on_watch, equal, main, message
from torture import torture

ROUNDS = int(os.environ.get("BRISEL_CUT_ROUNDS", "15"))
SEED = int(os.environ.get("BRISEL_CUT_SEED", "0")) or int.from_bytes(os.urandom(3), "big")
LINKED = "memory/wms/wmanager_connected"
PACE = ("--ping-after", "1", "--patience", "1")


def network(s):
    """A way from a phone to the session's watch, and the options that name it."""
    net = Cut([str(BUILD / "gate" / "brisel-gate")],
              env={**s.env, "BRISEL_GATE_IDLE": "4", "BRISEL_GATE_ANSWER": "2"})
    return net, ("--watch", f"exec:{sys.executable} {cut_proxy.__file__} {net.port}")


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
    box.deliver(message("one@x", "One"))
    s.setting("db/setting/device_name", "string", "Wrist")
    relay = Relay(s, "--maildir", f"me@example.org={box.path}", "--sendmail", mta.command, *PACE, *watch)
    mail = s.wait(s.mails, "the first mail")[0]
    s.wait(lambda: linked(s), "the link")
    for mode in ("stall", "half", "ghost", "reset"):
        before = net.connections
        net.set(mode)
        if mode in ("stall", "half"):
            s.wait(lambda: not linked(s), f"the watch to know ({mode})")
            failed = s.run("dbus-send", "--session", "--print-reply", "--dest=com.vextora.brisel.Host",
                           "/com/vextora/brisel/Host", "com.vextora.brisel.Watch1.MoreMsg", f"string:{mode}",
                           f"string:{mail['message_uid']}", f"int32:{mail['mail_id']}", check=False)
            # The whole body is there already, or there is no phone: it does not wait for one.
            assert failed.returncode == 0 or "NoPhone" in failed.stderr, failed.stderr
            call_watch(s, "Show", "string:email", f"array:int32:{mail['mail_id']}")
        box.deliver(message(f"{mode}@x", mode))
        if mode == "ghost":
            s.wait(lambda: net.connections > before, "the phone to come again")
        net.set("pass")
        s.wait(lambda: linked(s), f"the link again ({mode})")
        s.wait(lambda: mode in {m["subject"] for m in s.mails()}, f"the mail of that time ({mode})")
    shown = [line for line in s.phone("requests", *watch).splitlines() if '"show"' in line]
    equal(len(shown), 2, "what was asked while the phone was away")

    # Another phone hears who is linked; both end when they are told to.
    other = {**s.env, "XDG_STATE_HOME": str(s.dir / "other")}
    with open(s.dir / "other.log", "w") as log:
        second = subprocess.Popen(["brisel-phone", "serve", *PACE, *watch], env=other, stderr=log, stdout=log)
    s.wait(lambda: "is linked" in (s.dir / "other.log").read_text(), "the other phone to hear who is linked")
    second.send_signal(signal.SIGTERM)
    second.wait()
    net.set("stall")
    relay.kill(signal.SIGTERM)
    s.wait(lambda: not linked(s), "the watch to know that the phone ended")
    net.close()


def test_deleted_while_away(s):
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
    relay.kill()
    net.close()


if __name__ == "__main__":
    main(globals())

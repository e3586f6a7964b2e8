"""New mail is told: a real notification server on the session's bus, and a witness of what passes there."""
import hashlib
import json
import os
import pathlib
import signal
import subprocess
import time

from brisel_test import equal, kill_owner, kill_service, mail, main, owner, start_display

HOST, SERVER = "com.vextora.brisel.Host", "org.freedesktop.Notifications"
ANN, BEN = "Ann <ann@example.org>", "Ben <ben@example.org>"
CONFIG = """[global]
dmenu = {chooser}
markup = full
notification_limit = 0
[urgency_low]
timeout = 0
[urgency_normal]
timeout = 0
"""


class Desk:
    """A desktop's server, in a display without a screen, and everything it was told."""

    def __init__(self, s, server=True):
        self.s, self.chosen, self.running = s, s.dir / "chosen", []
        address = s.env["DBUS_SESSION_BUS_ADDRESS"]
        self.record = s.dir / "witness.jsonl"
        self.start("busctl", f"--address={address}", "--json=short", "monitor", SERVER, "org.sigxcpu.Feedback",
                   out=open(self.record, "w"))
        chooser = s.dir / "chooser"
        chooser.write_text(f"#!/bin/sh\ngrep -F \"$(cat '{self.chosen}')\"\n")
        chooser.chmod(0o755)
        (s.dir / "dunstrc").write_text(CONFIG.format(chooser=chooser))
        process, self.display = start_display(s.env)
        self.running.append(process)
        if server:
            self.serve()

    def start(self, *command, out=subprocess.DEVNULL, env=None):
        self.running.append(subprocess.Popen(command, env={**self.s.env, **(env or {})}, stdout=out, stderr=subprocess.DEVNULL))
        return self.running[-1]

    def serve(self):
        self.server = self.start("dunst", "-conf", str(self.s.dir / "dunstrc"), env={"DISPLAY": self.display})
        self.s.wait(lambda: self.ask("GetServerInformation").returncode == 0, "the notification server")

    def ask(self, method):
        return self.s.run("gdbus", "call", "--session", "--dest", SERVER, "--object-path", "/org/freedesktop/Notifications",
                          "--method", f"{SERVER}.{method}", check=False)

    def passed(self, member):
        lines = [json.loads(line) for line in self.record.read_text().splitlines() if line.endswith("}")]
        return [m["payload"]["data"] for m in lines if m.get("member") == member]

    def told(self):
        """(summary, body) of every notification so far, in order."""
        return [(call[3], call[4]) for call in self.passed("Notify")]

    def buttons(self, number=-1):
        actions = self.passed("Notify")[number][5]
        return dict(zip(actions[1::2], actions[0::2]))

    def hints(self, number=-1):
        return {key: value["data"] for key, value in self.passed("Notify")[number][6].items()}

    def shown(self):
        return int(self.s.run("dunstctl", "count", "displayed").stdout)

    def wait_told(self, *expected):
        self.s.wait(lambda: len(self.told()) >= len(expected), f"{expected}")
        equal(self.told(), list(expected), "told")
        self.s.wait(lambda: self.shown() > 0, "it on the screen")

    def wait_shown(self, count):
        self.s.wait(lambda: self.shown() == count, f"{count} notifications")

    def press(self, label):
        self.chosen.write_text(label)
        self.s.run("dunstctl", "context")

    def close(self):
        for process in reversed(self.running):
            process.send_signal(signal.SIGCONT)
            process.terminate()
            process.wait()


def arrange(s, **kw):
    desk = Desk(s, **kw)
    desk.phone = s.serve(counts=True)
    return desk, s.account("first@example.net")


def with_desk(test):
    def run(s):
        desk, account = arrange(s)
        try:
            test(s, desk, account)
        finally:
            desk.close()
    run.__name__ = test.__name__
    return run


@with_desk
def test_one_mail_is_told_whole_and_taken_back_when_it_is_read_or_deleted(s, desk, account):
    first, = s.send(account, mail("Lunch & <more>", "> old words\nNoon at the\nharbour?\n-- \nAnn of the office", ANN))
    desk.wait_told(("Ann", "Lunch &amp; &lt;more&gt;\nNoon at the harbour?"))
    hints = desk.hints()
    equal([hints[k] for k in ("category", "sound-name", "desktop-entry", "urgency")],
          ["email.arrived", "message-new-email", "com.vextora.brisel", 1], "the hints")
    assert not hints.get("suppress-sound"), hints
    equal(desk.passed("TriggerFeedback")[0][:2], ["com.vextora.brisel", "message-new-email"], "by touch")
    s.phone("mail", "update", first, "--read")  # on the other side
    desk.wait_shown(0)
    second, = s.send(account, mail("Tea", "Soon.", BEN))
    desk.wait_shown(1)
    s.phone("mail", "delete", second)
    desk.wait_shown(0)
    s.send(account, mail("Seen elsewhere", "x", ANN), args=("--read",))
    s.send(account, mail("Not new", "x", ANN), args=("--not-new",))
    s.send(account, mail("Later", "x", BEN))
    s.wait(lambda: ("Ben", "Later\nx") in desk.told(), "the next one")
    equal(len(desk.told()), 3, "nothing of what was read elsewhere")
    moved = mail("Moved", "x", ANN)
    third, = s.send(account, moved)
    s.wait(lambda: desk.told()[-1] == ("Ann", "Moved\nx"), "it once")
    s.phone("mail", "delete", third)
    s.send(s.account("archive@example.net"), moved)  # to another folder
    s.send(account, mail("Last", "x", BEN))
    s.wait(lambda: desk.told()[-1] == ("Ben", "Last\nx"), "the last one")
    equal(len(desk.told()), 5, "what was moved is told once")


@with_desk
def test_many_become_one_that_counts_down(s, desk, account):
    ids = s.send(account, *[mail(f"Mail {n}", "x", f"Sender {n} <s{n}@example.org>") for n in range(5)])
    desk.wait_told((s.counted("IDS_EMAIL_BODY_PD_NEW_EMAILS", 5).replace("%d", "5"), "Sender 4\nSender 3\nSender 2"))
    s.setting("db/menu_widget/regionformat", "string", "ar_EG.UTF-8")
    s.wait(lambda: desk.told()[-1][0].startswith(s.counted("IDS_EMAIL_BODY_PD_NEW_EMAILS", 5).replace("%d", "٥")), "its digits")
    s.phone("mail", "delete", *ids[3:])
    s.wait(lambda: desk.told()[-1] == (s.counted("IDS_EMAIL_BODY_PD_NEW_EMAILS", 3).replace("%d", "٣"),
                                       "Sender 2\nSender 1\nSender 0"), "the smaller number")
    assert desk.hints()["suppress-sound"] and desk.shown() == 1, "the same notification, without another sound"
    desk.press(s.text("IDS_EMAIL_SK_MARK_AS_READ"))
    s.wait(lambda: all(m["is_read"] for m in s.mails()), "all of them read")
    desk.wait_shown(0)


@with_desk
def test_buttons_work_without_the_application(s, desk, account):
    uses = pathlib.Path(s.env["XDG_STATE_HOME"]) / "brisel" / "template-uses"
    uses.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    uses.write_text("2 " + hashlib.sha256(b"IDS_MSG_TEMPLATE_2").hexdigest() + "\n")
    first, second, third = s.send(account, *[mail(f"Mail {n}", "x", ANN) for n in range(3)])
    desk.wait_shown(3)
    assert len(desk.passed("TriggerFeedback")) < 3, "what comes together makes one sound"
    templates = [s.text(f"IDS_MSG_TEMPLATE_{n}", "message") for n in (2, 1)]
    equal(list(desk.buttons()), [s.text(i) for i in ("IDS_EMAIL_SK_OPEN", "IDS_EMAIL_SK_MARK_AS_READ", "IDS_EMAIL_BODY_DELETE")]
          + templates, "the buttons")
    for label, kind in ((templates[1], "reply"), (s.text("IDS_EMAIL_BODY_DELETE"), "delete_notis"),
                        (s.text("IDS_EMAIL_SK_MARK_AS_READ"), "update_ind")):
        before = len(s.requests(kind))
        desk.press(label)
        s.wait(lambda: len(s.requests(kind)) > before, f"{label}: {kind}")
    reply, = s.requests("reply")
    equal((reply["text"], reply["recipient"]), (templates[1], "ann@example.org\x02Ann"), "the reply")
    desk.wait_shown(0)
    left = {m["mail_id"]: m["is_read"] for m in s.mails()}
    equal((len(left), sum(left.values())), (2, 2), "one deleted, two read")
    fourth, = s.send(account, mail("Open me", "The whole text.", BEN))
    desk.wait_shown(1)
    s.run("dunstctl", "action")
    s.wait(lambda: s.run("brisel-watchctl", "dump", check=False).returncode == 0, "the application")
    s.wait_text("The whole text.")
    desk.wait_shown(0)


@with_desk
def test_nothing_is_told_of_what_the_list_shows(s, desk, account):
    other = s.account("other@example.net")
    s.send(account, mail("One", "x", ANN))
    desk.wait_shown(1)
    s.launch()
    s.wait_text("Ann")
    desk.wait_shown(0)  # all accounts are in view
    s.send(account, mail("Two", "x", BEN))
    s.wait_text("Ben")
    equal(len(desk.told()), 1, "the list shows it")
    kill_service(s)
    s.send(account, mail("Three", "x", "Cleo <cleo@example.org>"))
    s.wait_text("Cleo")
    equal(len(desk.told()), 1, "a new service is told of the list")
    s.tap(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.wait_text("first@example.net")
    s.send(other, mail("Four", "x", "Dora <dora@example.org>"))
    s.wait(lambda: desk.told()[-1] == ("Dora", "Four\nx"), "mail of another account")
    s.tap("Ann")
    s.wait_text("One", part=False)
    s.send(account, mail("Five", "x", "Emil <emil@example.org>"))
    s.wait(lambda: desk.told()[-1] == ("Emil", "Five\nx"), "mail while the reader is open")
    s.watch("key", "back")
    desk.wait_shown(1)  # what the list shows now is taken back
    s.watch("pause")
    s.send(account, mail("Six", "x", "Fred <fred@example.org>"))
    s.wait(lambda: desk.told()[-1] == ("Fred", "Six\nx"), "mail while the window is out of sight")
    s.watch("resume")
    desk.wait_shown(1)
    kill_owner(s, "com.vextora.brisel")  # which had no time to say that its list is out of view
    s.send(account, mail("Seven", "x", "Gus <gus@example.org>"))
    s.wait(lambda: desk.told()[-1] == ("Gus", "Seven\nx"), "mail after the application")


@with_desk
def test_settings_say_how_loud_and_how_much(s, desk, account):
    other = s.account("other@example.net")
    key, shows = "file/private/brisel/notify", "file/private/brisel/notify_shows"
    hidden = s.text("IDS_EMAIL_BODY_NEW_EMAIL")
    s.setting(key, "string", "quiet")
    s.setting(f"{key}/{other}", "string", "off")
    s.setting(shows, "string", "sender")
    s.send(other, mail("Off", "x", BEN))
    s.send(account, mail("Quiet", "x", ANN))
    desk.wait_told(("Ann", ""))
    assert desk.hints()["suppress-sound"] and "sound-name" not in desk.hints() and not desk.passed("TriggerFeedback")
    s.setting(f"{shows}/{account}", "string", "nothing")
    s.send(account, mail("Hidden", "x", ANN))
    desk.wait_told(("Ann", ""), (hidden, ""))
    equal(len(desk.buttons()), 3, "no reply to nobody")
    s.setting(f"{shows}/{account}", "string", "all")
    s.setting("db/menu_widget/language", "string", "de_DE.UTF-8")
    s.language = "de"
    s.wait(lambda: desk.told()[2:] == [("Ann", "Quiet\nx"), ("Ann", "Hidden\nx")], "what stands, anew")
    assert s.text("IDS_EMAIL_SK_OPEN") in desk.buttons() and desk.hints()["suppress-sound"] and desk.shown() == 2
    s.send(account, mail("Locked", "x", ANN), args=("--locked",))
    s.wait(lambda: desk.told()[4:] == [(s.text("IDS_EMAIL_BODY_NEW_EMAIL"), "")], "nothing of what is locked")
    later, = s.send(account, mail("Locked later", "x", ANN))
    s.wait(lambda: desk.told()[-1] == ("Ann", "Locked later\nx"), "shown at first")
    s.run("gdbus", "call", "--session", "--dest", HOST, "--object-path", "/com/vextora/brisel/Host", "--method",
          "com.vextora.brisel.Phone1.UpdateMail", later, "{'security_locked': <1>}")
    s.wait(lambda: desk.told()[-1] == (s.text("IDS_EMAIL_BODY_NEW_EMAIL"), ""), "then taken out of sight")
    desk.wait_shown(4)


@with_desk
def test_killed_services_and_servers_tell_nothing_twice(s, desk, account):
    first, = s.send(account, mail("One", "x", ANN))
    desk.wait_told(("Ann", "One\nx"))
    kill_service(s)
    s.send(account, mail("Two", "x", BEN))
    desk.wait_told(("Ann", "One\nx"), ("Ann", "One\nx"), ("Ben", "Two\nx"))
    desk.wait_shown(2)  # the new service told the first in its place, so that it hears of it
    s.phone("mail", "delete", first)
    desk.wait_shown(1)
    desk.server.kill()
    desk.server.wait()
    s.send(account, mail("Three", "x", ANN))  # waits for a server
    desk.serve()
    s.wait(lambda: desk.told()[-1] == ("Ann", "Three\nx") and desk.shown() == 1, "the new server gets what waited alone")
    desk.server.send_signal(signal.SIGSTOP)
    stuck = s.send(account, mail("Four", "x", BEN), mail("Five", "x", BEN))
    s.wait(lambda: len(desk.told()) == 5, "the call to a server that hangs")
    s.phone("mail", "delete", *stuck)  # the service still answers
    equal(len(s.mails()), 2, "the mails that are left")
    desk.server.send_signal(signal.SIGCONT)
    desk.wait_shown(1)
    told = len(desk.told())
    desk.phone.kill()
    kill_service(s)  # nobody asks for the next one but what the first left behind
    s.wait(lambda: len(desk.told()) > told, "the next service")
    service = owner(s, HOST)
    asked = s.dir / "asked.jsonl"
    desk.start("busctl", f"--address={s.env['DBUS_SESSION_BUS_ADDRESS']}", "--json=short", "--match=member=StartServiceByName",
               "monitor", out=open(asked, "w"))
    beside = subprocess.Popen([os.readlink(f"/proc/{service}/exe"), f"--await-end={service}"], env=s.env, stdin=subprocess.PIPE)
    desk.press(s.text("IDS_EMAIL_SK_MARK_AS_READ"))
    desk.wait_shown(0)
    equal(sum(m["is_read"] for m in s.mails()), 1, "what was pressed")
    beside.stdin.close()  # as by a service that is killed, which the bus does not know yet
    s.wait(lambda: HOST in asked.read_text(), "the bus to be asked for the next one")
    kill_service(s)
    s.wait(lambda: owner(s, HOST) not in (None, service), "the next service once more")
    equal(beside.wait(), 0, "who asked for it")


@with_desk
def test_the_first_sync_is_no_news(s, desk, account):
    s.send(account, mail("Old", "x", ANN, date=time.time() - 3600), mail("Older", "x", ANN, date=time.time() - 7200))
    s.send(account, mail("Fresh", "x", BEN))
    desk.wait_told(("Ben", "Fresh\nx"))


if __name__ == "__main__":
    main(globals())

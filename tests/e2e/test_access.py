"""A screen reader's view: the real accessibility bus, its registry, what the application tells them, and what it does
when they ask."""
import os
import subprocess

from brisel_test import Bus, equal, mail, main, middle

LAUNCHER, REGISTRY = "/usr/libexec/at-spi-bus-launcher", "/usr/libexec/at-spi2-registryd"
ACCESSIBLE = "org.a11y.atspi.Accessible"
ACTION = "org.a11y.atspi.Action"
HEAR = os.environ.get("BRISEL_HEAR", "")
CHECKED = 1 << 4  # among the states of a widget


class Reader:
    """What a screen reader hears."""

    def __init__(self, s):
        self.s = s
        self.running = [subprocess.Popen([LAUNCHER, "--launch-immediately", "--a11y=1", "--screen-reader=1"], env=s.env,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)]
        self.bus = s.wait(self.address, "the accessibility bus")
        self.asking = Bus(self.bus)
        self.running.append(subprocess.Popen([REGISTRY], env={**s.env, "DBUS_SESSION_BUS_ADDRESS": self.bus},
                                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def address(self):
        done = self.s.run("gdbus", "call", "--session", "--dest", "org.a11y.Bus", "--object-path", "/org/a11y/bus", "--method",
                          "org.a11y.Bus.GetAddress", check=False)
        return done.stdout.split("'")[1] if done.returncode == 0 else None

    def call(self, where, method, *args):
        """The value that it answers; None when what is there has gone."""
        interface, _, member = method.rpartition(".")
        return (self.asking.call(*where, interface, (member, *args)) or [None])[0]

    def told(self, where=("org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root"), depth=12):
        """(role, name) of everything below; a row that is ticked says so behind its name. Keeps where each is, and what
        can be pressed without an action."""
        out = []
        if depth == 12:
            self.places, self.mute = {}, []
        for child in depth and self.call(where, ACCESSIBLE + ".GetChildren") or []:
            [name] = self.call(child, "org.freedesktop.DBus.Properties.Get", ACCESSIBLE, "Name") or [""]
            role = self.call(child, ACCESSIBLE + ".GetRoleName") or ""
            is_checked = role == "list item" and (self.call(child, ACCESSIBLE + ".GetState") or [0])[0] & CHECKED
            out.append((role, name + (" (checked)" if is_checked else "")))
            self.places[out[-1]] = child
            if out[-1][0] in DONE and not self.actions(child):
                self.mute.append(out[-1])
            out += self.told(child, depth - 1)
        return out

    def actions(self, where):
        """Name, description and key of each, one behind the other, as the toolkit writes them."""
        return self.call(where, ACTION + ".GetActions") or []

    def do(self, role, name, action="activate"):
        """Does the action of what is called so; nothing of it is touched, and no key is pressed."""
        where = self.s.wait(lambda: self.told() and self.places.get((role, name)), f"{role} {name}")
        number = self.actions(where)[::3].index(action)
        equal(self.call(where, ACTION + ".DoAction", number), 1, f"{action} of {name}")
        return where[1]

    def hear(self, *events):
        """What comes of these events from now on, as a function that returns the lines."""
        path = self.s.dir / "heard"
        self.running.append(subprocess.Popen([HEAR, self.bus, *events], stdout=open(path, "w"), stderr=subprocess.DEVNULL))
        self.s.wait(lambda: "ready" in path.read_text(), "the listener")
        return lambda: path.read_text().splitlines()

    def close(self):
        self.asking.close()
        for process in reversed(self.running):
            process.terminate()
            process.wait()


DONE = {"push button", "toggle button", "list item", "check box", "radio button", "entry"}
PRESSED = DONE | {"image", "unknown", "dialog", "page tab"}


def heard(reader, *expected):
    """What is told once all expected (role, name) are: nothing that can be pressed or is a screen without a name, nothing
    that can be pressed without an action, and one screen at a time."""
    told = reader.s.wait(lambda: (lambda all: all if set(expected) <= set(all) else None)(reader.told()), f"{expected}")
    equal([one for one in told if one[0] in PRESSED and not one[1]], [], "without a name")
    equal(reader.mute, [], "without an action")
    screens = [one for one in told if one[0] in ("page tab", "dialog")]
    equal(len(screens), 1, f"{screens}")
    return told


def rows(told):
    return [name for role, name in told if role == "list item"]


def test_every_screen_is_told_and_nothing_that_it_hides(s):
    reader = Reader(s)
    text = s.text
    try:
        s.serve(counts=True)
        s.launch()
        heard(reader, ("dialog", text("IDS_EMAIL_HEADER_SET_UP_EMAIL")), ("push button", text("IDS_EMAIL_SK_CANCEL_ABB")),
              ("push button", text("IDS_COM_SK_OK")))
        account = s.account("first@example.net")
        attached = mail("The lunch", "--b\nContent-Type: text/plain\n\nx\n--b\nContent-Disposition: attachment; filename=f.bin\n"
                        "Content-Type: application/pdf\n\nz\n--b--", "Ann <ann@example.org>", 1388833503)
        attached = attached.replace("text/plain; charset=utf-8", 'multipart/mixed; boundary="b"', 1)
        s.send(account, attached,
               *[mail("Old", "y", f"Sender {i} <s@example.org>", 1388830000 - i) for i in range(30)], args=("--received", "1388833503"))
        s.wait_text("Ann")
        told = heard(reader, ("page tab", text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3")), ("push button", text("IDS_EMAIL_BODY_DELETE")))
        equal(rows(told)[:2], ["first@example.net, (31)",
                               "Ann, The lunch, 04/01/2014 11:05, New, first@example.net"], "the rows")
        equal(len(rows(told)), 32, "rows, drawn or not")
        s.watch("keyboard", "Down", "Delete")
        heard(reader, ("list item", text("IDS_EMAIL_BODY_DELETED") + ", " + rows(told)[1]))
        s.watch("keyboard", "Return", "Home", "Up", "Return")
        told = heard(reader, ("page tab", text("IDS_EMAIL_BODY_DELETE")), ("push button", text("IDS_EMAIL_BODY_SELECT_ALL")))
        equal(len(rows(told)), 31, "rows to tick")
        s.watch("keyboard", "Return")
        told = heard(reader, ("list item", "Ann, 04/01/2014 11:05 (checked)"))
        equal(sum("checked" in name for name in rows(told)), 1, "ticked")
        s.watch("keyboard", "Escape")
        s.tap("Ann")
        s.wait_text("The lunch", part=False)
        told = heard(reader, ("page tab", "Ann"), ("filler", "Ann, The lunch, 04/01/2014 11:05, x, " + text("IDS_EMAIL_BODY_1_ATTACHMENT")), ("push button", text("IDS_EMAIL_SK_REPLY")))
        equal([name for _, name in told if "Sender" in name], [], "of the page beside")
        equal([name for _, name in told].count(text("IDS_EMAIL_BODY_MORE_ACTIONS")), 1, "more")
        s.watch("keyboard", "Delete")
        heard(reader, ("dialog", text("IDS_EMAIL_BODY_DELETE")), ("push button", text("IDS_COM_SK_OK")))
        s.watch("keyboard", "Escape", "Menu")
        heard(reader, ("list item", "Reply, Templates"))
        s.tap("Reply")
        told = heard(reader, ("page tab", text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")))
        equal(len(rows(told)), 12, "templates")
        assert text("IDS_MSG_BODY_NO_TEXT_TEMPLATES") not in [name for _, name in told], "what is hidden is told"
        s.watch("key", "back")
        _, y = middle(s.wait_text(text("IDS_MSGF_OPT2_TEMPLATES")))
        s.rest()
        s.watch("tap", 284, y)
        told = heard(reader, ("dialog", text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")))
        equal(rows(told), [text("IDS_MSGF_OPT2_TEMPLATES") + " (checked)", text("IDS_EMAIL_MBODY_EMOTICONS_ABB")], "the choice")
        s.tap(text("IDS_EMAIL_MBODY_EMOTICONS_ABB"))
        s.wait(lambda: not s.dump()["popups"], "the popup to go")
        s.tap("Reply")
        heard(reader, ("entry", text("IDS_EMAIL_BODY_TO_PS").replace("%s", "Ann")), ("push button", text("IDS_COM_SK_SEND")))
    finally:
        reader.close()


def test_a_reader_that_comes_later_and_another_language_are_told_all(s):
    s.serve(counts=True)
    s.send(s.account("me@example.net"), *[mail("Old", "y", f"Sender {i} <s@example.org>", 1388830000 - i)
                                         for i in range(30)])
    s.launch()
    s.wait_text("Sender 0")
    reader = Reader(s)
    try:
        told = heard(reader, ("page tab", s.text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3")))
        equal([len(rows(told)), sum(s.text("IDS_EMAIL_BODY_NEW") in name for name in rows(told))], [31, 30], "rows")
        s.language = "de"
        s.setting("db/menu_widget/language", "string", "de_DE.UTF-8")
        told = heard(reader, ("page tab", s.text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3")),
                     ("push button", s.text("IDS_EMAIL_BODY_DELETE")), ("image", s.text("IDS_EMAIL_BODY_THE_PHONE_IS_LINKED")))
        equal(sum(s.text("IDS_EMAIL_BODY_NEW") in name for name in rows(told)), 30, "rows in the other language")
        for one in (("push button", s.text("IDS_EMAIL_BODY_DELETE")), ("list item", rows(told)[0])):
            equal(reader.call(reader.places[one], ACTION + ".GetLocalizedName", 0), s.text("activate"), one)
        s.scroll()
        s.send(1, mail("Newer", "y", "New <n@b.c>", 1388930000))
        reader.do("push button", s.counted("IDS_EMAIL_BODY_PD_NEW", 1).replace("%d", "1"))
        s.wait_text("Newer")
        s.tap("Sender 0")
        s.wait_text("Old", part=False)
        s.watch("keyboard", "Menu")
        s.tap(s.text("IDS_EMAIL_SK_REPLY"))
        heard(reader, ("list item", s.text("IDS_MSG_TEMPLATE_12", "message")))
        s.language = "en"
        s.setting("db/menu_widget/language", "string", "en_US.UTF-8")
        heard(reader, ("list item", s.text("IDS_MSG_TEMPLATE_12", "message")))
    finally:
        reader.close()


def test_what_is_out_of_sight_says_what_is_true_now(s):
    s.serve(counts=True)
    s.account("other@example.net")
    s.send(s.account("me@example.net"), *[mail("Old", "y", f"Sender {i} <s@example.org>", 1388830000 - i) for i in range(30)])
    s.launch()
    s.wait_text("Sender 0")
    s.watch("keyboard", "Home", "Up", "Return")
    s.tap("Sender 1")
    reader = Reader(s)
    try:
        heard(reader, ("list item", "Sender 1, 04/01/2014 10:06 (checked)"), ("list item", "Sender 29, 04/01/2014 10:06"))
        s.setting("db/menu_widget/regionformat_time1224", "int", 1)
        heard(reader, ("list item", "Sender 29, 04/01/2014 10:06\u202fAM"))
        s.watch("keyboard", "Delete")
        heard(reader, ("dialog", s.text("IDS_EMAIL_BODY_DELETE")))
        s.language = "de"
        s.setting("db/menu_widget/language", "string", "de_DE.UTF-8")
        heard(reader, ("dialog", s.text("IDS_EMAIL_BODY_DELETE")))
        s.watch("keyboard", "Escape", "Escape")
        s.press("(30)", 0.8)
        heard(reader, ("dialog", s.text("IDS_EMAIL_HEADER_ACCOUNTS")), ("list item", "me, me@example.net"))
        s.language = "fr"
        s.setting("db/menu_widget/language", "string", "fr_FR.UTF-8")
        heard(reader, ("list item", s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB") + " (checked)"))
        for _ in range(2):  # the popup; the application, and all mails have been seen
            s.watch("key", "back")
        s.launch()
        heard(reader, ("list item", "Sender 29, Old, 04/01/2014 10:06\u202fAM, me@example.net"))
    finally:
        reader.close()


def test_a_reply_is_written_and_mails_are_handled_by_actions_alone(s):
    text = s.text
    serve = s.serve(counts=True)
    s.send(s.account("me@example.net"), *[mail("Old", "y" * 99, f"Sender {i} <s@example.org>", 1388830000 - i) for i in range(3)],
           args=("--first", "9"))
    s.setting("file/private/msg-consumer-server/reply_value", "int", 3)
    reader = Reader(s)
    try:
        news = reader.hear("object:state-changed:showing", "object:property-change:accessible-name")
        s.launch()
        name = "Sender {}, Old, 04/01/2014 10:06, New, me@example.net".format
        heard(reader, ("list item", name(0)), ("image", text("IDS_EMAIL_BODY_THE_PHONE_IS_LINKED")))
        # A row says what it does and by which keys; it is drawn aside, comes back, goes.
        equal(reader.actions(reader.places["list item", name(0)])[2:6], ["Return", "delete", "Delete", "Delete"], "keys")
        before = len(news())
        where = reader.do("list item", name(2), "delete")
        swept = text("IDS_EMAIL_BODY_DELETED") + ", " + name(2)
        s.wait(lambda: f"PropertyChange accessible-name 0 {where}" in news()[before:], "the row's new name")
        reader.do("list item", swept, "cancel")
        reader.do("list item", name(2), "delete")
        reader.do("list item", swept, "delete")
        s.wait(lambda: len(s.requests("delete_notis")) == 1, "the request")
        # The reader: a mail is opened and turned, and the rest of its text asked for.
        reader.do("list item", name(1), "open")
        told = heard(reader, ("page tab", "Sender 1"), ("push button", text("IDS_EMAIL_BODY_PREVIOUS_EMAIL")))
        assert ("push button", text("IDS_EMAIL_BODY_NEXT_EMAIL")) not in told, "after the last one"
        reader.do("push button", text("IDS_EMAIL_BODY_MORE_TEXT"))
        heard(reader, ("filler", "Sender 1, Old, 04/01/2014 10:06, " + "y" * 99))
        reader.do("push button", text("IDS_EMAIL_BODY_PREVIOUS_EMAIL"))
        heard(reader, ("page tab", "Sender 0"), ("push button", text("IDS_EMAIL_BODY_NEXT_EMAIL")))
        s.watch("key", "back")
        # The keypad.
        s.wait_text("Sender 1")
        reader.do("list item", name(1).replace(text("IDS_EMAIL_BODY_NEW") + ", ", ""), "options")
        reader.do("list item", "Reply, " + text("IDS_EMAIL_MBODY_EMOTICONS_ABB"))
        told = heard(reader, ("panel", text("IDS_EMAIL_BODY_KEYPAD")), ("toggle button", text("IDS_EMAIL_BODY_KEY_SHIFT")))
        equal(len([1 for role, _ in told if role in ("push button", "toggle button")]), 24, "keys, and to send")
        reader.do("push button", "E")  # the first is a capital, the next ones are not
        for key in ("KEY_SPACE", "KEY_BACKSPACE", "KEY_SHIFT", "KEY_SHIFT"):
            reader.do("toggle button" if key == "KEY_SHIFT" else "push button", text("IDS_EMAIL_BODY_" + key))
        reader.do("push button", "R")
        heard(reader, ("toggle button", text("IDS_EMAIL_BODY_KEY_CAPS_LOCK")))
        reader.do("push button", text("IDS_EMAIL_BODY_KEY_NUMBERS"))
        reader.do("push button", "1")
        reader.do("push button", text("IDS_COM_SK_SEND"))
        s.wait(lambda: [r["text"] for r in s.requests("reply")] == ["ER1"], "the reply")
        # The link's end is told as news, without the focus.
        s.wait(lambda: len(s.dump()["views"]) == 2, "what can be done")
        s.stop_serve(serve)
        heard(reader, ("notification", text("IDS_EMAIL_BODY_THE_PHONE_IS_NOT_LINKED")))
        where = reader.places["notification", text("IDS_EMAIL_BODY_THE_PHONE_IS_NOT_LINKED")][1]
        assert f"StateChanged showing 1 {where}" in news(), "the news"
        reader.do("list item", text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"))
        s.wait(lambda: ("dialog", "No phone") in reader.told(), "the dialog of another program")
    finally:
        reader.close()


def test_a_reader_that_comes_to_an_open_mail_is_told_it(s):
    """No language has been chosen, so none changes."""
    s.serve(counts=True)
    s.send(s.account("me@example.net"), mail("Old", "y", "Ann <ann@example.org>", 1388830000))
    s.launch()
    s.tap("Ann")
    s.wait_text("Old", part=False)
    reader = Reader(s)
    try:
        heard(reader, ("page tab", "Ann"), ("filler", "Ann, Old, 04/01/2014 10:06, y"))
    finally:
        reader.close()


def test_a_reader_that_comes_to_a_popup_is_told_nothing_below(s):
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_HEADER_NO_PHONE_YET"))
    s.serve()
    s.wait(lambda: s.dump()["popups"], "the popup that waits")
    reader = Reader(s)
    try:
        told = heard(reader, ("dialog", s.text("IDS_EMAIL_POP_CONNECTING_ING")))
        equal([name for role, name in told if role == "filler" and name], [], "below")
    finally:
        reader.close()


if __name__ == "__main__":
    main(globals())

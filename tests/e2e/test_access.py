"""A screen reader's view: the real accessibility bus, its registry, and what the application tells them."""
import re
import subprocess

from brisel_test import equal, mail, main, middle

LAUNCHER, REGISTRY = "/usr/libexec/at-spi-bus-launcher", "/usr/libexec/at-spi2-registryd"
ACCESSIBLE = "org.a11y.atspi.Accessible"
CHECKED = 1 << 4  # among the states of a widget


class Reader:
    """What a screen reader hears."""

    def __init__(self, s):
        self.s = s
        self.running = [subprocess.Popen([LAUNCHER, "--launch-immediately", "--a11y=1", "--screen-reader=1"], env=s.env,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)]
        self.bus = s.wait(self.address, "the accessibility bus")
        self.running.append(subprocess.Popen([REGISTRY], env={**s.env, "DBUS_SESSION_BUS_ADDRESS": self.bus},
                                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def address(self):
        done = self.s.run("gdbus", "call", "--session", "--dest", "org.a11y.Bus", "--object-path", "/org/a11y/bus", "--method",
                          "org.a11y.Bus.GetAddress", check=False)
        return done.stdout.split("'")[1] if done.returncode == 0 else None

    def call(self, where, method, *args):
        return self.s.run("gdbus", "call", "--address", self.bus, "--dest", where[0], "--object-path", where[1], "--method",
                          method, *args, check=False).stdout.strip()

    def children(self, where):
        return re.findall(r"\('([^']+)', (?:objectpath )?'([^']+)'\)", self.call(where, ACCESSIBLE + ".GetChildren"))

    def told(self, where=("org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root"), depth=12):
        """(role, name) of everything below; a row that is ticked says so behind its name."""
        out = []
        for child in self.children(where) if depth else []:
            name = self.call(child, "org.freedesktop.DBus.Properties.Get", ACCESSIBLE, "Name")
            role = self.call(child, ACCESSIBLE + ".GetRoleName")
            state = self.call(child, ACCESSIBLE + ".GetState") if role == "('list item',)" else ""
            is_checked = state and int(re.search(r"\[(?:uint32 )?(\d+)", state)[1]) & CHECKED
            out.append((role[2:-3], name[3:-4] + (" (checked)" if is_checked else "")))
            out += self.told(child, depth - 1)
        return out

    def close(self):
        for process in reversed(self.running):
            process.terminate()
            process.wait()


PRESSED = {"push button", "list item", "check box", "radio button", "entry", "image", "unknown", "dialog", "page tab"}


def heard(reader, *expected):
    """What is told once all expected (role, name) are: nothing that can be pressed or is a screen without a name, and one
    screen at a time."""
    told = reader.s.wait(lambda: (lambda all: all if set(expected) <= set(all) else None)(reader.told()), f"{expected}")
    equal([one for one in told if one[0] in PRESSED and not one[1]], [], "without a name")
    screens = [one for one in told if one[0] in ("page tab", "dialog")]
    equal(len(screens), 1, f"{screens}")
    return told


def rows(told):
    return [name for role, name in told if role == "list item"]


def test_every_screen_is_told_and_nothing_that_it_hides(s):
    reader = Reader(s)
    text = s.text
    try:
        s.serve()
        s.phone("account", "count", "known")
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
        equal(rows(told)[1], "Ann, The lunch, 04/01/2014 11:05, New, first@example.net", "the row")
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
    s.serve()
    s.phone("account", "count", "known")
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
        told = heard(reader, ("page tab", s.text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3")))
        equal(sum(s.text("IDS_EMAIL_BODY_NEW") in name for name in rows(told)), 30, "rows in the other language")
        assert ("push button", s.text("IDS_EMAIL_BODY_DELETE")) in told, told
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


if __name__ == "__main__":
    main(globals())

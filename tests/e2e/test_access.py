"""A screen reader's view: the real accessibility bus, its registry, and what the application tells them."""
import re
import subprocess

from brisel_test import equal, mail, main, middle

LAUNCHER, REGISTRY = "/usr/libexec/at-spi-bus-launcher", "/usr/libexec/at-spi2-registryd"
ACCESSIBLE = "org.a11y.atspi.Accessible"


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
        """(role, name) of everything below."""
        out = []
        for child in self.children(where) if depth else []:
            name = self.call(child, "org.freedesktop.DBus.Properties.Get", ACCESSIBLE, "Name")
            role = self.call(child, ACCESSIBLE + ".GetRoleName")
            out.append((role[2:-3], name[3:-4]))
            out += self.told(child, depth - 1)
        return out

    def close(self):
        for process in reversed(self.running):
            process.terminate()
            process.wait()


def unnamed(told, kind="push button"):
    return [one for one in told if one[0] == kind and not one[1]]


def test_rows_and_buttons_say_what_they_are(s):
    reader = Reader(s)
    try:
        s.serve()
        s.phone("account", "count", "known")
        s.launch()
        s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
        told = s.wait(reader.told, "the registry to know the application")
        assert [name for role, name in told if role == "dialog"], "a popup is a dialog"
        names = " ".join(name for _, name in told)
        for id in ("IDS_EMAIL_HEADER_SET_UP_EMAIL", "IDS_EMAIL_SK_CANCEL_ABB", "IDS_COM_SK_OK"):
            assert s.text(id) in names, names
        account = s.account("first@example.net")
        s.send(account, mail("The lunch", "x", "Ann <ann@example.org>", 1388833503), args=("--received", "1388833503"))
        s.wait_text("Ann")
        told = s.wait(reader.told, "the registry to know the application")
        rows = [name for role, name in told if role == "list item" and name.startswith("Ann")]
        equal(rows, ["Ann, The lunch, 04/01/2014 11:05, New, first@example.net"], "the row")
        assert ("push button", s.text("IDS_EMAIL_BODY_DELETE")) in told, told
        s.tap("Ann")
        s.wait_text("The lunch", part=False)
        told = s.wait(reader.told, "the reader")
        assert "Ann, The lunch, x" in [name for _, name in told], "the mail is not read out"
        equal([name for role, name in told if role == "list item"], [], "rows below the reader")
        s.watch("key", "back")
        s.wait(lambda: len(s.titles()) == 1, "the list")
        s.press("Ann")
        s.wait_text(s.text("IDS_EMAIL_SK_REPLY"))
        told = s.wait(reader.told, "the registry to know the application")
        equal(unnamed(told), [], "without a name")
        equal([name for role, name in told if role == "list item"][0], "Reply, Templates", "the row")
        s.tap("Reply")
        s.wait_text(s.text("IDS_MSG_TEMPLATE_1", "message"))
        told = s.wait(reader.told, "the templates")
        equal(unnamed(told, "list item"), [], "templates without a name")
        assert s.text("IDS_MSG_BODY_NO_TEXT_TEMPLATES") not in [name for _, name in told], "what is hidden is told"
        s.watch("key", "back")
        s.wait(lambda: len(s.titles()) == 2, "the actions")
        _, y = middle(s.wait_text(s.text("IDS_MSGF_OPT2_TEMPLATES")))
        s.watch("tap", 284, y)
        s.wait_text(s.text("IDS_EMAIL_MBODY_EMOTICONS_ABB"))
        told = s.wait(reader.told, "the choice")
        equal([name for role, name in told if role == "dialog"], [s.text("IDS_EMAIL_HEADER_SELECT_REPLY_ABB")], "the popup")
        equal([name for role, name in told if role == "radio button"],
              [s.text("IDS_MSGF_OPT2_TEMPLATES"), s.text("IDS_EMAIL_MBODY_EMOTICONS_ABB")], "the choice")
    finally:
        reader.close()


if __name__ == "__main__":
    main(globals())

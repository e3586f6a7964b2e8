"""Every hand: the keyboard alone, and a mouse."""
import os
import re
import subprocess

from brisel_test import Session, equal, mail, main, middle, options, start_display
from brisel_png import read_png
from layout import problems
from phone_test import journal, read_on_watch, reply_on_watch
from test_launch import link_popup_up

ACCENT = bytes([108, 180, 255])  # of the dark palette


def mailbox(s, count):
    account = s.account("me@example.net")
    s.serve(counts=True)
    ids = s.send(account, *[mail(f"Subject {i}", "Text.", f"Sender {i} <s{i}@example.org>", 1388833503 - 60 * i) for i in range(count)])
    s.launch()
    s.wait_text("Sender 0")
    return ids


def keys(s, *names):
    s.watch("keyboard", *names)
    s.rest()


def asked(s, kind, count=1):
    return s.wait(lambda: len(s.requests(kind)) == count and s.requests(kind), f"{count} x {kind}")[-1]


def test_the_keyboard_alone_does_everything(s):
    ids = mailbox(s, 12)
    keys(s, "Down", "Delete")
    s.wait_text(s.text("IDS_EMAIL_BODY_DELETED"))
    keys(s, "Return", "Home", "Right")
    s.wait_text(s.text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED"))  # what a long press on the header says
    keys(s, *["Down"] * 9)
    assert s.shows("Sender 8"), s.texts()
    keys(s, "Delete", "Delete")
    equal(asked(s, "delete_notis")["id_list"], [ids[8]], "deleted from the list, the second time")
    keys(s, "Return")
    s.wait_text("Subject 9")  # the ring went on to the neighbour
    keys(s, "Delete")
    keys(s, "Right", "Return")
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    equal(asked(s, "delete_notis", 2)["id_list"], [ids[9]], "deleted from the reader")
    keys(s, "Home", "Up", "Return")
    equal(s.titles()[-1], s.text("IDS_EMAIL_BODY_DELETE"), "the bin by key")
    keys(s, "Return", "Next", "Return", "Delete")
    keys(s, "Right", "Return")
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    equal(len(asked(s, "delete_notis", 3)["id_list"]), 2, "two ticked and deleted")
    for text, rest in (("IDS_MSG_TEMPLATE_1", ["Return", "Right", "Return"]), ("", [])):
        keys(s, "Home", "Down", "Return")
        usual = s.wait_text("Text.")["font_size"]
        keys(s, "plus")
        assert s.find("Text.")["font_size"] > usual, "letters of the same size"
        keys(s, "minus", "Tab", "Return")  # the reader's own button
        if text:
            s.wait_text(s.text(text, "message"))
            keys(s, *rest[:1], "Menu")
            assert not s.shows(s.text(text, "message")), "the whole name takes the text's place"
            keys(s, "Menu", *rest[1:])
            equal(asked(s, "reply")["text"], s.text(text, "message"), "the reply")
            keys(s, "Menu")
            keys(s, "Right", "Return")
            keys(s, "Down", "Down", "Return")  # typed replies from now on
        else:
            s.wait_text("Q")
            s.watch("type", "Yes")
            keys(s, "Menu")
            assert not s.shows("Yes"), "the whole name lies over the text"
            keys(s, "Menu", "Down")
            assert ring_rows(s, range(12))[0] > 110, "a ring around the text and around a key"
            keys(s, "Down", "Down", "Down", "Right", "Return", "Right", "Return", "Tab", "Return")
            equal(asked(s, "reply", 2)["text"], "Yes😂", "the typed reply")
        s.wait(lambda: len(s.titles()) < 4, "the reply view to go")
        keys(s, "Escape")
        keys(s, "Escape")
        s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    s.language = "ar"  # where a row's button stands at its left end
    s.setting("db/menu_widget/language", "string", "ar_EG.UTF-8")
    s.wait_text(s.text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3"))
    keys(s, "Home", "Down", "Left")
    s.wait_text(s.text("IDS_EMAIL_SK_REPLY"))
    keys(s, "Left", "Return")
    s.wait_text(s.text("IDS_EMAIL_MBODY_EMOTICONS_ABB"))


def ring_rows(s, columns=range(300, 320)):
    """The rows of pixels that the ring reaches over, for nothing else stands so far out at the right."""
    s.rest()
    s.screenshot(s.dir / "ring.png")
    _, _, rows = read_png(s.dir / "ring.png")
    return [y for y, row in enumerate(rows) if any(bytes(c[x] for c in row) == ACCENT for x in columns)]


def ring_height(s):
    """Of what is ringed; 0: no ring."""
    return len(ring_rows(s))


def ringed(s):
    """The first line of what is ringed."""
    rows = ring_rows(s)
    return min((t["y"], t["text"]) for t in s.seen() if rows[0] <= t["y"] < rows[-1])[1]


def test_the_ring_is_around_what_has_the_focus(s):
    ids = mailbox(s, 7)
    s.account("second@example.net")
    s.press("me@example.net")
    keys(s, "Home", "Return")  # the popup's, though the finger was lifted on the list
    s.wait_text(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    keys(s, "Home", "Right")
    s.wait_text("second@example.net")
    assert 60 < s.wait(lambda: ring_height(s), "a ring") < 90, "not around the first row of a popup"
    keys(s, "Escape", "Down", "Return")
    s.wait_text("Text.")
    keys(s, "Delete")
    s.wait_text(s.text("IDS_COM_SK_OK"))
    keys(s, "Right")
    assert 40 < ring_height(s) < 90, "not around the popup's button"
    keys(s, "Escape")
    s.wait_gone(s.text("IDS_COM_SK_OK"))
    equal(ring_height(s), 0, "what is left of the popup's ring")
    keys(s, "Escape")
    keys(s, "Menu")
    s.stop_serve(s.running[0][0])
    for number in range(1, 6):
        read_on_watch(s, ids[number])
    keys(s, "Down", "Down", "Down", "Down")
    before = ringed(s)
    read_on_watch(s, ids[6])
    s.wait(lambda: len(journal(s)) == 7, "one more above them")
    equal(ringed(s), before, "in a list that changed")
    keys(s, "Escape", "Down")
    assert ring_height(s), "none in the mailbox"
    s.watch("drag", 160, 240, 160, 220, 0.3)
    equal(ring_height(s), 0, "a finger needs none")
    keys(s, "Down")
    assert ring_height(s), "none for the next key"
    s.phone("mail", "delete", *ids)
    s.wait_text(s.text("IDS_EMAIL_BODY_NO_EMAILS"))
    equal(ring_height(s), 0, "around rows that have gone")


@options(size="320x480", env={"ELM_SCALE": "1.5"})  # where rows with such dates are of the higher kind
def test_a_mouse_presses_long_goes_back_and_turns_its_wheel(s):
    mailbox(s, 12)
    s.watch("mouse", *middle(s.wait_text("Sender 1")), "--button", 3)
    s.wait_text(s.text("IDS_EMAIL_SK_REPLY"))
    s.watch("mouse", 160, 160, "--button", 8)
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    before = middle(s.wait_text("Sender 1"))[1]
    s.watch("mouse", 160, 160, "--wheel", 1)
    equal(before - middle(s.wait_text("Sender 1"))[1], 156, "a notch is a row")
    long = "Wolfeschlegelsteinhausenbergerdorff-Montgomery, Maximiliane Alexandrina von und zu der Hohen Heide"
    address = "m.a.wolfeschlegelsteinhausenbergerdorff-montgomery@department.university.example.org"
    s.account(address, "--name", long)
    keys(s, "Home", "Right", "End")
    s.wait_text(long)
    equal(problems(s.dump(), set(), 1.5), [], "names of any length")
    s.tap(long)
    s.wait_gone(long)
    assert s.shows(address), s.texts()  # on the header
    s.stop_serve(s.running[0][0])
    reply_on_watch(s, s.mails()[0], "Yes, but not before the late evening, and do bring a coat.")
    keys(s, "Menu")
    keys(s, "Down", "Return")
    change = s.text("IDS_EMAIL_SK_CHANGE")
    assert not s.shows(change), "room for all of it"
    keys(s, "Up")
    s.wait_text(change)  # which keys brought into sight
    keys(s, "Up")
    assert s.shows("Yes") and not s.shows(change), "back at the beginning"
    keys(s, "Down")
    keys(s, "Up", "Return")
    s.wait(lambda: len(s.titles()) == 3, "the typed view")


@options()
def test_real_keys_and_buttons_on_a_display_without_a_window_manager():
    server, display = start_display(os.environ)
    s = Session(window=True, env={"DISPLAY": display})

    def do(*command):
        s.run("xdotool", *command)
        s.rest()
    try:
        s.env["DISPLAY"] = display
        s.launch()
        s.wait_text(s.text("IDS_EMAIL_HEADER_NO_PHONE_YET"))
        s.wait(lambda: link_popup_up(s), "who waits for the phone")
        s.rest()
        window, = s.run("xdotool", "search", "--onlyvisible", "--class", "brisel").stdout.split()  # one in the first minute
        icon = s.wait(lambda: re.search(r"Icon \((\d+) x \1\)", s.run("xprop", "-id", window, "_NET_WM_ICON").stdout), "its icon")
        equal(icon[1], "64", "the icon's side")
        mailbox(s, 12)
        do("mousemove", 500, 400, "key", "Down", "key", "Down", "mousemove", 160, 160)
        assert 60 < s.wait(lambda: ring_height(s), "a ring") < 90, "not around a row"
        do("click", 7, "click", 5)
        equal(middle(s.wait_text("Sender 1"))[1], middle(s.wait_text("Sender 2"))[1] - 78, "rows")
        assert not s.shows("Sender 5"), "a sideways notch scrolls"
        for hand, seen in ((["click", 3], "IDS_EMAIL_SK_REPLY"), (["mousedown", 1, "sleep", 0.7, "mouseup", 1], "IDS_EMAIL_SK_REPLY")):
            do(*hand)
            s.wait_text(s.text(seen))
            do("click", 8)
            s.wait(lambda: len(s.titles()) == 1, "the mailbox")
        do("key", "Escape")
        s.wait(lambda: "app_pause(" in s.log(), "the window to be lowered, which nothing covers")
        do("mousedown", 1, "sleep", 0.3, "mouseup", 1)
        s.wait_text("Text.")
        assert "app_resume(" in s.log(), "whoever touches it sees it"
    finally:
        s.close()
        server.terminate()
        server.wait()


@options(size="360x360", env={"BRISEL_SHAPE": "round"})
def test_a_round_display_scrolls_from_all_around(s):
    account = s.account("a@example.net")
    for name in "bcd":
        s.account(f"{name}@example.net")
    s.serve()
    s.send(account, *[mail(f"Subject {i}", "\n\n".join(f"Line {n}" for n in range(9)), f"Sender {i} <s@example.org>", 1388833503 - 60 * i)
                      for i in range(9)])
    s.launch()
    below, above, title = (180, 340, -60), (180, 15, 25), (150, 80, 25)
    left, right = (15, 200, -60), (345, 160, 25)

    def places():
        return {t["text"]: t["whole"]["y"] for t in s.seen() if re.match("Sender|Line|.@", t["text"])}

    def moved_by(x, y, way):
        before = places()
        s.watch("drag", str(x), str(y), str(x), str(y + way), "0.4")
        s.rest()
        return sum(to - before[text] for text, to in places().items() if text in before)

    def follows(text, *strokes):
        s.wait_text(text)
        s.rest()
        for stroke in strokes:
            moved = moved_by(*stroke)
            assert moved * stroke[2] > 0, f"{text}: {moved} pixels by {stroke}"
    follows("Sender 1", below, title, above, left, right)
    y = middle(s.find("Sender 1"))[1]
    s.watch("drag", "100", str(y), "220", str(y), "0.2")
    s.wait_text(s.text("IDS_EMAIL_BODY_DELETED"))
    s.watch("tap", "345", str(y))
    s.rest()
    assert s.shows(s.text("IDS_EMAIL_BODY_DELETED")), "a finger beside the button that undoes it deletes"
    s.watch("tap", "285", str(y))
    s.wait_gone(s.text("IDS_EMAIL_BODY_DELETED"))
    s.watch("press", "120", "140", "0.8")
    follows("b@example.net", below, above, left, right)
    keys(s, "Escape")
    s.watch("tap", "287", "88")
    follows("Sender 1", (180, 355, -60), title, above, left, right)
    equal(moved_by(180, 305, -60), 0, "what a touch that is a button's scrolls")
    keys(s, "Escape")
    s.tap("Sender 0")
    follows("Line 1", below, title, above)
    s.watch("drag", "345", "200", "245", "200", "0.2")
    s.wait_text("Sender 1")


if __name__ == "__main__":
    main(globals())

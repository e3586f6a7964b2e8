"""A reply written with touches alone, up to the JSON line that reaches the phone."""
import html
import re

from brisel_test import equal, mail, main, middle


def typed_reply(s):
    account = s.account("me@example.net")
    s.phone("account", "count", "known")
    s.serve()
    s.send(account, mail("Subject", "Text.", "Sender <sender@example.org>"))
    s.setting("file/private/msg-consumer-server/reply_value", "int", 3)
    s.launch()
    s.press("Sender")
    s.tap(s.text("IDS_EMAIL_SK_REPLY"))
    s.wait(lambda: len(s.dump()["views"]) == 3, "the reply view")
    s.wait_text("123", part=False)  # the keypad comes by itself, with a capital first


def page_key(s):
    return next(t for t in s.seen() if re.fullmatch("[1-4]/[1-4]", t["text"]))


def keys(s, *labels):
    for label in labels:
        for _ in range(4):
            if s.find(label):
                break
            s.watch("tap", *middle(page_key(s)))
        s.tap(label)


def corner(s, row):
    """A key of the last column, which shows a picture, by its place above the one that turns the pages."""
    x, y = middle(page_key(s))
    below = middle(s.find("123"))[1]
    s.watch("tap", x, y - (below - y) * (2 - row))


def send(s):
    width, height = s.size()
    s.watch("tap", width - 40, height // 6)  # beside the text while the keypad is shown


def reply_text(s):
    return html.unescape(s.wait(lambda: s.requests("reply"), "the reply")[0]["text"])


def test_a_reply_written_by_touch_alone(s):
    typed_reply(s)
    keys(s, "H", "i", "English", ":-)", "😀", "<3", "ABC", "o", "x")
    corner(s, 0)  # backspace
    keys(s, "k")
    s.wait_text("Hi 😀<3ok")
    for more, left in (("o" * 26, "1"), ("k", "0")):
        s.watch("type", more)
        assert not s.wait_text(left, part=False)["cut"], left
    send(s)
    equal(reply_text(s), "Hi 😀<3ok" + "o" * 26 + "k", "text at the phone")


if __name__ == "__main__":
    main(globals())

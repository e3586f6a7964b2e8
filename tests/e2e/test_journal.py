"""What waits and what was sent, on the screen: refused by a real mail system, changed, dropped, live."""
import os
import pathlib
import signal
import sqlite3

from brisel_test import equal, kill_service, mail, main, middle
from phone_test import Maildir, Relay, Sendmail, by_uid, delete_on_watch, host_pid, journal, message, read_on_watch, reply_on_watch
from test_launch import link_popup_up
from test_notify import HOST, Desk

SENT, REFUSED = 2, 3


def arrange(s):
    box, mta = Maildir(s.dir / "box"), Sendmail(s.dir / "mta")
    box.deliver(message("ask@x", "Lunch", sender="Ann <ann@example.org>"))
    box.deliver(message("gone@x", "Old news", sender="Bob <bob@example.org>"))
    relay = Relay(s, "--maildir", f"Me <me@example.org>={box.path}", "--sendmail", mta.command, "--retry-first", "1")
    s.wait(lambda: len(by_uid(s)) == 2, "the mails")
    return mta, relay, by_uid(s)["ask@x"], by_uid(s)["gone@x"]["mail_id"]


def open_screen(s):
    s.watch("key", "more")
    s.wait(lambda: s.titles()[-1] == s.text("IDS_EMAIL_HEADER_WAITING_AND_SENT"), "the screen")


def shows_state(s, id):
    return s.wait_text(s.text(id))


def press(s, text, part=False):
    """Taps the text once it is there and nothing moves any more."""
    s.wait_text(text, part)
    s.rest()
    s.tap(text, part)


def test_a_refused_reply_is_told_changed_and_sent(s):
    mta, relay, letter, gone = arrange(s)
    s.launch()
    s.wait_text("Lunch")
    mta.refuse.write_text("67")
    reply_on_watch(s, letter, "Soon")
    s.wait_text(s.text("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED"))
    s.wait_gone(s.text("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED"))
    read_on_watch(s, letter["mail_id"])
    s.wait(lambda: len(journal(s)) == 2, "the mark")
    open_screen(s)
    shows_state(s, "IDS_EMAIL_BODY_REFUSED")
    assert not s.find(s.text("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED"), True), "told once"
    press(s, s.text("IDS_EMAIL_BODY_REFUSED"), part=True)
    s.wait_text("no route to anywhere")
    s.wait_text("Soon")
    s.setting("db/menu_widget/regionformat", "string", "ar_EG.UTF-8")
    s.wait(lambda: set("٠١٢٣٤٥٦٧٨٩") & set(s.wait_text("no route to anywhere")["text"]), "the time in other digits")
    s.tap(s.text("IDS_EMAIL_SK_CHANGE"))
    s.wait(lambda: len(s.dump()["views"]) == 3, "the typed view")
    s.wait_text("Soon")
    equal(journal(s)[0], (REFUSED, "no route to anywhere", "Soon"), "nothing is lost while it is changed")
    s.rest()
    s.watch("type", "er")
    s.wait_text("Sooner")
    mta.refuse.unlink()
    s.watch("keypad", "hide")
    width, height = s.size()
    s.watch("tap", width // 2, height - 40)  # the send button
    shows_state(s, "IDS_EMAIL_BODY_SENT")
    equal(journal(s)[-1], (SENT, "", "Sooner"), "changed and sent")

    # Live: what the phone is not there for waits, and is dropped.
    relay.kill()
    s.wait(lambda: not s.linked(), "the link to go")
    reply_on_watch(s, letter, "Later")
    press(s, s.text("IDS_EMAIL_BODY_WAITS_FOR_THE_PHONE"))
    s.wait_text("Later")
    press(s, s.text("IDS_EMAIL_SK_DROP"))
    delete_on_watch(s, gone)
    s.wait_text("Bob")
    equal([r[2] for r in journal(s)], ["", "Sooner", ""], "the reply dropped, the deletion kept")
    relay.start()
    shows_state(s, "IDS_EMAIL_BODY_WITH_THE_PHONE")
    equal(len(mta.sent()), 1, "nothing of what was dropped went out")
    relay.kill()
    s.wait(lambda: not s.linked(), "the link to go once more")
    reply_on_watch(s, letter, "At last")
    press(s, s.text("IDS_EMAIL_BODY_WAITS_FOR_THE_PHONE"))
    s.wait_text(s.text("IDS_EMAIL_SK_DROP"))
    s.tap(s.text("IDS_EMAIL_SK_CHANGE"))
    s.wait(lambda: len(s.dump()["views"]) == 3, "the typed view once more")
    s.rest()
    s.watch("keypad", "hide")
    s.watch("tap", width // 2, height - 40)
    s.wait(lambda: len(s.dump()["views"]) == 2, "what waits anyway to be sent without a link")
    press(s, s.text("IDS_EMAIL_BODY_WAITS_FOR_THE_PHONE"))
    s.wait_text(s.text("IDS_EMAIL_SK_DROP"))
    relay.start()
    s.wait_gone(s.text("IDS_EMAIL_SK_DROP"))  # it went out meanwhile


def test_a_refused_reply_is_told_on_the_desktop(s):
    desk = Desk(s)
    try:
        mta, relay, letter, gone = arrange(s)
        mta.refuse.write_text("67")
        reply_on_watch(s, letter, "Yes & no")
        refused = (s.text("IDS_EMAIL_TPOP_A_REPLY_WAS_REFUSED"),
                   s.text("IDS_EMAIL_BODY_TO_PS").replace("%s", "Ann") + "\nno route to anywhere")
        s.wait(lambda: desk.told()[-1:] == [refused], "the refusal")
        equal(desk.hints()["category"], "email.bounced", "what it is")
        mta.refuse.write_text("65")
        desk.press(s.text("IDS_EMAIL_SK_SEND_AGAIN"))
        s.wait(lambda: len(desk.told()) == 2 and desk.shown() == 1, "the second refusal alone")
        equal(journal(s), [(REFUSED, "no route to anywhere", "Yes & no")], "one reply, tried twice")
        s.run("gdbus", "call", "--session", "--dest", HOST, "--object-path", "/com/vextora/brisel/Host", "--method",
              "com.vextora.brisel.Phone1.UpdateMail", str(letter["mail_id"]), "{'security_locked': <1>}")
        s.wait(lambda: desk.told()[-1] == (refused[0], ""), "what is locked now out of sight")
        kill_service(s)
        s.wait(s.linked, "the next service, at work")
        s.launch()
        s.wait_text("Lunch")
        open_screen(s)
        press(s, s.text("IDS_EMAIL_BODY_REFUSED"), part=True)
        press(s, s.text("IDS_EMAIL_SK_DROP"))
        desk.wait_shown(0)  # the next service knows the number of the one before
        s.watch("key", "back")
        reply_on_watch(s, letter, "Once more")
        desk.wait_shown(1)
        relay.kill()
        s.wait(lambda: not s.linked(), "the link to go")
        desk.press(s.text("IDS_EMAIL_SK_OPEN"))
        s.wait(lambda: link_popup_up(s), "the link popup")
        s.watch("--app", "com.vextora.bt-connection-popup", "key", "back")
        s.wait(lambda: s.titles()[-1:] == [s.text("IDS_EMAIL_HEADER_WAITING_AND_SENT")], "the screen")
    finally:
        desk.close()


def test_what_the_store_cannot_take_is_said_and_offered_again(s):
    s.serve()
    account = s.account("a@example.org")
    s.send(account, mail("Unread", "Text.", "Ann <ann@example.org>"))
    s.launch()
    s.wait_text("Unread")
    store = sqlite3.connect(pathlib.Path(s.env["XDG_DATA_HOME"]) / "brisel" / "store.db", timeout=30, isolation_level=None)
    store.executescript("INSERT INTO outbox (json) VALUES ('{}'); CREATE UNIQUE INDEX one_row ON outbox (id * 0)")
    s.tap("Ann")
    for attempt in range(2):
        s.wait_text(s.text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT"))
        s.rest()
        if attempt:
            store.execute("DROP INDEX one_row")  # it goes through by itself
        else:
            s.tap(s.text("IDS_EMAIL_SK_TRY_AGAIN"))
    s.wait(lambda: s.mails()[0]["is_read"], "the mark")
    s.wait_gone(s.text("IDS_EMAIL_POP_THIS_COULD_NOT_BE_SAVED_ON_THE_ZOLT"))
    equal(len(s.requests("update_ind")), 1, "once")
    s.watch("key", "back")
    store.execute("INSERT INTO journal (id, uid, kind, state, mail_id, person, reason, created, changed)"
                  " VALUES (99, '', 1, 3, 1, 'Nobody', 'no-address', unixepoch(), unixepoch())")
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    equal([line for line in s.complaints() if "is not a valid object" in line], [], "the focus that waited for the popup")
    open_screen(s)
    press(s, "Nobody", part=True)
    s.wait_text(s.text("IDS_EMAIL_SK_DROP"))
    assert not any(s.shows(s.text(f"IDS_EMAIL_SK_{way}")) for way in ("SEND_AGAIN", "CHANGE")), "what cannot help"


def test_what_a_service_that_hangs_does_not_take_is_listed_and_dropped(s):
    s.serve()
    s.send(s.account("a@example.org"), mail("Lunch", "Text.", "Ann <ann@example.org>"))
    s.launch()
    s.wait_text("Lunch")
    host = host_pid(s)
    os.kill(host, signal.SIGSTOP)
    s.tap("Ann")  # the mark is on its way, the reply behind it is not
    s.wait_text("Text.")
    s.watch("key", "back")
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    s.press("Ann")
    for text in (s.text("IDS_EMAIL_SK_REPLY"), s.text("IDS_MSG_TEMPLATE_1", "message"), s.text("IDS_COM_SK_SEND")):
        s.tap(text)
    s.wait(lambda: len(s.titles()) == 2, "the actions again")
    s.watch("key", "back")
    s.wait(lambda: len(s.titles()) == 1, "the mailbox")
    open_screen(s)
    waiting = lambda: [t for t in s.seen() if t["text"] == s.text("IDS_EMAIL_BODY_WAITS_FOR_THE_PHONE")]  # noqa: E731
    s.wait(lambda: len(waiting()) == 2, "both")
    s.rest()
    s.watch("tap", *middle(max(waiting(), key=lambda t: t["y"])))
    s.tap(s.text("IDS_EMAIL_SK_DROP"))
    s.wait(lambda: len(waiting()) == 1, "the mark alone")
    os.kill(host, signal.SIGCONT)
    shows_state(s, "IDS_EMAIL_BODY_WITH_THE_PHONE")
    equal(s.requests("reply"), [], "what was dropped")


if __name__ == "__main__":
    main(globals())

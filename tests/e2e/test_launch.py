"""Every way into the application: link, account count, accounts, first or second launch, with or without a mail, locked
or not. What the phone hears and what is on screen decide."""
import itertools
import os
import signal
import socket
import sqlite3
import subprocess

from brisel_test import equal, kill_owner, mail, main, options, owner

SUBJECT = "The subject of the open mail"
SENDER = "Open Sender"


def arrange(s, accounts, known):
    """Accounts with an open and a locked mail in the first; returns their ids."""
    ids = {}
    for n in range(accounts):
        account = s.account(f"account{n}@example.net")
        if n == 0:
            ids[False] = s.send(account, mail(SUBJECT, "Body.", f"{SENDER} <open@example.org>"))[0]
            ids[True] = s.send(account, mail("Hidden", "Body.", "Locked Sender <locked@example.org>"), args=("--locked",))[0]
    s.phone("account", "count", "known" if known else "unknown")
    return ids


def expected_screen(s, accounts, known, mail_named, locked):
    """Waits for the one screen that this state must lead to."""
    if not known:
        s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))
        assert not s.shows(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    elif accounts == 0:
        s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    elif mail_named and locked:
        s.wait_text(s.text("IDS_EMAIL_HEADER_OPEN_EMAIL_ABB"))
        assert not s.shows(SUBJECT), "a locked mail must not be shown"
    elif mail_named:
        s.wait_text(SUBJECT)
        s.wait(lambda: s.requests("update_ind"), "the read indication at the phone")
    else:
        s.wait_text(SENDER)
        header = "account0@example.net" if accounts == 1 else s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB")
        assert s.shows(header), f"the header must be {header}"
        equal(len(s.dump()["views"]), 1, "views")


def run_case(s, accounts, known, second, named, locked):
    s.serve()
    ids = arrange(s, accounts, known)
    if second:
        s.launch()
        expected_screen(s, accounts, known, False, False)
    if named:
        s.launch(brisel_id=ids[locked])
    else:
        s.launch()
    expected_screen(s, accounts, known, named, locked)


def cases():
    for accounts, known, second, named, locked in itertools.product((0, 1, 2), (True, False), (False, True), (False, True),
                                                                    (False, True)):
        if (locked and not named) or (named and accounts != 1):  # it goes by the mail, not by how many others there are
            continue
        yield accounts, known, second, named, locked


def make(case):
    def test(s):
        run_case(s, *case)
    accounts, known, second, named, locked = case
    test.__name__ = "test_{}_accounts_{}_{}{}".format(accounts, "known" if known else "unknown", "second" if second else "first",
                                                     ("_mail_locked" if locked else "_mail") if named else "")
    return test


for each in cases():
    made = make(each)
    globals()[made.__name__] = made


def on_bus(s, name):
    names = s.run("dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.ListNames")
    return f'"{name}"' in names.stdout


LINK_POPUP = "com.vextora.bt-connection-popup"


def link_popup_up(s):
    return on_bus(s, LINK_POPUP)


def test_prepared_it_has_the_list_and_has_shown_nobody_anything(s):
    ids = arrange(s, 1, True)
    app = subprocess.Popen(["brisel", "--prepare"], env=s.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    s.wait(lambda: on_bus(s, "com.vextora.brisel") and len(s.dump()["views"]) == 1, "the list")
    assert not link_popup_up(s), "nobody is there to be asked"
    s.serve()
    s.send(1, mail("x", "x", "Early Sender <early@example.org>"))
    equal(s.requests(), [], "what nobody has seen, or asked for")
    s.launch(brisel_id=ids[False])
    s.wait_text(SUBJECT)
    s.watch("key", "back")
    s.wait_text("Early Sender")
    s.watch("quit")
    equal(app.wait(60), 0, "exit code")


def test_without_link_the_popup_comes_and_its_answer_goes_on_without_the_mail(s):
    ids = arrange(s, 1, True)
    s.launch(brisel_id=ids[False])
    s.wait(lambda: link_popup_up(s), "the link popup")
    equal(s.dump()["views"], [], "views before the answer")
    s.wait_text(s.text("IDS_EMAIL_HEADER_NO_PHONE_YET"))
    popup = owner(s, LINK_POPUP)
    os.kill(popup, signal.SIGSTOP)
    s.serve()
    s.wait_text(SENDER)
    equal(len(s.dump()["views"]), 1, "the mail of the launch is not kept")
    s.tap(SENDER)
    s.wait(lambda: len(s.dump()["views"]) == 2, "the mail")
    os.kill(popup, signal.SIGCONT)
    s.wait(lambda: not link_popup_up(s) and "Already launched." in s.log(), "the link popup's answer")
    assert "BT Connected" in s.log()
    s.rest()
    equal(len(s.dump()["views"]), 2, "views: an answer that comes late closes nothing that was opened since")


def test_cancel_on_the_link_popup_shows_the_mailbox_alone(s):
    arrange(s, 1, True)
    for views in (0, 2):
        s.launch()
        s.wait(lambda: link_popup_up(s), "the link popup")
        equal(len(s.dump()["views"]), views, "views before the answer")
        s.watch("--app", "com.vextora.bt-connection-popup", "key", "back")
        s.wait(lambda: len(s.dump()["views"]) == 1, "the mailbox alone")
        s.tap(SENDER)
        s.wait(lambda: len(s.dump()["views"]) == 2, "the mail")
    assert "BT Not Connected" in s.log()


def test_without_link_and_count_the_answer_leads_to_connecting(s):
    s.launch()
    s.wait(lambda: link_popup_up(s), "the link popup")
    kill_owner(s, "com.vextora.brisel")
    s.wait(lambda: not link_popup_up(s), "who waits without a window to go with who asked")
    s.launch()
    s.wait(lambda: link_popup_up(s), "the link popup")
    s.serve()
    s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))


def test_without_a_link_popup_the_launch_goes_on(s):
    for file in s.dir.rglob("com.vextora.bt-connection-popup.service"):
        file.unlink()
    s.run("dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.ReloadConfig")
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))
    arrange(s, 1, True)
    s.wait_text(SENDER)


def test_a_store_that_cannot_be_read_is_told_without_a_link(s):
    store = s.dir / "data" / "brisel" / "store.db"  # nor does the service start on it
    store.parent.mkdir(parents=True, exist_ok=True)
    store.write_text("no database" * 1000)
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_POP_THE_EMAILS_ON_THE_ZOLT_CANNOT_BE_READ"))
    store.unlink()
    s.tap(s.text("IDS_EMAIL_SK_TRY_AGAIN"))
    s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))


def test_a_second_account_after_the_set_up_is_seen(s):
    s.serve(counts=True)
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    first = s.account("first@example.net")
    s.send(first, mail("x", "x", "First Sender <a@example.org>"))
    s.wait_text("first@example.net")
    second = s.account("second@example.net")
    s.wait_text(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.send(second, mail("x", "x", "Second Sender <b@example.org>"))
    s.wait_text("Second Sender")
    # An account that its user has chosen stays when another comes.
    s.tap(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.wait_text("first@example.net")
    s.account("third@example.net")
    s.send(first, mail("x", "x", "Another Sender <c@example.org>"))
    s.wait_text("Another Sender")
    assert s.shows("first@example.net")


def test_help_version_and_a_missing_display_take_a_line(s):
    s.run("brisel", "--help")
    assert s.run("brisel", "--version").stdout.startswith("brisel "), "the version"
    for name in ("ELM_ENGINE", "ELM_DISPLAY", "DISPLAY", "WAYLAND_DISPLAY"):
        s.env.pop(name, None)
    left = s.dir / "left-behind"
    with socket.socket(socket.AF_UNIX) as gone:
        gone.bind(str(left))  # nobody listens there
    for display in ({}, {"DISPLAY": ":4711"}, {"WAYLAND_DISPLAY": "wayland-4711"}, {"WAYLAND_DISPLAY": str(left)}):
        s.env.update(display)
        done = s.run("brisel", check=False)
        assert done.returncode != 0 and done.stderr.startswith("brisel: there is no display"), done.stderr
        equal(len(done.stderr.splitlines()), 1, "lines")


def test_quitting_with_a_popup_open_is_quiet(s):
    s.serve()
    arrange(s, 2, True)
    with open(s.dir / "said", "w+") as said:
        app = subprocess.Popen(["brisel"], env=s.env, stdout=said, stderr=said)
        s.wait(lambda: on_bus(s, "com.vextora.brisel"), "the application")
        s.press(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
        s.wait_text("account1@example.net")
        s.watch("quit")
        equal(app.wait(60), 0, "exit code")
        said.seek(0)
        # That the machine is slow is the toolkit's own complaint.
        equal([line for line in said if "ecore_animator thread" not in line], [], "what it says")


def gone(s):
    """True once the application has left the bus."""
    return not on_bus(s, "com.vextora.brisel")


def test_set_up_ends_and_asks_the_phone_only_at_ok(s):
    s.serve(counts=True)
    for button, asked in (("IDS_EMAIL_SK_CANCEL_ABB", 0), ("IDS_COM_SK_OK", 1)):
        s.launch()
        s.tap(s.text(button))
        s.wait(lambda: gone(s), "the application to end")
        s.wait(lambda: len(s.requests("no_account")) == asked, f"{asked} requests")


def test_back_only_lowers_the_set_up_popup_but_ends_connecting(s):
    s.serve(counts=True)
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    s.watch("key", "back")
    assert not gone(s)
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    equal(len(s.dump()["popups"]), 1, "one set-up popup, however often it is launched")
    s.phone("account", "count", "unknown")
    for _ in range(2):
        s.launch()
        s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))
    equal(len(s.dump()["popups"]), 2, "one of each")
    s.watch("key", "back")
    s.wait(lambda: gone(s), "the application to end")


def test_back_ends_connecting_also_above_a_screen_built_meanwhile(s):
    s.serve()
    s.phone("account", "count", "unknown")
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))
    arrange(s, 1, False)
    s.wait(lambda: SENDER in [t["text"] for t in s.dump()["texts"] if t["covered"]], "the mail below the popup")
    s.watch("key", "back")
    s.wait(lambda: gone(s), "the application to end")


def test_a_second_launch_brings_the_window_back(s):
    s.serve()
    ids = arrange(s, 1, True)
    s.launch()
    for extra in ({}, {"brisel_id": ids[False]}, {"brisel_id": ids[True]}):
        s.wait_text(SENDER)
        s.rest()
        resumed = s.log().count("app_resume(")
        s.watch("key", "back")
        s.wait(lambda: s.log().count("app_pause(") > resumed, "the window to go")
        s.launch(**extra)
        s.wait(lambda: s.log().count("app_resume(") > resumed, "the window to come back")
        s.wait_text(s.text("IDS_EMAIL_HEADER_OPEN_EMAIL_ABB") if extra.get("brisel_id") == ids[True] else SUBJECT if extra else SENDER)
        if extra:
            s.watch("key", "back")


def test_unreadable_launch_data_opens_no_mail(s):
    s.serve()
    arrange(s, 1, True)
    for value in ("abc", "-3", "0", "99999999999999999999", "", "1x%n%s"):
        s.launch(brisel_id=value)
        s.wait_text(SENDER)
        assert len(s.dump()["views"]) <= 2
        s.launch()
    s.launch(brisel_id=424242)  # a mail that is not there
    s.wait_text(s.text("IDS_EMAIL_TPOP_THIS_EMAIL_HAS_BEEN_DELETED"))
    s.wait_text(SENDER)
    equal(len(s.dump()["views"]), 1, "views")
    assert "brisel_db_get_full_noti_data_by_mail_id() failed! err:[" in s.log()


def test_mails_that_cannot_be_read_are_told_of_where_the_accounts_can(s):
    s.serve()
    arrange(s, 1, True)
    store = sqlite3.connect(s.dir / "data" / "brisel" / "store.db", timeout=30)
    store.execute("ALTER TABLE mail RENAME TO lost")
    store.close()
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_POP_THE_EMAILS_ON_THE_ZOLT_CANNOT_BE_READ"))
    assert not s.shows(s.text("IDS_EMAIL_SK_TRY_AGAIN")), "as if nothing could be"


if __name__ == "__main__":
    main(globals())

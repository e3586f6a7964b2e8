"""Everything a finger can do with a mail, up to the JSON line that reaches the phone."""
from brisel_test import equal, kill_service, mail, main, middle

T0 = 1767600000


def arrange(s, mails=3, accounts=1, reply=None, link=True):
    phone = s.serve() if link else None
    ids = [s.account(f"account{n}@example.net", "--name", f"Account {n}") for n in range(accounts)]
    s.phone("account", "count", "known")
    if reply is not None:
        s.phone("status", "reply", reply)
    sent = []
    for n in range(mails):
        sent += s.send(ids[n % accounts], mail(f"Subject {n + 1}", "Text.", f"S{n + 1} <s{n + 1}@example.org>", T0 + n * 60),
                       args=("--received", str(T0 + n * 60)))
    return phone, ids, sent


def row(s, name):
    return middle(s.wait_text(name, part=False))


def sweep(s, name, left=True):
    x, y = row(s, name)
    width, _ = s.size()
    a, b = int(width * 0.8), int(width * 0.25)
    s.watch("drag", *((a, y, b, y) if left else (b, y, a, y)), 0.2)


def stored(s):
    return sorted(m["mail_id"] for m in s.mails())


def deletes(s):
    return [r["id_list"] for r in s.requests("delete_notis")]


def test_sweep_and_undo(s):
    _, _, ids = arrange(s)
    s.launch()
    for left in (True, False):
        sweep(s, "S3", left)
        strip = s.wait_text(s.text("IDS_EMAIL_BODY_DELETED"))
        width, _ = s.size()
        # The undo button is the strip's own; it sits beside the text.
        y = int(strip["y"] + strip["height"] / 2)
        for x in (width - 40, 40, width // 2 + 60):
            s.watch("tap", x, y)
            if not s.shows(s.text("IDS_EMAIL_BODY_DELETED")):
                break
        s.wait_gone(s.text("IDS_EMAIL_BODY_DELETED"))
        s.wait_text("S3", part=False)
    equal(deletes(s), [], "requests")
    equal(stored(s), sorted(ids), "mails")


def test_one_touch_reads_and_four_answer(s):
    arrange(s, mails=1)
    s.launch()
    s.tap("S1")
    s.wait_text("Text.")
    s.wait(lambda: s.mails()[0]["is_read"], "the mark")
    s.rest()
    body, width = s.find("Text."), s.size()[0]
    s.watch("tap", width // 4, int(body["y"] + body["height"] + 50))
    template = s.text("IDS_MSG_TEMPLATE_1", "message")
    s.wait_text(template)
    s.rest()
    s.tap(template)
    s.tap(s.text("IDS_COM_SK_SEND"))
    s.wait(lambda: [r["text"] for r in s.requests("reply")] == [template], "the reply")


def test_refresh_drops_a_sweep(s):
    _, ids, mails = arrange(s, accounts=2)
    s.launch()
    sweep(s, s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    assert not s.shows(s.text("IDS_EMAIL_BODY_DELETED")), "the header"
    sweep(s, "S3")
    s.wait_text(s.text("IDS_EMAIL_BODY_DELETED"))
    s.phone("account", "remove", ids[1])  # one account is left: the list is built anew for it
    s.wait_text("account0@example.net")
    s.wait_gone(s.text("IDS_EMAIL_BODY_DELETED"))
    equal(deletes(s), [], "requests")
    assert mails[2] in stored(s)


def test_one_account_alone_says_so(s):
    _, ids, _ = arrange(s)
    s.launch()
    toast = s.text("IDS_EMAIL_TPOP_ONLY_ONE_EMAIL_ACCOUNT_REGISTERED")
    s.tap("account0@example.net")
    s.wait_text(toast)
    s.watch("tap", 160, 90)
    s.wait_gone(toast)
    equal(len(s.dump()["views"]), 1, "views: the touch was the toast's")
    longest = "maximiliane.alexandrina.von.und.zu.der.hohen.heide@mountains.example.net"
    s.send(s.account(longest), mail())
    s.phone("account", "remove", ids[0])
    s.wait(lambda: s.find(longest) and s.find(longest)["cut"], "a header that cuts the address")
    s.tap(longest)
    s.wait_text(longest + "\n" + toast)
    s.wait_gone(toast)
    s.tap(longest)
    gone = [line for line in s.complaints() if "is not a valid object" in line]
    equal(gone, [], "the focus that waited for a toast")


def test_a_slow_scroll_is_no_long_press(s):
    arrange(s, mails=6)
    s.launch()
    s.wait_text("S6")
    for _ in range(2):
        s.watch("drag", 160, 256, 160, 192, 1.2)
        assert len(s.dump()["views"]) == 1, s.texts()


def test_the_header_floats_over_the_rows(s):
    arrange(s, mails=16, accounts=2)
    s.launch()
    name = s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB")
    for _ in range(3):
        for press in range(2):  # the first one must not let the row below it come to the top
            s.press(name)
            s.wait(lambda: s.dump()["popups"], "the choice of accounts")
            s.watch("key", "back")
            s.wait(lambda: not s.dump()["popups"], "the list")
        s.scroll()
        s.rest()


def test_what_a_hand_has_scrolled_to_stays(s):
    _, _, ids = arrange(s, mails=16)
    s.launch()
    s.tap("S16")
    s.wait_text("Subject 16")
    s.rest()
    s.watch("key", "back")
    s.wait_text("(16)")
    for _ in range(3):
        s.scroll()
    s.rest()
    rows = sorted((t["text"], t["y"]) for t in s.seen() if t["text"].startswith("S"))
    s.phone("mail", "delete", ids[15])  # the one that was read last
    s.wait_text("(15)")
    s.rest()
    equal(sorted((t["text"], t["y"]) for t in s.seen() if t["text"].startswith("S")), rows, "the rows in sight")


def test_update_required_and_show_on_device(s):
    phone, _, ids = arrange(s, mails=1, reply=1)
    s.launch()
    s.press("S1")
    s.tap(s.text("IDS_EMAIL_SK_REPLY"))
    notice = "IDS_EMAIL_POP_REPLY_IS_NOT_SUPPORTED_BY_YOUR_DEVICE_CHECK_FOR_UPDATES_IN_YOUR_DEVICE_SETTINGS"
    s.wait_text(s.text(notice)[:20])
    s.setting("db/menu_widget/language", "string", "de_DE.UTF-8")
    s.language = "de"
    s.wait_text(s.text(notice)[:20])
    s.tap(s.text("IDS_COM_SK_OK"))
    s.wait_gone(s.text("IDS_COM_SK_OK"))
    s.phone("status", "conn", "3")
    s.tap(s.text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"))
    s.wait_text(s.text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"))
    s.wait_gone(s.text("IDS_EMAIL_BODY_NO_RESPONSE_TRY_LATER"))
    s.phone("status", "conn", "0")
    s.tap(s.text("IDS_EMAIL_BUTTON2_SHOW_ON_DEVICE"))
    request = s.wait(lambda: s.requests("show"), "the request")[0]
    equal((request["kind"], request["id_list"]), ("email", ids), "show")
    s.wait_text(s.text("IDS_PLEXO_POP_CHECK_MOBILE_DEVICE_TO_VIEW_CONTENT"))
    s.wait(lambda: len(s.dump()["views"]) == 1, "the option list to close")


def test_a_service_that_dies_loses_nothing(s):
    _, _, ids = arrange(s, mails=3)
    s.launch()
    s.press("S3")
    s.tap(s.text("IDS_EMAIL_BODY_DELETE"))
    s.wait_text(s.text("IDS_ST_POP_1_ITEM_WILL_BE_DELETED_FROM_THE_ZOLT_ONLY"))
    s.tap(s.text("IDS_EMAIL_SK_CANCEL_ABB"))
    s.wait_gone(s.text("IDS_EMAIL_SK_CANCEL_ABB"))
    s.tap(s.text("IDS_EMAIL_BODY_DELETE"))
    s.wait_text(s.text("IDS_COM_SK_OK"))
    kill_service(s)
    s.tap(s.text("IDS_COM_SK_OK"))
    s.wait(lambda: deletes(s) == [[ids[2]]], "the request")
    s.wait(lambda: len(s.dump()["views"]) == 1, "back in the mailbox")
    s.press("S2")
    s.tap(s.text("IDS_EMAIL_SK_REPLY"))
    s.tap(s.text("IDS_MSG_TEMPLATE_1", "message"))
    s.wait_text(s.text("IDS_COM_SK_SEND"))
    kill_service(s)
    s.phone("status", "conn", "0")  # the service is back when it has answered this
    s.wait(s.linked, "the phone to come back")
    s.wait(lambda: s.log().rpartition("bt_connected : ")[2].startswith("1"), "the application to know")
    s.tap(s.text("IDS_COM_SK_SEND"))
    equal(s.wait(lambda: s.requests("reply"), "the reply")[0]["mail_id"], ids[1], "mail")
    s.watch("quit")
    equal(stored(s), ids[:2], "mails")


if __name__ == "__main__":
    main(globals())

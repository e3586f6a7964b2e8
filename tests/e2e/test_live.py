"""The open mailbox follows the phone: the six events, in the combined view and with one account shown; the service
restarted in the middle; the end equals what a fresh start shows."""
import pathlib
import xml.etree.ElementTree as tree

from brisel_test import equal, kill_service, mail, main

T0 = 1767600000


def arrange(s, accounts=2):
    s.serve(counts=True)
    return [s.account(f"account{n}@example.net") for n in range(accounts)]


def put(s, account, name, at, *args):
    return s.send(account, mail(f"From {name}", "Text.", f"{name} <{name.lower()}@example.org>", at),
                  args=("--received", str(at), *args))[0]


def senders(s):
    """The senders on screen from top to bottom."""
    shown = [(t["y"], t["text"]) for t in s.seen() if t["text"].startswith("S") and t["text"][1:].isdigit()]
    return [text for _, text in sorted(shown)]


def header_count(s):
    for t in s.seen():
        if t["text"].startswith("(") and t["text"].endswith(")"):
            return t["text"]
    return None


def test_added_mails_go_by_time_and_equal_times_below(s):
    a, b = arrange(s)
    put(s, a, "S1", T0)
    s.launch()
    s.wait_text("S1")
    put(s, b, "S2", T0 + 10)
    s.wait(lambda: senders(s) == ["S2", "S1"], "the newer above")
    put(s, a, "S3", T0 + 5)
    s.wait(lambda: senders(s) == ["S2", "S3", "S1"], "between by time")
    put(s, a, "S4", T0 + 5)
    put(s, a, "S5", T0 - 5)
    s.wait(lambda: header_count(s) == "(5)", "the count of five")
    first_four = senders(s)[:4]
    equal(first_four, ["S2", "S3", "S4", "S1"][:len(first_four)], "equal times go below")


def test_one_account_shows_only_its_own(s):
    a, b = arrange(s)
    put(s, a, "S1", T0)
    s.launch()
    s.tap(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.wait_text("account0@example.net")
    put(s, b, "S2", T0 + 10)
    put(s, a, "S3", T0 + 20)
    s.wait(lambda: senders(s) == ["S3", "S1"], "only the shown account's")
    equal(header_count(s), "(2)", "count")
    assert "No need to insert" in s.log()


def test_a_mail_is_new_no_more_and_goes_and_another_comes(s):
    a, b = arrange(s)
    one = put(s, a, "S1", T0)
    s.launch()
    s.wait_text("N", part=False)
    s.phone("mail", "update", one, "--not-new", "--subject", "Other")
    s.wait_gone("N", part=False)
    equal((senders(s), header_count(s)), (["S1"], "(1)"), "the row stays")
    s.phone("mail", "update", one, "--new")
    s.wait_text("N", part=False)
    s.phone("mail", "delete", one)
    s.wait_text(s.text("IDS_EMAIL_BODY_NO_EMAILS"))
    put(s, b, "S3", T0 + 2)
    s.wait(lambda: (senders(s), header_count(s)) == (["S3"], "(1)"), "the list is back")
    s.wait_gone(s.text("IDS_EMAIL_BODY_NO_EMAILS"))


def test_empty_account_keeps_its_list_while_another_has_mail(s):
    a, b = arrange(s)
    one = put(s, a, "S1", T0)
    put(s, b, "S2", T0)
    s.launch()
    s.tap(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.wait_text("account0@example.net")
    s.phone("mail", "delete", one)
    s.wait(lambda: header_count(s) == "(0)", "an empty account")
    assert not s.shows(s.text("IDS_EMAIL_BODY_NO_EMAILS"))
    # Nothing to delete here: the title button does not open the delete view.
    width, _ = s.size()
    s.watch("tap", width - 28, 28)
    equal(len(s.dump()["views"]), 1, "views")


def test_accounts_come_and_go(s):
    a, b = arrange(s)
    put(s, a, "S1", T0)
    put(s, b, "S2", T0 + 1)
    s.launch()
    s.press(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    s.wait_text("account1@example.net")
    c = s.account("account2@example.net")
    s.wait_text("account2@example.net")
    s.phone("account", "remove", c)
    s.wait_gone("account2@example.net")
    assert s.shows("account1@example.net"), "the popup stays while there are two"
    s.phone("account", "remove", b)
    s.wait(lambda: senders(s) == ["S1"] and s.shows("account0@example.net"), "the one account left is shown")
    assert "account selection popup is not needed" in s.log()
    s.phone("account", "remove", a)
    s.wait_text(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))
    s.account("back@example.net")
    s.wait_gone(s.text("IDS_EMAIL_HEADER_SET_UP_EMAIL"))


def test_count_known_later_builds_the_screen_once(s):
    s.serve()
    s.phone("account", "count", "unknown")
    a = s.account("account0@example.net")
    put(s, a, "S1", T0)
    s.launch()
    s.wait_text(s.text("IDS_EMAIL_POP_CONNECTING_ING"))
    s.phone("account", "count", "known")
    s.wait(lambda: senders(s) == ["S1"], "the list")
    s.phone("account", "count", "known")
    put(s, a, "S2", T0 + 1)
    s.wait(lambda: senders(s) == ["S2", "S1"], "the list goes on")
    equal(len(s.dump()["views"]), 1, "views")


def test_the_reader_follows_what_is_beside_its_mail_and_closes_with_it(s):
    a, _ = arrange(s)
    ids = [put(s, a, f"S{n}", T0 + n * 10) for n in range(1, 5)]
    s.launch()
    s.tap("S4")
    s.wait_text("From S4")
    s.rest()
    put(s, a, "S8", T0)
    s.wait(lambda: s.log().count("EVENT_TYPE_NOTI_ADD") == 1, "the event")
    assert "viewer refresh is needed" not in s.log(), "far away"
    beside = put(s, a, "S9", T0 + 35)
    s.wait(lambda: "viewer refresh is needed" in s.log(), "the refresh")
    s.swipe("left")
    s.wait_text("From S9")
    s.phone("mail", "delete", ids[0])
    s.wait(lambda: s.log().count("EVENT_TYPE_NOTI_DELETE") == 1, "the event")
    assert s.shows("From S9"), "another mail's deletion closes nothing"
    s.phone("mail", "delete", beside)
    s.wait(lambda: senders(s)[:2] == ["S4", "S3"] and len(s.dump()["views"]) == 1, "the mailbox")
    assert "opened mail is deleted" in s.log()


def test_service_killed_in_the_middle(s):
    a, b = arrange(s)
    kept = [put(s, a, f"S{n}", T0 + n) for n in range(1, 4)]
    s.launch()
    s.wait(lambda: header_count(s) == "(3)", "three mails")
    for round in range(3):
        kill_service(s)
        put(s, b, f"S{10 + round}", T0 + 100 + round)
        s.phone("mail", "delete", kept[round])
        s.wait(lambda: f"S{10 + round}" in senders(s), "the mail after the restart")
        s.wait(lambda: header_count(s) == "(3)", "the count after the restart")
    live = senders(s), header_count(s)
    s.watch("quit")
    s.launch()
    s.wait(lambda: (senders(s), header_count(s)) == live, "a fresh start to show the same")


def test_a_burst_equals_a_fresh_start(s):
    a, b = arrange(s)
    put(s, a, "S1", T0 - 1000)
    s.launch()
    s.wait_text("S1")
    mails = [mail(f"M{n}", "x", f"S{n} <s{n}@example.org>", T0 + (n * 7919) % 1000) for n in range(2, 302)]
    s.send(a, *mails[:150])
    s.send(b, *mails[150:])
    s.wait(lambda: header_count(s) == "(301)", "301 mails")
    live = senders(s)
    s.watch("quit")
    s.launch()
    s.wait(lambda: header_count(s) == "(301)", "301 mails after a fresh start")
    equal(senders(s), live, "order")


def outline(xml):
    """What the service's own interfaces offer: members, and their arguments in order."""
    return {(face.get("name"), member.tag, member.get("name"),
             tuple((arg.get("name"), arg.get("type"), arg.get("direction") == "out") for arg in member.iter("arg")))
            for face in tree.fromstring(xml).iter("interface") if "vextora" in face.get("name")
            for member in face if member.tag in ("method", "signal")}


def test_the_description_is_what_the_service_offers(s):
    live = s.run("gdbus", "introspect", "--xml", "--session", "--dest", "com.vextora.brisel.Host", "--object-path",
                 "/com/vextora/brisel/Host").stdout
    described = pathlib.Path(__file__).parents[2] / "service" / "com.vextora.brisel.Host.xml"
    equal(outline(live), outline(described.read_text()), "the interfaces")


if __name__ == "__main__":
    main(globals())

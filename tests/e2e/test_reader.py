"""The reader from outside: paging, more of a body, read indications, pickover, reading size."""
from brisel_test import equal, mail, main

T0 = 1767600000


def arrange(s, count=1, body="Text.", args=(), locked=()):
    phone = s.serve(counts=True)
    account = s.account("account@example.net")
    ids = []
    for n in range(count):
        at = T0 - n * 60  # the first is the newest
        extra = ("--locked",) if n in locked else ()
        ids += s.send(account, mail(f"Subject {n + 1}", body, f"S{n + 1} <s{n + 1}@example.org>", at),
                      args=("--received", str(at), *args, *extra))
    s.launch()
    return phone, account, ids


def open_first(s):
    s.tap("S1")
    s.wait_text("Subject 1")


def bottom(s, condition, times=40):
    """Pulls the page up, stroke by stroke, until the condition holds; false when it never does."""
    for _ in range(times):
        if condition():
            return True
        s.scroll(seconds=0.2)
    return condition()


def test_paging_over_the_list_and_back(s):
    _, _, ids = arrange(s, 5, locked=(2,))
    open_first(s)
    for n in (2, 4, 5):
        s.swipe("left")
        s.wait_text(f"Subject {n}")
        s.wait(lambda: s.requests("update_ind")[-1]["id_list"] == [ids[n - 1]], f"read indication of {n}")
    s.swipe("left")  # the end
    for n in (4, 2, 1):
        s.swipe("right")
        s.wait_text(f"Subject {n}")
    assert "Subject 3" not in s.texts()
    read = [r["id_list"][0] for r in s.requests("update_ind")]
    assert ids[2] not in read, "a locked mail is never read"
    s.watch("key", "back")
    s.wait(lambda: len(s.dump()["views"]) == 1, "the mailbox")


def test_paging_is_the_same_from_right_to_left(s):
    s.setting("db/menu_widget/language", "string", "ar_EG.UTF-8")
    test_paging_over_the_list_and_back(s)
    s.setting("db/menu_widget/language", "string", "en_US.UTF-8")
    open_first(s)
    s.setting("db/menu_widget/language", "string", "he_IL.UTF-8")
    s.swipe("left")  # from the page that was open before
    s.wait_text("Subject 2")


def test_each_request_carries_one_mail_and_marks_it(s):
    _, _, ids = arrange(s, 2)
    open_first(s)
    request = s.wait(lambda: s.requests("update_ind"), "the read indication")[0]
    equal(request["id_list"], [ids[0]], "ids")
    assert "host_state" in request
    s.wait(lambda: {m["mail_id"]: bool(m["is_read"]) for m in s.mails()} == {ids[0]: True, ids[1]: False}, "read in the store")
    s.wait(lambda: s.requests("clear_all_new_flag"), "new flags cleared")
    equal(s.requests("clear_all_new_flag")[0]["id_list"], [0], "the single 0")
    subject = " ".join(["long"] * 60)
    s.phone("mail", "update", ids[0], "--subject", subject)
    assert s.wait_text(subject, part=False)["cut"], "what is told is whole, and that it is cut"
    s.watch("key", "back")
    s.wait_gone("N", part=False)


def asked(s, count):
    return lambda: len(s.requests("more_msg")) >= count


def test_one_key_goes_to_either_end(s):
    arrange(s, 1, "\n".join(f"Line {n}: words of a long mail." for n in range(1000)))
    open_first(s)
    for key, line in (("End", "Line 999:"), ("Home", "Line 0:")):
        s.watch("keyboard", key)
        s.wait_text(line)


def test_no_phone_no_request(s):
    phone, _, _ = arrange(s, 1, "Short words.", ("--first", "5"))
    s.stop_serve(phone)
    open_first(s)
    for _ in range(5):
        s.scroll()
    phone = s.serve()
    equal(s.requests("more_msg"), [], "requests")
    assert bottom(s, asked(s, 1)), "the request once the phone is back"
    s.wait(lambda: s.mails()[0]["body"].endswith("-1>"), "the rest")
    s.wait_text("Short words.")


def test_pickover(s):
    body = "\n".join(f"Line {n}." for n in range(60))
    _, _, ids = arrange(s, 2, body)
    s.wait_text("S1")
    failed = s.run("brisel-watchctl", "pickover", check=False)
    assert failed.returncode != 0, "nobody is registered without an open mail"
    open_first(s)
    s.watch("pickover")
    equal(s.wait(lambda: s.requests("show"), "the request")[0]["id_list"], [ids[0]], "the mail on screen")
    assert "position_list" not in s.requests("show")[0], "nothing is read yet"
    s.scroll(seconds=0.2)
    s.rest()
    s.watch("pickover")
    position, = s.wait(lambda: s.requests("show")[1:], "how far it is read")[0]["position_list"]
    assert position > 0 and body[position:].startswith("Line "), position
    s.watch("pause")
    assert s.run("brisel-watchctl", "pickover", check=False).returncode != 0, "ended by pause"
    s.watch("resume")
    s.swipe("left")
    s.wait_text("Subject 2")
    s.watch("pickover")
    s.wait(lambda: [r["id_list"] for r in s.requests("show")] == [[ids[0]], [ids[0]], [ids[1]]], "the mail after the swipe")


def test_reading_size(s):
    arrange(s, 2, "A body of plain words.")
    open_first(s)
    size = lambda: s.wait_text("A body of plain words.")["font_size"]  # noqa: E731
    middle, sizes = [n // 2 for n in s.size()], [size()]
    for _ in range(3):
        s.watch("doubletap", *middle)
        sizes.append(size())
    normal, large, small, again = sizes
    assert small < normal < large and again == normal, sizes
    s.watch("pinch", *middle, 0.5)
    s.wait(lambda: size() == small, "the size after a pinch")
    s.swipe("left")
    s.wait_text("Subject 2")
    equal(size(), small, "the neighbour's size")


if __name__ == "__main__":
    main(globals())

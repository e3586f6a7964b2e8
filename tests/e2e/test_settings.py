"""Settings changed from another process show at once on every open screen."""
import itertools
import json

from brisel_test import equal, mail, main, options
from phone_test import read_on_watch

OLD = 1388833503  # 2014-01-04 11:05:03 UTC
DATES = {0: "04/01/2014", 1: "01/04/2014", 2: "2014/01/04", 3: "2014/04/01", 7: "2014/01/04", -1: "2014/01/04"}


def arrange(s):
    s.serve(counts=True)
    account = s.account("account@example.net")
    s.send(account, mail("Old", "Text.", "Sender One <one@example.org>", OLD), args=("--received", str(OLD)))
    s.setting("db/menu_widget/regionformat", "string", "en_US.UTF-8")
    s.setting("db/setting/date_format", "int", 0)
    s.setting("db/menu_widget/regionformat_time1224", "int", 2)


def shown_time(s):
    for t in s.seen():
        if "2014" in t["text"] or "١٤" in t["text"]:
            return t["text"].replace("\u202f", " ").replace("\u00a0", " ")
    return ""


def test_date_order_follows_in_the_list_and_the_reader(s):
    arrange(s)
    s.launch()
    s.wait_text("Sender One")
    for view, touch in (("list", None), ("delete view", (300, 20)), ("reader", (160, 140))):
        if touch:
            s.watch("tap", *touch)
            s.wait(lambda: len(s.titles()) == 2, view)
        for value, date in DATES.items():
            s.setting("db/setting/date_format", "int", value)
            s.wait(lambda: shown_time(s) == f"{date} 11:05", f"{view}: date order {value}: {date}")
        for clock, end in ((1, " AM"), (2, "")):
            s.setting("db/menu_widget/regionformat_time1224", "int", clock)
            s.wait(lambda: shown_time(s) == f"{date} 11:05{end}", f"{view}: clock {clock}")
        if touch:
            s.watch("key", "back")
            s.wait(lambda: len(s.titles()) == 1, "the list")
            s.rest()
    assert "Invalid date_format value(7)" in s.log() and "Invalid date_format value(-1)" in s.log()


def test_clock_time_zone_and_region(s):
    arrange(s)
    s.setting("db/setting/date_format", "int", 0)
    s.launch()
    s.wait(lambda: shown_time(s) == "04/01/2014 11:05", "24 hours")
    s.watch("timezone", "Asia/Seoul")
    s.wait(lambda: shown_time(s) == "04/01/2014 20:05", "Seoul")
    s.watch("timezone", "America/Los_Angeles")
    s.wait(lambda: shown_time(s) == "04/01/2014 03:05", "Los Angeles")
    s.setting("db/menu_widget/regionformat", "string", "ar_EG.UTF-8")
    s.wait(lambda: "(١)" in s.texts() and "٢٠١٤" in shown_time(s), "the header's count and the date in their own digits")
    s.setting("db/menu_widget/regionformat", "string", "ko_KR.UTF-8")
    s.setting("db/menu_widget/regionformat_time1224", "int", 1)
    s.wait(lambda: "(1)" in s.texts() and "오전" in shown_time(s), "the Korean day period")
    assert "locale: ko_KR" in s.log()


def test_what_stands_keeps_its_place_and_follows_the_language(s):
    arrange(s)
    for id in s.send(s.account("other@example.net"), *[mail("More", "Text.", f"Ann {n} <ann@example.org>") for n in range(14)]):
        read_on_watch(s, id)
    s.launch()
    place = lambda: sorted((t["text"], t["y"]) for t in s.seen() if "Ann" in t["text"])  # noqa: E731
    for way in (None, ("tap", 300, 20), ("key", "more")):  # the list, the delete view, what was sent
        if way:
            s.watch(*way)
            s.wait(lambda: len(s.titles()) == 2, "the view")
        for _ in range(3):  # the header's own place is far out of sight
            s.rest()
            s.watch("drag", 160, 200, 160, 100, 0.3)
        s.rest()
        before = place()
        for key, value in (("language", "ar_EG"), ("language", "de_DE"), ("regionformat", "ar_EG"), ("language", "en_US")):
            s.language = value[:2] if key == "language" else s.language
            s.setting(f"db/menu_widget/{key}", "string", value + ".UTF-8")
            s.rest()
            equal(place(), before, f"{way} {key} {value}")
            if not way:
                s.wait_text(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
                s.wait_text(s.text("IDS_HS_MBODY_EMAIL_M_APPLICATION_NAME_ABB3"))
        if way:
            s.watch("key", "back")
            s.wait(lambda: len(s.titles()) == 1, "the list")
    s.launch(brisel_id=s.send(1, mail(), args=("--locked",))[0])
    s.wait_text(s.text("IDS_EMAIL_SK_CANCEL_ABB"))
    s.language = "ar"
    s.setting("db/menu_widget/language", "string", "ar_EG.UTF-8")
    ok, cancel = (s.wait_text(s.text(name)) for name in ("IDS_COM_SK_OK", "IDS_EMAIL_SK_CANCEL_ABB"))
    assert ok["x"] < cancel["x"], "the buttons of a popup turn round"
    s.watch("key", "back")
    s.wait(lambda: not s.dump()["popups"], "the popup to go")
    s.watch("quit")
    equal(s.complaints(), [], "what the toolkit complained of")


def test_broken_settings_read_as_unreadable(s):
    arrange(s)
    for key, kind, value in (("db/setting/date_format", "string", "x"), ("db/menu_widget/regionformat", "int", "3"),
                             ("db/menu_widget/regionformat_time1224", "bool", "true")):
        s.setting(key, kind, value)
    s.launch()
    s.wait(lambda: shown_time(s) == "04/01/2014 11:05", "the defaults")
    log = s.log()
    assert "vconf_get_int returns: -1" in log and "vconf_get_str() failed : region format" in log
    equal(log.count("locale: en_US") > 0, True, "the fallback locale")


@options(size="360x360", env={"BRISEL_SHAPE": "round"})
def test_on_a_round_display_nothing_lies_outside_the_circle(s):
    def look(text):
        s.wait_text(s.text(text) if text.startswith("IDS_") else text)
        s.rest()
        for t in s.seen():
            for x, y in itertools.product((t["x"], t["x"] + t["width"]), (t["y"], t["y"] + t["height"])):
                assert (x - 180) ** 2 + (y - 180) ** 2 <= 181 ** 2, f"{text}: {t} reaches out of the circle"

    s.launch()
    look("IDS_EMAIL_HEADER_NO_PHONE_YET")
    s.serve()
    look("IDS_EMAIL_POP_CONNECTING_ING")
    s.phone("account", "count", "known")
    look("IDS_EMAIL_HEADER_SET_UP_EMAIL")
    for name in ("first", "second"):
        s.send(s.account(f"{name}@example.net"), mail(f"About {name}", "Words. " * 200, f"From {name} <{name}@example.org>"))
    look("From second")
    s.press(s.text("IDS_EMAIL_BODY_COMBINED_VIEW_ABB"))
    look("first@example.net")
    s.watch("key", "back")
    s.wait_gone("first@example.net")
    s.tap("From second")
    s.wait_gone("From first")
    look("About second")
    s.watch("key", "back")
    s.wait_text("From first")
    s.press("From second")
    s.setting("file/private/msg-consumer-server/reply_value", "int", 3)
    look("IDS_EMAIL_SK_REPLY")
    s.tap(s.text("IDS_EMAIL_SK_REPLY"))
    s.wait_gone(s.text("IDS_EMAIL_SK_REPLY"))
    look("Q")


def test_what_is_told_again_draws_nothing(s):
    arrange(s)
    s.launch()
    for key, kind, value in (("file/private/brisel/list_subject", "bool", "false"), ("db/setting/date_format", "int", 1),
                             ("db/menu_widget/regionformat_time1224", "int", 1), ("db/menu_widget/language", "string", "de"),
                             ("db/menu_widget/regionformat", "string", "de_DE"), ("db/setting/theme", "string", "light"),
                             ("memory/wms/wmanager_connected", "bool", "true")):
        s.setting(key, kind, value)
        s.rest()
        s.watch("stats", "--reset")
        s.setting(key, kind, value)
        s.rest()
        equal(sum(json.loads(s.watch("stats"))["pixels"]), 0, f"pixels drawn for {key}")

if __name__ == "__main__":
    main(globals())

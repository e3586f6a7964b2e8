"""The phone's commands against the real service, and `serve` over its restarts."""
import json
import os
import pathlib
import shlex
import time

from phone_test import (Maildir, body_text, by_uid, delete_on_watch, equal, host_pid, main, message, more_on_watch,
                        options, read_on_watch, reply_on_watch)

DEMO = pathlib.Path(__file__).resolve().parent.parent.parent / "data" / "mail"


def fails(s, *args, said):
    done = s.run("brisel-phone", *args, check=False)
    assert done.returncode != 0, (args, done)
    assert said in done.stderr and len(done.stderr.splitlines()) <= 2, (args, done.stderr)
    return done


def test_accounts_templates_and_states(s):
    equal(s.phone("account", "add", "a@example.org", "--name", "Ann", "--color", "#11223344"), "1", "id")
    equal(s.phone("account", "add", "b@example.org"), "2", "next id")
    equal(s.phone("account", "add", "c@example.org", "--id", "9"), "9", "chosen id")
    s.phone("account", "add", "ann@example.org", "--id", "1", "--name", "Änn", "--color", "55667788")
    accounts = {a["account_id"]: a for a in json.loads(s.phone("account", "list", "--json"))}
    equal((accounts[1]["email_address"], accounts[1]["display_name"], accounts[1]["color"]),
          ("ann@example.org", "Änn", "55667788"), "changed account")
    assert accounts[2]["color"] != accounts[9]["color"], "colours tell accounts apart"
    s.phone("account", "remove", 2)
    equal([line.split("\t")[0] for line in s.phone("account", "list").splitlines()], ["1", "9"], "accounts left")
    s.phone("template", "set", "Fine & <b>dandy</b>", "Später, 好的")
    equal([t["text"] for t in json.loads(s.phone("template", "list", "--json"))], ["Fine & <b>dandy</b>", "Später, 好的"],
          "templates")
    s.phone("template", "set")
    equal(s.phone("template", "list"), "", "no templates")
    for args, said in (("account add x@y --color red", "no colour"), ("account add x@y --id 2147483648", "2147483648"),
                       ("account remove ''", "empty"), ("account count maybe", "known"), ("status reply x", "x"),
                       ("status reply -1", "-1"), ("status conn ''", "N"), ("relay drop 0", "0"), ("relay --maildir x", "NAME="),
                       ("mail update 7 --read --unread", "--unread"), ("frobnicate", "frobnicate"), ("pair x", "ssh://"),
                       ("setup x", "e-mail"), ("mail send x --account 1 --received yesterday", "no time"), ("", "subcommand")):
        equal(fails(s, *shlex.split(args), said=said).returncode, 2, args)
    for args, said in (("account remove 5", "5"), ("account remove 2147483647", "account 2147483647"), ("mail update 7 --read", "7"),
                       ("mail delete 7", "7"), ("account add x@y --id 2147483647", "999999999"), (f"demo {s.dir}", "demo.json")):
        equal(fails(s, *args.split(), said=said).returncode, 1, args)
    equal(s.phone("account", "add", "last@x").strip(), "10", "the next id")
    equal(s.run("env", "-u", "DBUS_SESSION_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS=unix:path=/none", "brisel-phone",
                "account", "list", check=False).returncode, 1, "no bus")


def test_what_a_mail_becomes(s):
    account = s.account("me@example.org")
    one = s.dir / "one.eml"
    one.write_text(message("one@x", "=?iso-8859-1?Q?Gr=FC=DFe?=", "Hallo\n", date=1780000000))
    mail_id = s.send(account, one)[0]
    equal({k: v for k, v in s.mails()[0].items() if k not in ("host_tag", "host_state", "contacts")},
          {"mail_id": mail_id, "account_id": account, "received_time": 1780000000, "is_new": 1, "is_read": 0,
           "security_locked": 0, "attachment_count": 0, "has_image": 0, "from_name": "Ann",
           "from_address": "ann@example.org", "subject": "Grüße", "body": "Hallo<tag:thisisover-1>",
           "message_uid": "one@x"}, "every field")
    s.send(account, one, args=["--locked", "--read", "--not-new", "--received", "1780000123"])
    second = s.mails()[1]
    equal([second[k] for k in ("security_locked", "is_read", "is_new", "received_time")], [1, 1, 0, 1780000123], "options")
    s.phone("mail", "update", mail_id, "--read", "--not-new", "--subject", "Neu\nund\tanders")
    equal([s.mails()[0][k] for k in ("is_read", "is_new", "subject")], [1, 0, "Neu und anders"], "update")
    s.phone("mail", "update", mail_id, "--unread", "--new")
    equal([s.mails()[0][k] for k in ("is_read", "is_new")], [0, 1], "update back")
    # Times: 2026-05-28T20:28:43Z in the ways that people write it.
    for text, zone, seconds in (("2026-05-28T20:28:43Z", "UTC", 1780000123), ("2026-05-28T22:28:43+02:00", "UTC", 1780000123),
                                ("2026-05-28 20:28:43", "UTC", 1780000123), ("2026-05-28T22:28:43", "Europe/Berlin", 1780000123),
                                ("2026-05-28T20:28Z", "UTC", 1780000080), ("2026-05-28", "UTC", 1779926400)):
        s.run("env", f"TZ={zone}", "brisel-phone", "mail", "send", one, "--account", account, "--received", text)
        equal(s.mails()[-1]["received_time"], seconds, text)
    before = int(time.time())
    s.send(account, one, args=["--received", "now"])
    assert before <= s.mails()[-1]["received_time"] <= time.time()
    for text in ("yesterday", "-5", "2026-13-01", "99999999999"):
        fails(s, "mail", "send", one, "--account", account, f"--received={text}", said="no time")


def test_broken_files_and_many_mails(s):
    account = s.account("me@example.org")
    good, empty, noise = s.dir / "good.eml", s.dir / "empty.eml", s.dir / "noise.eml"
    good.write_text(message("good@x"))
    empty.write_text("")
    noise.write_bytes(os.urandom(5000))
    fails(s, "mail", "send", empty, "--account", account, said="empty.eml: empty file")
    fails(s, "mail", "send", s.dir / "none.eml", "--account", account, said="none.eml")
    fails(s, "mail", "send", s.dir, "--account", account, said="no Maildir")
    fails(s, "mail", "send", good, "--account", 77, said="77")
    equal(s.mails(), [], "nothing was sent")
    done = s.run("brisel-phone", "mail", "send", noise, good, s.dir / "none.eml", "--account", account, check=False)
    equal(done.returncode, 1, "exit code")
    equal(len(done.stdout.split()), 1, "one id")
    assert "noise.eml" in done.stderr and "none.eml" in done.stderr and "2 of 3" in done.stderr, done.stderr
    equal([m["message_uid"] for m in s.mails()], ["good@x"], "the good one")

    box = Maildir(s.dir / "box")
    for n in range(300):
        box.deliver(message(f"d{n}@x"), flags="S" if n % 2 else "")
    mbox = s.dir / "mail.mbox"
    mbox.write_text("".join("From x\n" + message(f"m{n}@x") + "\n" for n in range(3)), newline="\r")  # as old programs wrote
    ids = s.phone("mail", "send", box.path, mbox, "--account", account).split()
    equal(len(ids), 303, "ids")
    equal(len(set(ids)), 303, "different ids")
    mails = by_uid(s)
    equal(sum(m["is_read"] for m in mails.values()), 150, "read marks of the Maildir")
    equal(mails["m2@x"]["mail_id"], int(ids[-1]), "ids in order")
    s.phone("mail", "delete", *ids)
    equal(set(by_uid(s)), {"good@x"}, "after the deletion")


def test_serve_answers_and_prints(s):
    account = s.account("me@example.org")
    text = "".join(f"Ряд {n}: 👩‍👩‍👧 и ещё немного текста\n" for n in range(200))
    path = s.dir / "long.eml"
    path.write_text(message("long@x", body=text))
    mail_id = s.send(account, path, args=["--first", "100"])[0]
    path.unlink()
    mail = by_uid(s)["long@x"]
    assert mail["body"].endswith("<tag:thisisover500>") and len(body_text(mail).encode()) <= 100, mail["body"]
    failed = s.run("dbus-send", "--session", "--print-reply", "--dest=com.vextora.brisel.Host", "/com/vextora/brisel/Host",
                   "com.vextora.brisel.Watch1.MoreMsg", "string:m0", "string:long@x", f"int32:{mail_id}", check=False)
    assert "NoPhone" in failed.stderr, failed.stderr
    serve = s.serve()
    fails(s, "serve", said="linked already")
    for _ in range(2):
        more_on_watch(s, mail)
    equal(body_text(by_uid(s)["long@x"]), text.rstrip(), "the whole text, its file being gone")

    killed = host_pid(s)
    os.kill(killed, 9)
    s.wait(lambda: host_pid(s) not in (0, killed) and s.linked(), "the next service and its phone")
    reply_on_watch(s, mail, "Ja &amp; <br/>nein")
    read_on_watch(s, mail_id)
    delete_on_watch(s, mail_id)
    s.wait(lambda: len(s.served()) >= 5, "the requests")
    kinds = [r["request"] for r in s.served()]
    equal(kinds, ["more_msg"] * 2 + ["reply", "update_ind", "delete_notis"], "kinds in order")
    reply, seen, gone = s.served()[-3:]
    equal(reply, {"request": "reply", "host_tag": mail["host_tag"], "action": "intent.action.email.notifications.reply",
                  "message_uid": "long@x", "recipient": "ann@example.org\x02Ann", "text": "Ja &amp; <br/>nein",
                  "mail_id": mail_id, "subject": "Subject"}, "reply")
    equal((seen["id_list"], gone["id_list"]), ([mail_id], [mail_id]), "ids")
    s.stop_serve(serve)

    # What comes while no phone is there waits for it, and comes once, whatever ends in between.
    for n in range(5):
        reply_on_watch(s, mail, f"waiting {n}")
    for _ in range(2):
        serve = s.serve()
        s.wait(lambda: len(json.loads(s.phone("requests", "--json"))) == len(kinds) + 5, "the requests that waited")
        s.stop_serve(serve, 9)
    equal([r["text"] for r in json.loads(s.phone("requests", "--json")) if r["request"] == "reply"],
          ["Ja &amp; <br/>nein"] + [f"waiting {n}" for n in range(5)], "each once and in order")
    equal(serve.returncode, -9, "killed")


def test_demo_mails(s):
    ids = s.phone("demo", DEMO).split()
    assert len(ids) >= 30 and s.phone("demo", DEMO) == "", "a second run adds nothing"
    mails = s.mails()
    equal(len(mails), len(ids), "mails")
    equal(sum(m["security_locked"] for m in mails), 1, "one is locked")
    equal(len({m["account_id"] for m in mails}), 2, "two accounts")
    assert any(not m["subject"] for m in mails) and any(not m["from_name"] for m in mails)
    assert any(m["has_image"] for m in mails) and any(m["attachment_count"] > 1 for m in mails)
    assert all("\ufffd" not in m["subject"] + m["from_name"] + m["body"] for m in mails), "every charset is read"
    assert all(time.time() - 7 * 86400 < m["received_time"] <= time.time() for m in mails), "fresh times"


if __name__ == "__main__":
    main(globals())

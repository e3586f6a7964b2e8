#!/usr/bin/env python3
"""Start-up, memory, frames, events and idle wake-ups of the application, beside bare programs of the same toolkit in
the same run: a stock empty window and a genlist of as many plain rows. Their start waits for the toolkit's desktop-file
service, which ends some seconds after the last program that used it: the window is measured with the service there and
without it, as two references, the genlist with it.   usage: bench-app [RUNS] [SIZE ...]"""
import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

BUILD = pathlib.Path(__file__).resolve().parent.parent
os.environ["BRISEL_BUILD"] = str(BUILD)
sys.path[:0] = ["@SOURCE@/tools/lib", "@SOURCE@/bench/lib"]
from brisel_drive import Session, mail  # noqa: E402
from figures import FRAME, NOTHING, emit, wakeups  # noqa: E402

RUNS = int(sys.argv[1]) if len(sys.argv) > 1 else 5
SIZES = [int(n) for n in sys.argv[2:]] or [100, 1000, 10000, 20000]
WIDTH, HEIGHT = 360, 480
T0 = 1767600000


def frame_times(ns):
    """The 99th percentile of a scroll's frames in ms."""
    ms = sorted(f / 1e6 for f in ns)
    return ms[min(len(ms) - 1, int(len(ms) * 0.99))]


def memory(pid):
    """Peak resident and proportional size in MiB."""
    peak = next(int(line.split()[1]) for line in open(f"/proc/{pid}/status") if line.startswith("VmHWM"))
    pss = next(int(line.split()[1]) for line in open(f"/proc/{pid}/smaps_rollup") if line.startswith("Pss:"))
    return peak / 1024, pss / 1024


def services(session):
    """The desktop-file services of this session, and of no other."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # another's, or gone
            if ((process / "comm").read_text().strip() == "efreetd"
                    and f"BRISEL_SESSION_DIR={session.dir}".encode() in (process / "environ").read_bytes().split(b"\0")):
                found.append(int(process.name))
    return found


def end_services(session):
    for process in services(session):
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, signal.SIGTERM)
    session.wait(lambda: not services(session), "the desktop-file service to end")


def window_with_service(session):
    """An empty window's start while the service that it waits for is there already. One that came after the window that
    asked for it had gone ends soon, perhaps at once."""
    for _ in range(3):
        if not services(session):
            bare(session, 0)
        before = session.wait(lambda: services(session), "the desktop-file service")
        result = bare(session, 0)
        if services(session) == before:
            return result
    sys.exit("bench-app: the desktop-file service did not stay")


def window_without_service(session):
    end_services(session)
    result = bare(session, 0)
    session.wait(lambda: services(session), "the desktop-file service that the window asked for")
    return result


def bare(session, rows, scroll=False):
    """One run of a bare program: milliseconds to its first frame, memory, scroll frames."""
    start = time.monotonic_ns()
    process = subprocess.Popen([BUILD / "bench" / "bench-bare", str(rows), str(WIDTH), str(HEIGHT)], env=session.env,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    first = json.loads(process.stdout.readline())["first_frame_ns"]
    result = {"start": (first - start) / 1e6}
    time.sleep(0.5)
    result["peak"], result["pss"] = memory(process.pid)
    result["own"] = private(process.pid)
    if scroll:
        process.stdin.write("scroll\n")
        process.stdin.flush()
        result["frames"] = frame_times(json.loads(process.stdout.readline())["frames_ns"])
    process.stdin.close()
    if process.wait():
        sys.exit(f"bench-app: a bare program ended with {process.returncode}")
    return result


def private(pid):
    """Memory that is the process's alone, in MiB."""
    return sum(int(line.split()[1]) for line in open(f"/proc/{pid}/smaps_rollup") if line.startswith("Private_Dirty:")) / 1024


def start_application(session, *arguments):
    """Its process, and the milliseconds to its first picture."""
    start = time.monotonic_ns()
    process = subprocess.Popen([BUILD / "app" / "brisel", *arguments], env=session.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def ready():
        done = session.run("brisel-watchctl", "stats", check=False)
        return done.returncode == 0 and json.loads(done.stdout).get("first_screen_ns")

    time.sleep(1.5)  # asking while it starts would slow it down; the figure is the application's own
    return process, (session.wait(ready, "the application's first screen", 60) - start) / 1e6


def prepared(session):
    """Milliseconds to the list of an application that was started ahead: from the exec of a second start, and from the
    word of the bus."""
    results = []
    for ask in (lambda: session.run("brisel"), session.launch):
        process = subprocess.Popen([BUILD / "app" / "brisel", "--prepare"], env=session.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(1.5)  # as above
        session.wait(lambda: session.dump()["views"], "the list")
        start = time.monotonic_ns()
        ask()
        stats = session.wait(lambda: (lambda s: s if s["launches_ns"] else None)(json.loads(session.watch("stats"))), "the list's frame")
        results.append(((stats["first_screen_ns"] - start) / 1e6, stats["launches_ns"][0] / 1e6))
        stop_application(session, process)
    return results[0][0], results[1][1]


def stop_application(session, process):
    session.watch("quit")
    if process.wait(20):
        sys.exit(f"bench-app: the application ended with {process.returncode}")


def application(session):
    process, first = start_application(session)
    result = {"start": first}
    time.sleep(0.5)
    result["peak"], result["pss"] = memory(process.pid)
    result["own"] = private(process.pid)
    session.watch("stats", "--reset")
    for _ in range(6):
        session.scroll(seconds=0.25)
    result["frames"] = frame_times(json.loads(session.watch("stats"))["frames_ns"])
    for _ in range(8):
        session.scroll(up=False, seconds=0.1)
    return process, result


def fill(session, count):
    """count mails in a Maildir, sent as the phone sends them."""
    box = pathlib.Path(tempfile.mkdtemp(prefix="brisel-bench-"))
    try:
        for part in ("cur", "new", "tmp"):
            (box / part).mkdir()
        for n in range(count):
            text = mail(f"Subject number {n}", "A line of text.\n" * 20, f"Sender {n % 97} <sender{n % 97}@example.org>", T0 - n * 60)
            (box / "new" / f"{n}.bench").write_text(text)
        session.phone("mail", "send", box, "--account", 1, timeout=1800)
    finally:
        shutil.rmtree(box)


def event_to_row(session, times=7):
    """Milliseconds from the service's word of a mail to the frame that holds its row."""
    results = []
    for n in range(times):
        session.watch("stats", "--reset")
        session.send(1, mail("Live", "x", f"Live {n} <live@example.org>", T0 + 1000 + n), args=("--received", str(T0 + 1000 + n)))
        session.wait(lambda: session.find(f"Live {n}", part=True), "the event's row")
        # Of the frames since then its own is the longest.
        results.append(max(json.loads(session.watch("stats"))["events_ns"]) / 1e6)
    return results


def at_rest(session):
    """The longest turn of the loop so far in ms, once nothing but this question wakes it."""
    before = json.loads(session.watch("stats"))
    time.sleep(0.5)
    after = json.loads(session.watch("stats"))
    return after["iterations"] - before["iterations"] <= 2 and after["longest_iteration_ns"] / 1e6


def live(session, process, count):
    """What the running application does with events, and without any."""
    emit(f"event to its row, {count} mails", "ms", event_to_row(session), *FRAME)
    session.watch("stats", "--reset")
    session.send(1, *[mail(f"Burst {n}", "x", f"Burst {n} <burst@example.org>", T0 + 2000 + n) for n in range(1000)])
    stall = session.wait(lambda: at_rest(session), "the burst's end", 60)
    if not session.find("Burst 999", part=True):  # asked behind it: to tell what is on screen is a stall of its own
        sys.exit("bench-app: the burst's last mail is not on screen")
    emit(f"longest stall in a burst of 1000, {count} mails", "ms", [stall], *FRAME)
    time.sleep(2)
    before = wakeups(process.pid)
    time.sleep(10)
    emit(f"wake-ups in 10 idle seconds, {count} mails", "", [wakeups(process.pid) - before], *NOTHING)


def touched_notification(session, count):
    """Milliseconds to the text of the mail that a launch names, without the application and with it."""
    cold, warm = [], []
    for run in range(RUNS):
        process, first = start_application(session, f"brisel_id={1 + run * count // RUNS}")
        cold.append(first)
        session.watch("key", "back")
        for again in range(3):
            session.rest()
            session.watch("stats", "--reset")
            session.launch(brisel_id=2 + (again + 3 * run) * count // (4 * RUNS))
            drawn = session.wait(lambda: json.loads(session.watch("stats"))["launches_ns"], "the launch's frame")
            if len(drawn) != 1 or len(session.dump()["views"]) != 2:
                sys.exit(f"bench-app: {len(drawn)} launches, {len(session.dump()['views'])} views: it is not one mail that was opened")
            warm.append(drawn[0] / 1e6)
            session.watch("key", "back")
        stop_application(session, process)
    return cold, warm


def hour_of_use(session, count):
    """Private memory at the start, after the first ten mails, after what an hour of heavy use brings, and of a fresh
    start with the mails that are there then, in MiB."""
    def started():
        process, _ = start_application(session)
        session.rest()
        own.append(private(process.pid))
        return process

    own = []
    process = started()
    for n in range(500):
        session.launch(brisel_id=1 + n * 37 % count)
        session.watch("key", "back")
        if n % 50 == 0:
            session.send(1, *[mail(f"Hourly {n + i}", "x", f"Hourly {i} <hourly@example.org>", T0 + 9000 + n + i) for i in range(100)])
        if n in (9, 499):
            session.rest()
            own.append(private(process.pid))
    stop_application(session, process)
    stop_application(session, started())
    return own


for count in SIZES:
    with Session(size=f"{WIDTH}x{HEIGHT}") as session:
        session.serve()
        session.account("bench@example.net")
        session.phone("account", "count", "known")
        fill(session, count)
        empty, alone, rows, app, ahead = [], [], [], [], []
        for run in range(RUNS):
            alone.append(window_without_service(session))
            empty.append(window_with_service(session))
            rows.append(bare(session, count, scroll=True))
            process, result = application(session)
            app.append(result)
            if run == RUNS - 1:
                live(session, process, count)
            stop_application(session, process)
            ahead.append(prepared(session))
        cold, warm = touched_notification(session, count)
        hour = hour_of_use(session, count) if count == 1000 else None

    def of(samples, what):
        return [one[what] for one in samples]

    emit(f"exec to the list, {count} mails", "ms", of(app, "start"), of(empty, "start"), "an empty window, its service running")
    emit(f"exec to the list, {count} mails, beside a window alone", "ms", of(app, "start"), of(alone, "start"), "an empty window, its service not running")
    emit(f"the same of one that is prepared, {count} mails", "ms", [one[0] for one in ahead], of(empty, "start"), "an empty window, its service running")
    emit(f"the bus's word to the list of one that is prepared, {count} mails", "ms", [one[1] for one in ahead], of(empty, "start"), "an empty window, its service running")
    emit(f"exec to the list, {count} mails, beside rows", "ms", of(app, "start"), of(rows, "start"), "a plain genlist")
    emit(f"proportional memory, {count} mails", "MiB", of(app, "pss"), of(rows, "pss"), "a plain genlist")
    emit(f"private memory, {count} mails", "MiB", of(app, "own"), of(rows, "own"), "a plain genlist")
    emit(f"peak resident memory, {count} mails", "MiB", of(app, "peak"), of(rows, "peak"), "a plain genlist")
    emit(f"scroll frame, 99th percentile, {count} mails", "ms", of(app, "frames"), of(rows, "frames"), "a plain genlist")
    emit(f"a notification touched, cold, to the mail's text, {count} mails", "ms", cold, of(app, "start"), "exec to the list")
    emit(f"a notification touched, warm, to the mail's text, {count} mails", "ms", warm, cold, "cold")
    if hour:
        emit(f"private memory after 10 mails opened, {count} mails", "MiB", [hour[1]], [hour[0]], "its start")
        emit(f"private memory after an hour's use, {count} mails", "MiB", [hour[2]], [hour[3]], "a fresh start")

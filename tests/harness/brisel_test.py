"""Runs a module's test functions (test_*), each in a session of its own, two at a time, and reports them in TAP."""
import concurrent.futures
import inspect
import os
import pathlib
import signal
import subprocess
import sys
import traceback

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(TOP / "tools" / "lib"), str(TOP / "tests" / "screens")]
from brisel_drive import PATIENCE, BUILD, Bus, Session, ToolError, mail, middle  # noqa: E402,F401


def equal(actual, expected, what=""):
    assert actual == expected, f"{what}: got {actual!r}, expected {expected!r}"


def owner(s, name):
    """The process that has the name on the bus; None without one."""
    out = s.run("dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
                "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{name}", check=False)
    return int(out.stdout.split()[-1]) if out.returncode == 0 else None


def kill_owner(s, name, how=signal.SIGKILL):
    """Kills the program that has the name on the bus, and returns which process it was."""
    pid = owner(s, name)
    os.kill(pid, how)
    return pid


def kill_service(s, how=signal.SIGKILL):
    """The next one who asks the service for something starts it again. Returns which process it was."""
    return kill_owner(s, "com.vextora.brisel.Host", how)


def start_display(env):
    """A plain X display without a screen or a window manager: its process, and the name that clients know it by."""
    read, write = os.pipe()
    process = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-screen", "0", "640x480x24", "-nolisten", "tcp"], env=env,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, pass_fds=(write,))
    os.close(write)
    with os.fdopen(read) as told:
        return process, ":" + told.readline().strip()


def outcome(test):
    """Runs one test in its session; what went wrong as lines, or nothing."""
    session = None
    try:
        options = getattr(test, "session", {})
        if options is None:
            test()
        else:
            session = Session(**options)
            test(session)
        return []
    except Exception:
        lines = traceback.format_exc().rstrip().splitlines()
        if session and os.environ.get("BRISEL_SHOW_LOG"):
            lines += ["log: " + line for line in session.log().splitlines()[-60:]]
        return lines
    finally:
        if session:
            session.close()


def main(module_globals):
    """Every test_* function takes a Session; one marked with .session = None makes its own. A name on the command
    line runs only the tests that hold it. They mostly wait, each in a session of its own: a few run side by side."""
    tests = [(name, f) for name, f in module_globals.items() if name.startswith("test_") and inspect.isfunction(f)]
    wanted = sys.argv[1:]
    if wanted:
        tests = [t for t in tests if any(w in t[0] for w in wanted)]
    print(f"1..{len(tests)}", flush=True)
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("BRISEL_TEST_JOBS", "2"))) as pool:
        runs = [(name, pool.submit(outcome, test)) for name, test in tests]
        for number, (name, run) in enumerate(runs, 1):
            lines = run.result()
            failed += bool(lines)
            print(f"{'not ok' if lines else 'ok'} {number} - {name}", flush=True)
            for line in lines:  # who runs many programs shows what one says on its error output
                print(f"# {line}", flush=True)
                print(f"{name}: {line}", file=sys.stderr)
    sys.exit(1 if failed else 0)


def options(**kw):
    """Marks a test with the options of its session, or None for none."""
    def mark(test):
        test.session = kw or None
        return test
    return mark

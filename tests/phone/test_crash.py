"""Kills the host service, the relay and the reader again and again, at random points, while mail comes and goes: see
torture.py.   BRISEL_CRASH_ROUNDS (kills, default 200) and BRISEL_CRASH_SEED choose how much and which."""
import contextlib
import os

from phone_test import host_pid, main
from torture import torture

ROUNDS = int(os.environ.get("BRISEL_CRASH_ROUNDS", "200"))
SEED = int(os.environ.get("BRISEL_CRASH_SEED", "0")) or int.from_bytes(os.urandom(3), "big")


def test_kills_at_random_points(s):
    print(f"# seed {SEED}, {ROUNDS} kills", flush=True)

    def kill(world, n):
        victim = world.rng.choice(["service", "relay", "reader"])
        if victim == "service":
            pid = host_pid(s)
            with contextlib.suppress(ProcessLookupError):  # it may just be ending, by the link it lost
                if pid:
                    os.kill(pid, 9)
        elif victim == "relay":
            world.relay.kill()
            world.relay.start()
        else:
            world.start_reader(n)

    torture(s, ROUNDS, SEED, kill)


if __name__ == "__main__":
    main(globals())

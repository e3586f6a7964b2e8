"""A network that can be made worse while it is used: a TCP listener that passes bytes on to an address or to a command,
and cuts, holds, slows or spoils them on demand. In a thread of its own.  Alone: cut_proxy.py PORT joins standard input and
output to that port, for a carrier that is a command."""
import os
import random
import select
import socket
import subprocess
import sys
import threading
import time

# pass: as they come.  stall: nothing passes, nobody is told.  half: nothing passes to the phone, nobody is told.
# drop: both ends are closed.  reset: the same, with a reset.  trickle: one byte at a time.  garbage: bytes that nobody sent.
# ghost: what is connected is forgotten without a word to either end; new connections pass.
MODES = ("pass", "stall", "half", "drop", "reset", "trickle", "garbage", "ghost")


class Cut:
    def __init__(self, to, env=None, delay=0, rate=0, host="127.0.0.1"):
        """to: an address, or a command. delay: seconds each way; rate: bytes a second each way."""
        self.to, self.env, self.delay, self.rate = to, env, delay, rate
        self.mode, self.random = "pass", random.Random(1)
        self.ghosts = 0  # connections up to that number are forgotten
        self.bytes = [0, 0]  # to the watch, to the phone
        self.connections = 0
        self.listener = socket.create_server((host, 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def set(self, mode):
        if mode == "ghost":
            self.ghosts = self.connections
        self.mode = mode

    def accept(self):
        while True:
            try:
                phone = self.listener.accept()[0]
            except OSError:
                return
            phone.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.connections += 1
            threading.Thread(target=self.serve, args=(phone, self.connections), daemon=True).start()

    def reach(self):
        """The other end, and the command's process or None."""
        if isinstance(self.to, tuple):
            return socket.create_connection(self.to), None
        ours, theirs = socket.socketpair()
        process = subprocess.Popen(self.to, stdin=theirs, stdout=theirs, env=self.env, stderr=subprocess.DEVNULL)
        theirs.close()
        return ours, process

    def serve(self, phone, number):
        if self.mode in ("stall", "half"):  # not even an answer
            while self.mode in ("stall", "half"):
                if select.select([phone], [], [], 0.02)[0] and not phone.recv(1, socket.MSG_PEEK):
                    break
                time.sleep(0.02)
            return phone.close()
        try:
            watch, process = self.reach()
        except OSError:
            return phone.close()
        try:
            self.join(phone, watch, number)
            while number <= self.ghosts and self.mode != "drop" and watch.recv(65536):
                pass  # to nowhere, until the watch gives up
        except OSError:
            pass
        phone.close()
        watch.close()
        if process:
            process.wait()

    def join(self, phone, watch, number):
        ends, held = (phone, watch), ([], [])  # what is held back: (when, bytes), by direction
        free = [0.0, 0.0]  # when the line of a direction is free again
        while True:
            mode, now = self.mode, time.monotonic()
            if mode in ("drop", "reset"):
                if mode == "reset":
                    phone.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
                return
            if number <= self.ghosts:
                return
            for way, queue in enumerate(held):
                while queue and queue[0][0] <= now and not (mode == "stall" or mode == "half" and way == 1):
                    ends[1 - way].sendall(queue.pop(0)[1])
            due = [queue[0][0] - now for queue in held if queue]
            wait = max(0.0, min(due + [0.02])) if mode != "pass" or due else 0.05
            # What cannot leave is not taken in either: a full network pushes back.
            ready = select.select([e for e, q in zip(ends, held) if len(q) < 64 and mode != "stall"], [], [], wait)[0]
            if not ready and mode == "stall":
                time.sleep(0.02)
            for way, end in enumerate(ends):
                if end not in ready:
                    continue
                data = end.recv(1 if mode == "trickle" else 4096)
                if not data:
                    return
                self.bytes[way] += len(data)
                if mode == "garbage":
                    data = self.random.randbytes(self.random.randint(1, 64)) + data
                free[way] = max(free[way], now) + (len(data) / self.rate if self.rate else 0)
                held[way].append((free[way] + self.delay, data))

    def close(self):
        self.listener.close()
        self.mode = "drop"


if __name__ == "__main__":
    line = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
    while True:
        for source in select.select([0, line], [], [])[0]:
            got = os.read(0, 65536) if source == 0 else line.recv(65536)
            if not got:
                sys.exit(0)
            line.sendall(got) if source == 0 else os.write(1, got)

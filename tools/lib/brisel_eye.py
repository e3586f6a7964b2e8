"""Asks the application of a private session what is on its screen, as brisel-watchctl does; but who waits looks many
times, and starting a program for each look takes ten times the work of the look. Standard library only."""
import contextlib
import ctypes
import threading

APPLICATION = (b"com.vextora.brisel", b"/com/vextora/brisel", b"com.vextora.Inspect1")
ANSWER_USEC = 30_000_000
POINTER, NUMBER, TEXT = ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p
# What libsystemd's functions take; each returns a number below 0 when it fails.
TAKES = {
    "sd_bus_new": [POINTER], "sd_bus_set_address": [POINTER, TEXT], "sd_bus_set_bus_client": [POINTER, NUMBER], "sd_bus_start": [POINTER],
    "sd_bus_flush_close_unref": [POINTER], "sd_bus_message_new_method_call": [POINTER, POINTER, TEXT, TEXT, TEXT, TEXT],
    "sd_bus_message_set_auto_start": [POINTER, NUMBER], "sd_bus_message_append_basic": [POINTER, ctypes.c_char, POINTER],
    "sd_bus_send": [POINTER, POINTER, POINTER],
    "sd_bus_call": [POINTER, POINTER, ctypes.c_uint64, POINTER, POINTER], "sd_bus_message_read_basic": [POINTER, ctypes.c_char, POINTER],
    "sd_bus_message_unref": [POINTER]}


class Eye:
    """One connection to a session's bus, made at the first look and anew after a look that failed. Any thread."""

    def __init__(self, address):
        self.address, self.bus, self.lock = address.encode(), POINTER(), threading.Lock()
        self.library = ctypes.CDLL("libsystemd.so.0")
        for name, takes in TAKES.items():
            getattr(self.library, name).argtypes = takes

    def __call__(self, name, *values):
        if getattr(self.library, name)(*values) < 0:
            raise OSError(name)

    def ask(self, *calls):
        """Calls the inspection, (method, argument...) each, one directly behind the other. Returns the last one's answer,
        a text or "", or None without one: brisel-watchctl tells why."""
        try:
            with self.lock:
                return self.asked(calls)
        except OSError:
            self.close()
            return None

    def asked(self, calls):
        if not self.bus:
            self("sd_bus_new", ctypes.byref(self.bus))
            self("sd_bus_set_address", self.bus, self.address)
            self("sd_bus_set_bus_client", self.bus, 1)
            self("sd_bus_start", self.bus)
        with contextlib.ExitStack() as used:
            for call in calls:
                message = self.message(*call)
                used.callback(self.library.sd_bus_message_unref, message)
                if call is not calls[-1]:
                    self("sd_bus_send", self.bus, message, None)
            answer, got = POINTER(), TEXT()
            self("sd_bus_call", self.bus, message, ANSWER_USEC, None, ctypes.byref(answer))
            used.callback(self.library.sd_bus_message_unref, answer)
            self.library.sd_bus_message_read_basic(answer, b"s", ctypes.byref(got))
            return (got.value or b"").decode()

    def message(self, method, *arguments):
        made = POINTER()
        self("sd_bus_message_new_method_call", self.bus, ctypes.byref(made), *APPLICATION, method.encode())
        self("sd_bus_message_set_auto_start", made, 0)
        for value in arguments:
            kind, given = (b"s", value.encode()) if isinstance(value, str) else (b"i", ctypes.byref(NUMBER(value)))
            self("sd_bus_message_append_basic", made, kind, given)
        return made

    def close(self):
        with self.lock:
            if self.bus:
                self.library.sd_bus_flush_close_unref(self.bus)
                self.bus = POINTER()

"""Calls over a bus of a private session, as busctl does; but who waits for something asks many times, and starting a
program for each question takes ten times the work of the answer. Standard library only, over libsystemd."""
import contextlib
import ctypes
import threading

ANSWER_USEC = 30_000_000
POINTER, NUMBER, TEXT, LETTER = ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p, ctypes.c_char
# What libsystemd's functions take; each returns a number below 0 when it fails.
TAKES = {
    "sd_bus_new": [POINTER], "sd_bus_set_address": [POINTER, TEXT], "sd_bus_set_bus_client": [POINTER, NUMBER], "sd_bus_start": [POINTER],
    "sd_bus_flush_close_unref": [POINTER], "sd_bus_message_new_method_call": [POINTER, POINTER, TEXT, TEXT, TEXT, TEXT],
    "sd_bus_message_set_auto_start": [POINTER, NUMBER], "sd_bus_message_append_basic": [POINTER, LETTER, POINTER],
    "sd_bus_send": [POINTER, POINTER, POINTER], "sd_bus_call": [POINTER, POINTER, ctypes.c_uint64, POINTER, POINTER],
    "sd_bus_message_peek_type": [POINTER, POINTER, POINTER], "sd_bus_message_enter_container": [POINTER, LETTER, TEXT],
    "sd_bus_message_exit_container": [POINTER], "sd_bus_message_read_basic": [POINTER, LETTER, POINTER], "sd_bus_message_unref": [POINTER]}


class Bus:
    """One connection, made at the first call and anew after one that failed. Any thread."""

    def __init__(self, address):
        self.address, self.bus, self.lock = address.encode(), POINTER(), threading.Lock()
        self.library = ctypes.CDLL("libsystemd.so.0")
        for name, takes in TAKES.items():
            getattr(self.library, name).argtypes = takes

    def __call__(self, name, *values):
        result = getattr(self.library, name)(*values)
        if result < 0:
            raise OSError(-result, name)
        return result

    def call(self, name, path, interface, *calls):
        """Calls methods there, (method, text or number...) each, one directly behind the other. Returns the last one's answer
        as a list of texts, numbers and such lists, or None without one. Starts no program that is not there."""
        try:
            with self.lock:
                return self.answer([word.encode() for word in (name, path, interface)], calls)
        except OSError:
            self.close()
            return None

    def answer(self, where, calls):
        if not self.bus:
            self("sd_bus_new", ctypes.byref(self.bus))
            self("sd_bus_set_address", self.bus, self.address)
            self("sd_bus_set_bus_client", self.bus, 1)
            self("sd_bus_start", self.bus)
        with contextlib.ExitStack() as used:
            for call in calls:
                message = self.message(where, *call)
                used.callback(self.library.sd_bus_message_unref, message)
                if call is not calls[-1]:
                    self("sd_bus_send", self.bus, message, None)
            answer = POINTER()
            self("sd_bus_call", self.bus, message, ANSWER_USEC, None, ctypes.byref(answer))
            used.callback(self.library.sd_bus_message_unref, answer)
            return self.values(answer)

    def message(self, where, method, *arguments):
        made = POINTER()
        self("sd_bus_message_new_method_call", self.bus, ctypes.byref(made), *where, method.encode())
        self("sd_bus_message_set_auto_start", made, 0)
        for value in arguments:
            kind, given = (b"s", value.encode()) if isinstance(value, str) else (b"i", ctypes.byref(NUMBER(value)))
            self("sd_bus_message_append_basic", made, kind, given)
        return made

    def values(self, message):
        """What is left of a message, or of the part of it that was entered."""
        found, kind, holds = [], LETTER(), TEXT()
        while self("sd_bus_message_peek_type", message, ctypes.byref(kind), ctypes.byref(holds)) > 0:
            if kind.value in b"aerv":
                self("sd_bus_message_enter_container", message, kind, holds)
                found.append(self.values(message))
                self("sd_bus_message_exit_container", message)
            else:
                value = TEXT() if kind.value in b"sog" else ctypes.c_uint64()  # numbers: as if all were unsigned
                self("sd_bus_message_read_basic", message, kind, ctypes.byref(value))
                found.append(value.value.decode() if kind.value in b"sog" else value.value)
        return found

    def close(self):
        with self.lock:
            if self.bus:
                self.library.sd_bus_flush_close_unref(self.bus)
                self.bus = POINTER()

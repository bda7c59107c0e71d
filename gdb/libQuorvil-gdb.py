"""What gdb knows of Quorvil: its values in words, and the flight recorder of a process that runs or has died.

gdb loads this file by itself when it stands in its auto-load folder under the library's name. From elsewhere one line in
~/.gdbinit or at the prompt does it: source <this file>. docs/debugger.md shows a session.

Everything is read from memory: no function of the process is called, so that a core file will do and a live process stays
as it is. Types come from the debug information of the library, which a stripped one has in a file of its own or not at all.
"""

import datetime
import re

import gdb
import gdb.printing


# Values


def target(value):
    """What a reference, a pointer or a shared pointer leads to; the value itself if it is none of them, None for null."""
    while True:
        kind = value.type.strip_typedefs()
        if kind.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        elif kind.code == gdb.TYPE_CODE_PTR:
            if int(value) == 0:
                return None
            value = value.dereference()
        elif re.match(r"std::(__\w+::)?shared_ptr<", kind.unqualified().name or ""):
            value = value["_M_ptr"]
        else:
            return value


def text_of(string):
    """A std::string's text; bytes that are no UTF-8 stand as escapes."""
    length = int(string["_M_string_length"])
    if length == 0:
        return ""
    return bytes_at(string["_M_dataplus"]["_M_p"], length).decode("utf-8", "backslashreplace")


def bytes_at(pointer, length):
    return bytes(gdb.selected_inferior().read_memory(int(pointer), length)) if length else b""


def enumerator(value):
    """The name of an enumeration's value without its scope, or its number in brackets."""
    for field in value.type.strip_typedefs().fields():
        if field.enumval == int(value):
            return field.name.rpartition("::")[2]
    return f"(state {int(value)})"


def counted(number, noun):
    return f"{number} {noun}" if number == 1 else f"{number} {noun}s"


def lwp_in_words(lwp):
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == lwp:
            return f"thread {thread.num} (LWP {lwp})"
    return f"LWP {lwp}"


def lock_in_words(mutex):
    """The owner and the levels of a pthread_mutex_t."""
    data = mutex["__data"]
    if int(data["__lock"]) == 0:
        return "free"
    return f"held by {lwp_in_words(int(data['__owner']))}, {counted(int(data['__count']), 'level')}"


# Printers


class TimeSpecPrinter:
    """util::TimeSpec as it writes itself to a stream."""

    def __init__(self, value):
        self.seconds = int(value["ts"]["tv_sec"])
        self.nanoseconds = int(value["ts"]["tv_nsec"])

    def to_string(self):
        normal = abs(self.nanoseconds) < 10**9 and self.seconds * self.nanoseconds >= 0
        return f"TimeSpec({self.seconds}s; {self.nanoseconds}ns)" + ("" if normal else ", not in normal form")


class StringPrinter:
    """tolmen::mystring and tolmen::mywstring, quoted by gdb, as long as its `print elements` allows."""

    def __init__(self, value):
        self.string = value.cast(value.type.fields()[0].type)

    def to_string(self):
        length = int(self.string["_M_string_length"])
        return self.string["_M_dataplus"]["_M_p"].lazy_string(length=length)

    def display_hint(self):
        return "string"


class ThreadPrinter:
    """util::Thread and its util::ThreadInternals: name and state."""

    def __init__(self, value):
        names = [field.name for field in value.type.fields()]
        self.internals = value["internals"] if "internals" in names else value

    def to_string(self):
        state = enumerator(self.internals["state"]["_M_i"])
        return f"Thread \"{text_of(self.internals['name'])}\" {state}, pthread_t {int(self.internals['handle']):#x}"


class PrepStatPrinter:
    """sqlite3cpp::PrepStat: its state and the last result of SQLite."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return f"PrepStat {enumerator(self.value['state'])}, last result {int(self.value['result'])}"


class DbConPrinter:
    """sqlite3cpp::DbCon: whether it is open."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return f"DbCon {'open' if self.value['valid'] else 'not open'}, sqlite3 {int(self.value['sql']):#x}"


class SemaphorePrinter:
    """util::CountingSemaphore: state, counts and waiters."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        # The C library keeps the counts in the lower word where it has 64-bit atomics, and one bit to the left elsewhere.
        word = int.from_bytes(bytes_at(self.value["sem"].address, 4), "little")
        counts = word if gdb.lookup_type("long").sizeof == 8 else word >> 1
        return (f"CountingSemaphore {enumerator(self.value['state'])}, {counted(counts, 'count')}, "
                f"{counted(int(self.value['waiters']), 'waiter')}")


class LockGroupPrinter:
    """quorvil::sync::LockGroup: who holds it, and whether it was interrupted."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        interrupted = ", interrupted" if self.value["interrupted"] else ""
        return f"LockGroup {lock_in_words(self.value['mutex']['_M_mutex'])}{interrupted}"


class GuardPrinter:
    """quorvil::sync::Guard: where the lock was asked for, how long that took, and since when it is held."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        if int(self.value["group"]) == 0:
            return "Guard that holds nothing"
        requested, acquired = (int(self.value[name]["__d"]["__r"]) for name in ("requestedAt", "acquiredAt"))
        seconds, nanoseconds = divmod(acquired, 10**9)
        since = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%d %H:%M:%S")
        return (f"Guard of LockGroup {int(self.value['group']):#x}, taken in {text_of(self.value['file'])}:"
                f"{int(self.value['line'])} at {since}.{nanoseconds:09} UTC after {(acquired - requested) // 1000} us")


class LimitedBufferPrinter:
    """util::LimitedBuffer in one line; the text is told by quorvil-recorder."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        capacity = int(self.value["end"]) - int(self.value["begin"])
        lists = int(self.value["stateValues"]["numEntries"])
        return f"LimitedBuffer with {int(self.value['size'])} of {counted(capacity, 'byte')}, {counted(lists, 'list')}"


class Printers(gdb.printing.RegexpCollectionPrettyPrinter):
    """The printers by the names of their types; without debug information of a type there is none."""

    def __call__(self, value):
        kind = value.type.strip_typedefs()
        if kind.code == gdb.TYPE_CODE_STRUCT and kind.fields():
            return super().__call__(value)
        return None


def register():
    printers = Printers("Quorvil")
    for name, printer in [
            ("util::TimeSpec", TimeSpecPrinter), ("tolmen::mystring", StringPrinter), ("tolmen::mywstring", StringPrinter),
            ("util::Thread", ThreadPrinter), ("util::ThreadInternals", ThreadPrinter),
            ("sqlite3cpp::PrepStat", PrepStatPrinter), ("sqlite3cpp::DbCon", DbConPrinter),
            ("util::CountingSemaphore", SemaphorePrinter), ("quorvil::sync::LockGroup", LockGroupPrinter),
            ("quorvil::sync::Guard", GuardPrinter), ("util::LimitedBuffer", LimitedBufferPrinter)]:
        printers.add_printer(name, f"^{name}$", printer)
    gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)


# The flight recorder


class Recorder:
    """The content of a util::LimitedBuffer, copied out of memory."""

    def __init__(self, buffer):
        begin, end, after = (int(buffer[name]) for name in ("begin", "end", "next"))
        self.capacity, self.size, self.after = end - begin, int(buffer["size"]), after - begin
        lists = buffer["stateValues"]
        self.length, self.entries = int(lists["bytesPerValueList"]), int(lists["numEntries"])
        slots = lists["posBuf"].type.range()[1] + 1
        slot = (int(lists["nextPos"]) - int(lists["posBuf"].address)) // lists["posBuf"].type.target().sizeof
        if not (0 < self.capacity and 0 <= self.after < self.capacity and self.size <= self.capacity and
                self.length >= 0 and 0 <= self.entries <= slots and 0 <= slot < slots):
            raise gdb.GdbError("the recorder is damaged: its fields do not fit together (print /r shows them)")
        self.locked = int(buffer["mutex"]["_M_mutex"]["__data"]["__lock"]) != 0

        ring = bytes_at(begin, self.capacity)
        self.start = (self.after - self.size) % self.capacity
        self.text = (ring[self.start:] + ring[:self.start])[:self.size]
        values = bytes_at(lists["valueBuf"], slots * self.length)
        oldest = [(slot - self.entries + i) % slots for i in range(self.entries)]
        self.lists = [(self.place(int(lists["posBuf"][i])), values[i * self.length:(i + 1) * self.length]) for i in oldest]

    def place(self, position):
        """Where a list stands in the text. One at the place of the next byte stands behind all text."""
        if position == self.after:
            return self.size
        return min((position - self.start) % self.capacity, self.size)

    def parts(self):
        """Runs of text as bytes and lists as one-element tuples, in the order of `LimitedBuffer::print`."""
        done = 0
        for place, values in self.lists:
            yield self.text[done:max(place, done)]
            done = max(place, done)
            yield (values,)
        yield self.text[done:]


class RecorderCommand(gdb.Command):
    """Print a flight recorder, of a live process or out of a core file.

Usage: quorvil-recorder [-as TYPE] [EXPRESSION]

EXPRESSION is a util::LimitedBuffer or leads to one by pointers, shared pointers or references; without it the process's own
is printed, util::gl_pTrenvikLimitedBuffer. The text stands from the oldest to the newest byte in the frame of
LimitedBuffer::print, and each state-value list at its place: its bytes, or its value as a TYPE of the program. The function
that formats the lists in the process is not called. Bytes that cannot be shown are escaped as \\xNN."""

    def __init__(self):
        super().__init__("quorvil-recorder", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        option = re.match(r"\s*-as\s+(\"[^\"]+\"|\S+)\s*(.*)", argument, re.S)
        shape = self.type_named(option[1].strip('"')) if option else None
        expression = (option[2] if option else argument).strip() or "util::gl_pTrenvikLimitedBuffer"
        recorder = Recorder(self.buffer(expression))
        if shape and recorder.entries and shape.sizeof != recorder.length:
            raise gdb.GdbError(f"a list has {counted(recorder.length, 'byte')}, a {shape} {shape.sizeof}")
        write("\n\n======== LIMITED BUFFER CONTENT ========\n\n")
        for part in recorder.parts():
            write(readable(part) if isinstance(part, bytes) else self.list_in_words(part[0], shape))
        write("\n==============\n\n")
        if recorder.locked:
            write("(A thread was inside the recorder: the newest text may be half there.)\n")

    def type_named(self, name):
        try:
            return gdb.lookup_type(name)
        except gdb.error as error:
            raise gdb.GdbError(str(error)) from None

    def buffer(self, expression):
        try:
            value = gdb.parse_and_eval(expression)
        except gdb.error as error:
            raise gdb.GdbError(f"{error}\n(Has gdb found the debug information of the library?)") from None
        value = target(value)
        if value is None:
            raise gdb.GdbError(f"no recorder is installed: {expression} is empty")
        if value.type.strip_typedefs().unqualified().name != "util::LimitedBuffer":
            raise gdb.GdbError(f"{expression} is a {value.type}, not a util::LimitedBuffer")
        if not value.type.fields():
            raise gdb.GdbError("the debug information of the library is missing")
        return value

    def list_in_words(self, values, shape):
        if shape:
            return f"[{gdb.Value(values, shape).format_string(max_elements=0)}]\n"
        return f"[{values.hex(' ')}]\n"


def readable(text):
    """The text of bytes, with line ends and tabs as they are and other control characters as escapes."""
    decoded = text.decode("utf-8", "backslashreplace")
    return re.sub(r"[\x00-\x08\x0b-\x1f\x7f]", lambda match: f"\\x{ord(match[0]):02x}", decoded)


def write(text):
    try:
        gdb.write(text)
    except UnicodeEncodeError:
        gdb.write(text.encode("ascii", "backslashreplace").decode("ascii"))


register()
RecorderCommand()

"""The Device: one session with the library, its registers, files and transfers."""
from __future__ import annotations

import atexit
import ctypes
import errno
import io
import logging
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import traceback
import weakref
from typing import Callable, Optional

from . import _library
from ._errors import CANCELLED, NO_REPLY, DeviceTimeout, TransferCancelled, VukraError, error_class, status_words
from ._registers import Registers

log = logging.getLogger("modbus_vukra")

# The library's reply time-out, fixed inside it for every session.
LIBRARY_TIMEOUT = 4.0
TABLE_FILE = "table.xml"

# The working directory is the process's: opens that move it are taken one at a time.
_directory_lock = threading.Lock()

# The open devices, closed when the interpreter ends: the timer thread must
# not call a status handler into an interpreter that is going away.
_open_devices: "weakref.WeakSet[Device]" = weakref.WeakSet()


@atexit.register
def _close_all() -> None:
    for device in list(_open_devices):
        device.close()


def _caller() -> str:
    """FILE:LINE of the first caller outside this package."""
    here = os.path.dirname(os.path.abspath(__file__))
    for frame in reversed(traceback.extract_stack()):
        if os.path.dirname(os.path.abspath(frame.filename)) != here:
            return f"{frame.filename}:{frame.lineno}"
    return "an unknown place"


def _port_name(port) -> bytes:
    if not isinstance(port, (str, bytes, os.PathLike)):
        raise TypeError(f"port must be a str or a path, not {type(port).__name__}")
    name = os.fsencode(port)
    if b"\0" in name or not name:
        raise ValueError("port must be a non-empty name without NUL")
    return name


# Run in a child process: the library's own reader on the table.xml of the
# working directory, through a session on a pseudo-terminal that nothing
# answers. The reader ends its process on a table it cannot read.
_READER_CHECK = """
import ctypes, os, sys
lib = ctypes.CDLL(sys.argv[1])
lib.modbus_vukra_op_session_open.restype = ctypes.c_void_p
lib.modbus_vukra_op_session_open.argtypes = [ctypes.c_char_p]
master, slave = os.openpty()
loaded = lib.modbus_vukra_op_session_open(os.fsencode(os.ttyname(slave)))
os.write(2, b"table loaded" if loaded else b"no session")
os._exit(0)
"""


def _check_with_library_reader(lib, directory: str, table: str) -> None:
    """Refuses a table the library's reader would end the process on (Python's parser takes more).

    POSIX only: the check needs a pseudo-terminal for the child's session.
    """
    if os.name != "posix" or not sys.executable:
        return
    try:
        child = subprocess.run([sys.executable, "-c", _READER_CHECK, lib.path], cwd=directory,
                               stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
    except subprocess.TimeoutExpired:
        raise VukraError(f"cannot load the register table {table}: the library's reader did not end") from None
    if child.stderr.endswith(b"table loaded"):
        return
    said = [line.strip() for line in child.stdout.decode(errors="replace").splitlines() if line.startswith("Xml")]
    raise VukraError(f"cannot load the register table {table}: "
                     + (said[-1] if said else "the library's reader refused it"))


def _open_with_table(lib, port: bytes, table: str):
    """Opens a session whose register table is the file table.

    The library reads "table.xml" from the working directory when it opens
    a session. As the command-line tools let --table name any file, so does
    open: when table is not ./table.xml already, the working directory
    moves for the duration of the open call to a directory holding the
    table as "table.xml" (its own directory when it bears that name, else a
    scratch directory with a copy), and comes back before open returns.
    The working directory belongs to the whole process: while the open
    runs, another thread's relative paths resolve there, and opens are
    taken one at a time. The table is first read by the library's reader
    in a child process, as that reader ends the process on a table it
    cannot read.
    """
    table = os.path.abspath(table)
    here = os.getcwd()
    with _directory_lock:
        scratch = None
        try:
            if os.path.basename(table) == TABLE_FILE:
                directory = os.path.dirname(table)
            else:
                scratch = directory = tempfile.mkdtemp(prefix="modbus_vukra-")
                shutil.copyfile(table, os.path.join(scratch, TABLE_FILE))
            _check_with_library_reader(lib, directory, table)
            if directory == here:
                return lib.session_open(port)
            os.chdir(directory)
            try:
                return lib.session_open(port)
            finally:
                os.chdir(here)
        finally:
            if scratch is not None:
                shutil.rmtree(scratch, ignore_errors=True)


def open(port, table: str = TABLE_FILE, timeout: Optional[float] = None) -> "Device":  # noqa: A001
    """Opens a session with the device on the serial port (a device path, or "COM1" on Windows).

    table is the register table file, from the caller's working directory
    or absolute; timeout is how long each request waits for its reply: the
    library's 4 seconds (None) is the only one it has, and any other value
    raises ValueError. Only one session is open per process at a time (a second
    raises VukraError, errno EBUSY, saying where the first was opened). A port that
    cannot be opened raises the OSError for the library's reason (FileNotFoundError
    "no such device", PermissionError, ENOTTY "not a serial port", ConnectionRefusedError).
    Use it as a context manager, or close() it.
    """
    name = _port_name(port)
    if not isinstance(table, (str, os.PathLike)):
        raise TypeError(f"table must be a path, not {type(table).__name__}")
    table = os.fspath(table)
    if "\0" in table:
        raise ValueError("table must not hold NUL")
    if timeout is not None:
        if not isinstance(timeout, (int, float)) or isinstance(timeout, bool):
            raise TypeError(f"timeout must be a number of seconds or None, not {type(timeout).__name__}")
        if timeout != LIBRARY_TIMEOUT:
            raise ValueError(f"the library waits {LIBRARY_TIMEOUT:g} s for every reply; it cannot wait {timeout} s")
    from . import _table
    registers = _table.load(table)  # refuses a malformed table before the library sees it
    lib = _library.library()
    handle = _open_with_table(lib, name, table)
    # Why the open failed, asked on this thread at once: the library keeps it per thread. A serial
    # port that does not open still gives a session (every request would fail): refused here.
    code, words = lib.explain_status(0)
    if handle and code:
        lib.session_close(handle)
    if not handle or code:
        port_name = os.fsdecode(name)
        if code == errno.EBUSY:
            words += "".join(f" (opened at {d._opened_at} on {d.port})" for d in list(_open_devices)[:1])
        if code == 0:
            code, words = errno.EIO, f"cannot open a session on {port_name}"
        raise error_class(code)(words, None, code, port_name)
    return Device(lib, handle, os.fsdecode(name), table, registers)


class Device:
    """A session with one device: registers, files, image transfers, notifications.

    Calls from several threads are taken one at a time; cancel() may come
    from any thread at any moment.
    """

    def __init__(self, lib, handle: int, port: str, table: str, registers):
        self._lib = lib
        self._handle: Optional[int] = handle
        self._lock = threading.RLock()   # one operation (or one file transfer step) at a time
        self._life = threading.Lock()    # held while the handle is used outside _lock, or cleared
        self._mounted = False
        self._callbacks = []             # the ctypes callback objects, kept alive until the close
        self._cancel_asked = False
        self._transferring = False
        self._files = weakref.WeakSet()
        self.port = port
        self.table = table
        self.timeout = LIBRARY_TIMEOUT
        self._registers = registers
        self._current_file = None
        self._last_call = None
        self._opened_at = _caller()
        # Nothing of the Device refers back to it (registers, fs and the current file are made
        # or held weakly), so dropping its last reference closes the session at once.
        _open_devices.add(self)

    @property
    def registers(self) -> Registers:
        """The device's registers by name (see Registers)."""
        return Registers(self, self._registers)

    @property
    def fs(self):
        """The device's filesystem (see FileSystem)."""
        from ._files import FileSystem
        return FileSystem(self)

    @property
    def current_file(self):
        """The file object whose handle the session holds, if any."""
        return self._current_file() if self._current_file is not None else None

    @current_file.setter
    def current_file(self, file) -> None:
        self._current_file = weakref.ref(file) if file is not None else None

    # -- life ---------------------------------------------------------------
    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<modbus_vukra.Device {self.port} {'closed' if self.closed else 'open'}>"

    @property
    def closed(self) -> bool:
        return self._handle is None

    def close(self) -> None:
        """Closes the session; its files flush what they hold first, and a transfer running on
        another thread is cancelled. Closing twice does nothing."""
        if self._transferring:
            self.cancel()
        with self._lock:
            if self._handle is None:
                return
            # The outer objects first: text into its buffer, the buffer into the raw file.
            layer = lambda f: 0 if isinstance(f, io.TextIOBase) else 1 if isinstance(f, io.BufferedIOBase) else 2
            for f in sorted(self._files, key=layer):
                try:
                    f.close()
                except Exception as error:  # the device may be gone: the session closes anyway
                    log.warning("modbus_vukra: closing %s: %s", getattr(f, "name", "a file"), error)
            with self._life:
                handle, self._handle = self._handle, None
            _open_devices.discard(self)
        # Outside the lock: the close waits for a running status callback,
        # which may itself be waiting for the lock.
        self._lib.session_close(handle)
        self._callbacks = []

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    def call(self, name: str, *arguments):
        """Calls the export name on this session under the device's lock."""
        with self._lock:
            if self._handle is None:
                raise VukraError("the device is closed")
            if name != "session_error":
                self._last_call = name
            return getattr(self._lib, name)(self._handle, *arguments)

    def error(self) -> int:
        """The session's error word: the status of the last operation."""
        return self.call("session_error")

    def info(self) -> list[int]:
        """The seven words of session_info: flags, duration, bits per second, direction, phase, progress."""
        words = (ctypes.c_int32 * _library.INFO_WORDS)()
        with self._life:
            if self._handle is None:
                raise VukraError("the device is closed")
            self._lib.session_info(self._handle, words)
        return list(words)

    def ping(self) -> None:
        """The status request; raises when the device does not answer or answers a failure."""
        if self.call("protected_null") != 0:
            self._raise_status("reach", "the device")

    def mount(self) -> None:
        """Mounts the device's filesystem (the file calls do it on first use); from then on the
        session's timer sends a status request once a second and on_status hears of each."""
        with self._lock:
            if self._handle is None:
                raise VukraError("the device is closed")
            if not self._mounted:
                if self.call("protected_mount") != 0:
                    self._raise_status("mount", "the device's filesystem")
                self._mounted = True

    def _raise_status(self, what: str, target: str):
        status = self.error()
        code, words = self._lib.explain_status(status)
        if code == 0:
            code, words = errno.EIO, "the device's reply could not be read"
        raise error_class(code)(f"cannot {what} {target}: {words}", status, code)

    # -- notifications ------------------------------------------------------
    def on_status(self, handler: Optional[Callable[["Device", int], None]]) -> None:
        """Calls handler(device, status) on the session's timer thread after each once-a-second status
        request while mounted (status 0 is an answer, 513 none); None stops it. The handler should return
        promptly; an exception in it is logged on the "modbus_vukra" logger."""
        if handler is not None and not callable(handler):
            raise TypeError("on_status takes a callable or None")
        device = weakref.ref(self)
        lib = self._lib

        def deliver(session):
            # On the timer thread; ctypes holds the GIL while this runs.
            try:
                target = device()
                if target is not None:
                    handler(target, lib.session_error(session))
            except BaseException:
                log.exception("modbus_vukra: the on_status handler raised")

        callback = _library.CALLBACK(deliver) if handler is not None else _library.CALLBACK()
        with self._lock:
            if self.call("session_callback", callback) != 0:
                raise VukraError("cannot set the status callback")
            # Every callback set stays alive until the session is closed: the
            # timer thread may be running the one just replaced.
            self._callbacks.append(callback)

    # -- image transfers ----------------------------------------------------
    def cancel(self) -> None:
        """Asks a running getfs or putfs to stop (it then raises TransferCancelled); from any thread."""
        self._cancel_asked = True
        with self._life:
            if self._handle is not None:
                self._lib.cancelfs(self._handle)

    def getfs(self, progress: Optional[Callable[[int, int], None]] = None) -> None:
        """Copies the device's whole card into the library's local card ("sdcard0.o" in the working
        directory) and mounts it on "/mem": from then on paths holding "/mem" are served from that copy.
        progress(phase, percent) hears the transfer (phase 1 header, 2 data, 3 signature, 4 done; percent
        the share of the card's bytes that cross the line, 100 only when done).
        cancel() or Ctrl-C stops it: TransferCancelled, or KeyboardInterrupt once the session is usable."""
        self._transfer("protected_getfs", 1, progress)

    def putfs(self, progress: Optional[Callable[[int, int], None]] = None, changed_only: bool = False) -> int:
        """Copies the local card back to the device after a getfs; as getfs for progress and cancel.
        A failed or cancelled put leaves the device's card partly written: put it again.
        changed_only: only what was written under /mem since the last getfs or putfs of this process
        (data, then metadata and map, the header last), after checking that the device's card did not
        change meanwhile (VukraError with status -16 if it did: nothing is written). Returns the bytes
        written: 0 when nothing changed (nothing is written); the full put returns 0."""
        if changed_only:
            return self._transfer("protected_putfs_changed", 2, progress)
        self._transfer("protected_putfs", 2, progress)
        return 0

    def _transfer(self, name: str, direction: int, progress) -> int:
        if progress is not None and not callable(progress):
            raise TypeError("progress must be a callable or None")
        with self._lock:
            self.mount()
            self.current_file = None
            result = []
            handle = self._handle  # valid throughout: close waits for the lock
            if handle is None:
                raise VukraError("the device is closed")
            words = (ctypes.c_int32 * _library.INFO_WORDS)()
            line = (ctypes.c_uint64 * 2)()  # the card's bytes that crossed the line, and in all
            transfer, error_word = getattr(self._lib, name), self._lib.session_error

            def run():
                # The error word at once: once the transfer lets the operations
                # lock go, the timer's status request (due since long) takes it
                # and writes its own answer there.
                code = transfer(handle)
                result.append((code, error_word(handle) if code < 0 else 0))

            # The transfer runs on its own thread, so that this one stays free
            # to follow it and to take a Ctrl-C, which becomes a cancel.
            worker = threading.Thread(target=run, name="modbus_vukra " + name[len("protected_"):], daemon=True)
            self._cancel_asked = False
            self._transferring = True
            pending = None  # a Ctrl-C, or what the progress callable raised: raised once the transfer stopped
            last = None
            worker.start()
            while True:
                try:
                    worker.join(0.1)
                    ended = not worker.is_alive()
                    if (pending is not None or self._cancel_asked) and not ended:
                        self._lib.cancelfs(handle)  # asked again: a transfer clears it as it starts
                    self._lib.session_info(handle, words)
                    self._lib.transfer_bytes(handle, line)
                    # The share of the bytes that cross the line, not the progress
                    # word, which runs over every group of the card, used or not.
                    share = 100 if words[5] == 4 else min(line[0] * 100 // line[1], 99) if line[1] else 0
                    seen = (words[5], share)
                    if progress is not None and pending is None and words[4] == direction \
                            and 1 <= seen[0] <= 4 and seen != last:
                        last = seen
                        progress(*seen)
                    if ended:
                        break
                except BaseException as error:
                    pending = pending or error
                    self._lib.cancelfs(handle)
            self._transferring = False
            if pending is not None:
                raise pending
            code, status = result[0]
            if code < 0:
                what = "getfs" if direction == 1 else "putfs"
                if status == CANCELLED or (status == 0 and self._cancel_asked):
                    raise TransferCancelled(f"{what} cancelled", status)
                if status == NO_REPLY:
                    raise DeviceTimeout(f"{what} failed: {status_words(status)}", status)
                if status == 0:  # the library fails so when either card cannot be opened
                    raise VukraError(f"{what} failed: the local card (\"sdcard0.o\" in {os.getcwd()}) "
                                     "could not be opened, or the device's card is not a file", status)
                raise VukraError(f"{what} failed: {status_words(status)}", status)
            return code


__all__ = ["Device", "open"]

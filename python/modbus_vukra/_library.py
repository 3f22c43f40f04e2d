"""Finding the shared library and declaring its exports for ctypes: the 30 of
the op family and the few beyond it.

The library is looked for, in order, at the path in MODBUS_VUKRA_LIBRARY,
beside this package, then by the system's search. It is loaded on first
use, so that ``import modbus_vukra`` works (and its exceptions can be
caught) on a machine where it is missing.
"""
from __future__ import annotations

import ctypes
import ctypes.util
import logging
import os
import sys
import threading
from ctypes import POINTER, c_char_p, c_int32, c_uint32, c_void_p

from ._errors import LibraryNotFound

NAME_SIZE = 256   # bytes of a listing entry's name, its NUL included
TEXT_SIZE = 256   # the longest text register_btoa writes
TRANSFER_SIZE = 256  # the most bytes one register call moves
IO_SIZE = 1024    # the most bytes one file read or write moves
INFO_WORDS = 7


class Attributes(ctypes.Structure):
    _fields_ = [("words", c_uint32 * 4)]


class Usage(ctypes.Structure):
    _fields_ = [("words", c_uint32 * 4)]


class MkfsParams(ctypes.Structure):
    _fields_ = [("words", c_uint32 * 3)]


class DirEntry(ctypes.Structure):
    pass


DirEntry._fields_ = [("name", ctypes.c_char * NAME_SIZE), ("next", POINTER(DirEntry))]

# The host callback: called on the session's timer thread with the session.
CALLBACK = ctypes.CFUNCTYPE(None, c_void_p)

_S = c_void_p  # a modbus_vukra_session *, never looked into

# Every export, once: name after "modbus_vukra_op_", result, arguments.
EXPORTS = {
    "session_open": (_S, [c_char_p]),
    "session_open2": (_S, [c_void_p]),
    "session_close": (c_int32, [_S]),
    "session_info": (c_int32, [_S, POINTER(c_int32)]),
    "session_error": (c_int32, [_S]),
    "session_hwnd": (c_int32, [_S, c_void_p, c_uint32]),
    "session_callback": (c_int32, [_S, CALLBACK]),
    "cancelfs": (c_int32, [_S]),
    "protected_readreg": (c_int32, [_S, c_char_p, c_void_p, c_int32]),
    "protected_writereg": (c_int32, [_S, c_char_p, c_void_p, c_int32]),
    "register_btoa": (c_void_p, [c_void_p, c_char_p, c_void_p]),
    "register_atob": (c_int32, [c_void_p, c_char_p, c_char_p]),
    "protected_null": (c_int32, [_S]),
    "protected_mount": (c_int32, [_S]),
    "protected_lookup": (c_int32, [_S, c_char_p, POINTER(Attributes)]),
    "protected_read": (c_int32, [_S, c_void_p, c_int32]),
    "protected_write": (c_int32, [_S, c_void_p, c_int32]),
    "protected_create": (c_int32, [_S, c_char_p]),
    "protected_remove": (c_int32, [_S, c_char_p]),
    "protected_rename": (c_int32, [_S, c_char_p, c_char_p]),
    "protected_mkdir": (c_int32, [_S, c_char_p]),
    "protected_rmdir": (c_int32, [_S, c_char_p]),
    "protected_readdir": (c_int32, [_S, POINTER(POINTER(DirEntry))]),
    "protected_fsstat": (c_int32, [_S, c_char_p, POINTER(Usage)]),
    "protected_mkfs": (c_int32, [_S, POINTER(MkfsParams)]),
    "protected_seek": (c_int32, [_S, c_uint32, c_int32]),
    "protected_seekdir": (c_int32, [_S, c_int32]),
    "protected_telldir": (c_int32, [_S]),
    "protected_getfs": (c_int32, [_S]),
    "protected_putfs": (c_int32, [_S]),
}

# The log sink: called with a line of the library's diagnostics.
LOG_CALLBACK = ctypes.CFUNCTYPE(None, c_void_p, c_char_p)

# The exports beyond the op family: name after "modbus_vukra_", result, arguments.
OTHER_EXPORTS = {
    "protected_putfs_changed": (c_int32, [_S]),
    "set_log": (None, [LOG_CALLBACK, c_void_p]),
    "explain": (c_int32, [c_int32, c_int32, c_char_p, c_int32]),
    "register_parse": (c_int32, [c_void_p, c_char_p, c_char_p]),
    "transfer_bytes": (c_int32, [_S, POINTER(ctypes.c_uint64)]),
}

# What a failed operation was doing, for explain.
DOING_OTHER, DOING_LOOKUP, DOING_REMOVING_DIRECTORY = 0, 1, 2

_log = logging.getLogger("modbus_vukra")


@LOG_CALLBACK
def _to_logging(_context, line):
    # On whichever thread printed the line; ctypes holds the GIL meanwhile.
    try:
        _log.debug("%s", line.decode(errors="replace"))
    except BaseException:  # nothing may unwind into the library
        pass


if sys.platform == "win32":
    _FILE_NAMES = ["modbus_vukra.dll"]
elif sys.platform == "darwin":
    _FILE_NAMES = ["libmodbus_vukra.dylib"]
else:
    _FILE_NAMES = ["libmodbus_vukra.so", "libmodbus_vukra.so.0"]


class Library:
    """The loaded library: each export as an attribute without its prefix."""

    def __init__(self, cdll: ctypes.CDLL, path: str):
        self.path = path
        for name, (result, arguments) in EXPORTS.items():
            function = getattr(cdll, "modbus_vukra_op_" + name)
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)
        for name, (result, arguments) in OTHER_EXPORTS.items():
            function = getattr(cdll, "modbus_vukra_" + name)
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)
        self.free_entry = _entry_release()
        # The library's lines go to the "modbus_vukra" logger (DEBUG), never to standard output.
        self.set_log(_to_logging, None)

    def explain_status(self, status: int, doing: int = DOING_OTHER) -> tuple[int, str]:
        """(errno, words) for a failed call's error word; status 0 or 513: what the calling
        thread's last open or exchange met."""
        text = ctypes.create_string_buffer(700)
        code = self.explain(status, doing, text, len(text))
        return code, text.value.decode(errors="replace")


def _entry_release():
    """How the host frees a listing entry: LocalFree on Windows, free elsewhere."""
    if sys.platform == "win32":
        release = ctypes.windll.kernel32.LocalFree
    else:
        release = ctypes.CDLL(None).free
    release.argtypes = [c_void_p]
    return release


def _candidates():
    """(path to try, where it came from) in the order of the search."""
    variable = os.environ.get("MODBUS_VUKRA_LIBRARY")
    if variable:
        yield variable, "MODBUS_VUKRA_LIBRARY=" + variable
        return  # a library named by the user is that library or none
    here = os.path.dirname(os.path.abspath(__file__))
    for name in _FILE_NAMES:
        path = os.path.join(here, name)
        if os.path.exists(path):
            yield path, path
    found = ctypes.util.find_library("modbus_vukra")
    if found:
        yield found, found
    for name in _FILE_NAMES:  # the loader's own path (LD_LIBRARY_PATH, the cache)
        yield name, name


_loaded = None
_loading = threading.Lock()


def library() -> Library:
    """The shared library, loaded on the first call; LibraryNotFound when none loads."""
    global _loaded
    with _loading:
        if _loaded is None:
            tried = []
            for path, label in _candidates():
                try:
                    _loaded = Library(ctypes.CDLL(path), path)
                    break
                except (OSError, AttributeError) as error:
                    tried.append(f"{label} ({error})" if os.path.sep in path else label)
            else:
                if os.environ.get("MODBUS_VUKRA_LIBRARY"):
                    raise LibraryNotFound("modbus_vukra: cannot load the library named by " + tried[0])
                here = os.path.dirname(os.path.abspath(__file__))
                raise LibraryNotFound("modbus_vukra: no shared library found; looked at MODBUS_VUKRA_LIBRARY "
                                      f"(unset), beside the package in {here}, and by the system's search: "
                                      + "; ".join(tried))
        return _loaded

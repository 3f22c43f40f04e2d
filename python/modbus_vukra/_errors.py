"""The package's exceptions, and a failed call's error word as the matching OSError.

The meaning of a status, and its errno, come from the library's one table
(modbus_vukra_explain): a status the table does not name is the device's
own, EIO (ENOENT when a lookup got it), its number in the message.
"""
from __future__ import annotations

import errno as _errno

NO_REPLY = 513  # the error word when the exchange with the device failed
CANCELLED = -11


class VukraError(OSError):
    """Every error of the device or the library, an OSError: ``errno`` (None when the library gave
    none), ``filename``, and ``status``, the device's status or the library's error word (None when
    none came)."""

    def __init__(self, message: str, status: int | None = None, code: int | None = None,
                 filename: str | None = None, filename2: str | None = None):
        if code is None:
            super().__init__(message)
        else:
            super().__init__(code, message, filename, None, filename2)
        self.status = status

    def __str__(self) -> str:
        if self.errno is None:
            return str(self.args[0]) if self.args else ""
        return OSError.__str__(self)


class LibraryNotFound(VukraError):
    """The shared library could not be found or loaded."""


class DeviceTimeout(VukraError, TimeoutError):
    """The device did not answer within the time-out (error word 513; errno ETIMEDOUT)."""

    def __init__(self, message: str, status: int | None = NO_REPLY, filename: str | None = None):
        VukraError.__init__(self, message, status, _errno.ETIMEDOUT, filename)

    def __str__(self) -> str:
        return self.strerror


class TransferCancelled(VukraError):
    """An image transfer stopped at cancel() or Ctrl-C (error word -11)."""


# VukraError subclasses by errno (FileNotFoundError, ...), so that `except FileNotFoundError` works.
_CLASSES: dict[int, type] = {}


def error_class(code: int) -> type:
    if code == _errno.ETIMEDOUT:
        return DeviceTimeout
    if code not in _CLASSES:
        base = type(OSError(code, ""))  # the builtin subclass for that errno
        _CLASSES[code] = VukraError if base is OSError else type(
            base.__name__, (VukraError, base), {"__module__": __name__})
    return _CLASSES[code]


def explain(status: int, doing: int = 0) -> tuple[int, str]:
    """(errno, words) of the library's table for status."""
    from . import _library  # the library imports this module
    return _library.library().explain_status(status, doing)


def status_words(status: int) -> str:
    return explain(status)[1]


def file_error(status: int, what: str, path: str, exists_means: int = _errno.EEXIST,
               path2: str | None = None, lookup: bool = False) -> VukraError:
    """The exception for a file operation that failed with the error word status.

    The device says "exists, or not empty" with one word; exists_means says
    which the operation meant (ENOTEMPTY for rmdir and rename). lookup: the
    call that failed was a lookup, where a status nobody knows means "no
    such file".
    """
    from . import _library
    doing = (_library.DOING_LOOKUP if lookup else
             _library.DOING_REMOVING_DIRECTORY if exists_means == _errno.ENOTEMPTY else _library.DOING_OTHER)
    code, words = explain(status, doing)
    if code == 0:
        code, words = _errno.EIO, "the request or the device's reply could not be read"
    paths = path if path2 is None else f"{path} to {path2}"
    if code == _errno.ETIMEDOUT:
        return DeviceTimeout(f"cannot {what} {paths}: {words}", status, path)
    return error_class(code)(f"cannot {what}: {words}", status, code, path, path2)

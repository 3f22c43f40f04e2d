"""The package's exceptions and the device's status words as Python errors."""
from __future__ import annotations

import errno as _errno

NO_REPLY = 513  # the error word when the device did not answer in time
CANCELLED = -11

# The device's status words (its kernel's errors and its file server's own)
# and the transfer's, in words.
MEANINGS = {
    -11: "the transfer was cancelled",
    -12: "not an image the library takes",
    -13: "the device stopped giving bytes",
    -14: "the local card failed",
    -15: "no getfs in this process: what changed is not known",
    -16: "the device's card changed since getfs: putfs() overwrites it, a new getfs() takes it",
    -17: "the local card changed outside the library since getfs",
    -20: "exists, or not empty",
    -22: "a directory cannot move into itself",
    -29: "refused",
    -40: "no free descriptor",
    -43: "not a device",
    -44: "no such file or directory",
    -56: "not a directory",
    17: "the device's kernel failed",
    18: "the request did not decode",
    19: "not the mounted volume",
    20: "no such open handle",
    22: "outside the device's served root",
    23: "mount refused",
    24: "is a directory",
    25: "not a device node",
    NO_REPLY: "no reply from the device, time-out",
}


class VukraError(Exception):
    """Every error of the device or the library; ``status`` is the error word (None when none came)."""

    def __init__(self, message: str, status: int | None = None):
        super().__init__(message)
        self.status = status


class LibraryNotFound(VukraError, ImportError):
    """The shared library could not be found or loaded."""


class DeviceTimeout(VukraError, TimeoutError):
    """The device did not answer within the time-out (error word 513; errno ETIMEDOUT)."""

    def __init__(self, message: str, status: int | None = NO_REPLY):
        TimeoutError.__init__(self, _errno.ETIMEDOUT, message)
        self.status = status

    def __str__(self) -> str:
        return self.strerror


class TransferCancelled(VukraError):
    """An image transfer stopped at cancel() or Ctrl-C (error word -11)."""


class DeviceOSError(VukraError, OSError):
    """A file operation the device refused, as the matching OSError."""

    def __init__(self, code: int, message: str, path: str | None, status: int, path2: str | None = None):
        OSError.__init__(self, code, message, path, None, path2)
        self.status = status

    def __str__(self) -> str:
        return OSError.__str__(self)


# OSError subclasses by errno, so that `except FileNotFoundError` works.
_CLASSES: dict[int, type] = {}


def _oserror_class(code: int) -> type:
    if code not in _CLASSES:
        base = type(OSError(code, ""))  # the builtin subclass for that errno
        _CLASSES[code] = DeviceOSError if base is OSError else type(
            base.__name__, (DeviceOSError, base), {"__module__": __name__})
    return _CLASSES[code]


def _low_byte_meaning(status: int) -> int:
    # read and readdir replies carry only the status's low byte: -44 arrives as 212.
    return status - 256 if 128 <= status <= 255 else status


def status_words(status: int) -> str:
    meaning = MEANINGS.get(_low_byte_meaning(status))
    return f"status {status} ({meaning})" if meaning else f"status {status}"


def file_error(status: int, what: str, path: str, exists_means: int = _errno.EEXIST,
               path2: str | None = None) -> VukraError:
    """The exception for a file operation that failed with the error word status.

    The device says "exists, or not empty" with one word; exists_means says
    which the operation meant (ENOTEMPTY for rmdir and rename).
    """
    paths = path if path2 is None else f"{path} to {path2}"
    if status == NO_REPLY:
        return DeviceTimeout(f"cannot {what} {paths}: {status_words(status)}", status)
    code = {-44: _errno.ENOENT, -56: _errno.ENOTDIR, 24: _errno.EISDIR, -20: exists_means,
            -22: _errno.EINVAL, -29: _errno.EACCES, -40: _errno.EMFILE, -43: _errno.ENODEV,
            22: _errno.EACCES}.get(_low_byte_meaning(status))
    if status == 0:
        return VukraError(f"cannot {what} {paths}: the request or the device's reply could not be read", status)
    if code is None:
        return VukraError(f"cannot {what} {paths}: {status_words(status)}", status)
    return _oserror_class(code)(code, f"cannot {what}: {status_words(status)}", path, status, path2)

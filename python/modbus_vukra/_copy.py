"""dev.fs.get and dev.fs.put: whole files between the host and the device, never half-written."""
from __future__ import annotations

import os
import posixpath
import shutil
import stat

from ._errors import NO_REPLY, VukraError, file_error
from ._files import KIND_DIRECTORY, KIND_FILE, _encoded, _joined

_BLOCK = 64 * 1024


def _temporary(directory: str, name: str, tag: str, n: int) -> str:
    return os.path.join(directory, f".{name[:200]}.vukra-{tag}-{os.getpid()}-{n}")


def get(fs, remote: str, local: str) -> None:
    target = os.path.realpath(local) if os.path.islink(local) else local
    if os.path.isdir(target):
        raise IsADirectoryError(21, "cannot get into a directory", local)
    if os.path.exists(target) and not os.path.isfile(target):
        raise OSError(22, "not a regular file", local)
    directory = os.path.dirname(os.path.abspath(target))
    if not os.path.isdir(directory):  # said of the user's path, not of the temporary beside it
        raise FileNotFoundError(2, "no such directory", directory)
    with fs._device._lock:
        source = fs.open(remote, "rb")  # a directory or a missing file is refused here
        try:
            for n in range(100):
                temporary = _temporary(directory, os.path.basename(target), "get", n)
                try:
                    out = open(temporary, "xb")
                    break
                except FileExistsError:
                    continue
            else:
                raise FileExistsError(17, "no free temporary name", directory)
            try:
                with out:
                    shutil.copyfileobj(source, out, _BLOCK)
                if os.path.exists(target):
                    shutil.copymode(target, temporary)
                os.replace(temporary, target)
            except BaseException:
                os.unlink(temporary)
                raise
        finally:
            source.close()


def put(fs, local: str, remote: str) -> None:
    if remote == "/":
        raise ValueError(f"cannot put {local} as /: name a file")
    # A file that cannot be read is refused before the device is asked; the
    # open does not wait for a fifo's writer, which is refused too.
    descriptor = os.open(local, os.O_RDONLY | getattr(os, "O_NONBLOCK", 0) | getattr(os, "O_BINARY", 0))
    status = os.fstat(descriptor)
    if not stat.S_ISREG(status.st_mode):
        os.close(descriptor)
        if stat.S_ISDIR(status.st_mode):
            raise IsADirectoryError(21, "is a directory", local)
        raise OSError(22, "not a regular file", local)
    with os.fdopen(descriptor, "rb") as source:
        size = status.st_size
        device = fs._device
        with device._lock:
            words = fs._lookup(remote)
            if words is not None and words[1] & KIND_DIRECTORY:
                raise file_error(24, "write", remote)
            if words is not None and not words[1] & KIND_FILE:
                raise VukraError(f"cannot write {remote}: it is not a regular file")
            if words is None and device.error() == NO_REPLY:
                raise file_error(NO_REPLY, "look up", remote)
            directory, name = posixpath.split(remote)
            if words is None and not fs.isdir(directory):
                raise file_error(-44 if not fs.exists(directory) else -56, "write in", directory)
            for n in range(100):
                temporary = _joined(directory, f".{name[:200]}.vukra-put-{os.getpid()}-{n}")
                if fs._lookup(temporary) is None:
                    # Only "no such file" frees the name; a silent device does not.
                    if device.error() == NO_REPLY:
                        raise file_error(NO_REPLY, "write in", directory)
                    break
            else:
                raise VukraError(f"cannot write in {directory}: no free temporary name")
            try:
                with fs.open(temporary, "xb") as out:
                    shutil.copyfileobj(source, out, _BLOCK)
                if fs._call("protected_rename", _encoded(temporary), _encoded(remote)) != 0:
                    raise fs._fail("rename", temporary, path2=remote)
            except BaseException:
                try:  # best effort: remote is untouched
                    fs._call("protected_remove", _encoded(temporary))
                except VukraError:
                    pass
                raise
            got = fs.stat(remote).st_size
            if got != size:
                raise VukraError(f"{remote} holds {got} bytes on the device, not {size}")

"""dev.fs: the device's filesystem with the names and habits of os, os.path and shutil.

Paths are taken from the device's root ("mem/a" is "/mem/a"). Every call
is one or a few requests on the line; a file's bytes move 1024 a request.
The session holds one current object (the last one looked up): a file
object that finds another object current looks its own file up again and
goes back to its position before it reads or writes.
"""
from __future__ import annotations

import codecs
import ctypes
import errno
import io
import os
import stat as _stat
from collections import namedtuple
from typing import Iterator, Optional, Union

from . import _library
from ._errors import NO_REPLY, VukraError, file_error

# Attribute word 1: what kind of object a node is.
KIND_FILE, KIND_DEVICE, KIND_CHARACTER, KIND_DIRECTORY, KIND_FIFO, KIND_LINK = 1, 2, 4, 8, 16, 32

DiskUsage = namedtuple("DiskUsage", "total used free block_size free_nodes")

Path = Union[str, bytes, os.PathLike]


def remote_path(path: Path) -> str:
    """path from the device's root, without repeated or trailing slashes."""
    if not isinstance(path, (str, bytes, os.PathLike)):
        raise TypeError(f"a device path is a str, not {type(path).__name__}")
    path = os.fsdecode(path)
    if "\0" in path:
        raise ValueError("a device path holds no NUL")
    parts = [p for p in path.split("/") if p]
    return "/" + "/".join(parts)


def _encoded(path: str) -> bytes:
    return os.fsencode(path)


def _joined(directory: str, name: str) -> str:
    return directory.rstrip("/") + "/" + name


def kind_name(kind: int) -> str:
    if kind & KIND_DIRECTORY:
        return "directory"
    if kind & KIND_DEVICE:
        return "character device" if kind & KIND_CHARACTER else "block device"
    if kind & KIND_FILE:
        return "file"
    if kind & KIND_FIFO:
        return "fifo"
    if kind & KIND_LINK:
        return "link"
    return "unknown"


_MODES = {"directory": _stat.S_IFDIR | 0o755, "file": _stat.S_IFREG | 0o644, "fifo": _stat.S_IFIFO | 0o644,
          "character device": _stat.S_IFCHR | 0o644, "block device": _stat.S_IFBLK | 0o644,
          "link": _stat.S_IFLNK | 0o777, "unknown": 0}


def _stat_result(words) -> os.stat_result:
    node, kind, size, mtime = words
    return os.stat_result((_MODES[kind_name(kind)], node, 0, 1, 0, 0, size, mtime, mtime, mtime))


class DirEntry:
    """One entry of scandir: name, path, kind ("file", "directory", ...), size, and os.DirEntry's tests."""

    __slots__ = ("name", "path", "kind", "size", "_stat")

    def __init__(self, directory: str, name: str, words):
        self.name, self.path, self._stat = name, _joined(directory, name), _stat_result(words)
        self.kind, self.size = kind_name(words[1]), words[2]

    def is_dir(self) -> bool:
        return self.kind == "directory"

    def is_file(self) -> bool:
        return self.kind == "file"

    def stat(self) -> os.stat_result:
        return self._stat

    def __repr__(self) -> str:
        return f"<DirEntry {self.name!r} {self.kind} {self.size}>"


class FileSystem:
    """The device's filesystem (mounted on first use)."""

    def __init__(self, device):
        self._device = device

    # -- the requests -------------------------------------------------------
    def _call(self, export: str, *arguments) -> int:
        device = self._device
        with device._lock:
            device.mount()
            device.current_file = None
            return device.call(export, *arguments)

    def _fail(self, what: str, path: str, exists_means: int = errno.EEXIST, path2: Optional[str] = None):
        device = self._device
        return file_error(device.error(), what, path, exists_means, path2,
                          lookup=device._last_call == "protected_lookup")

    def _lookup(self, path: str) -> Optional[tuple]:
        attributes = _library.Attributes()
        if self._call("protected_lookup", _encoded(path), ctypes.byref(attributes)) != 0:
            return None
        return tuple(attributes.words)

    # -- os -------------------------------------------------------------------
    def stat(self, path: Path) -> os.stat_result:
        """The object's node, kind (st_mode), size and time (st_mtime) as an os.stat_result."""
        p = remote_path(path)
        with self._device._lock:
            words = self._lookup(p)
            if words is None:
                raise self._fail("look up", p)
            return _stat_result(words)

    def exists(self, path: Path) -> bool:
        try:
            self.stat(path)
            return True
        except FileNotFoundError:
            return False

    def isdir(self, path: Path) -> bool:
        try:
            return _stat.S_ISDIR(self.stat(path).st_mode)
        except FileNotFoundError:
            return False

    def listdir(self, path: Path = "/") -> list[str]:
        """The names in the directory, in the device's order."""
        p = remote_path(path)
        device, lib = self._device, self._device._lib
        names: list[str] = []
        with device._lock:
            words = self._lookup(p)
            if words is None:
                raise self._fail("list", p)
            if not words[1] & KIND_DIRECTORY:
                raise file_error(-56, "list", p)
            # The device decides where a listing ends; one that never says so
            # (a page that brings nothing, a cookie seen before) is refused.
            cookies = {device.call("protected_telldir")}
            while True:
                first = ctypes.POINTER(_library.DirEntry)()
                end = device.call("protected_readdir", ctypes.byref(first))
                before = len(names)
                address = ctypes.cast(first, ctypes.c_void_p).value
                while address:  # every entry is the host's to free
                    entry = _library.DirEntry.from_address(address)
                    names.append(os.fsdecode(entry.name))
                    following = ctypes.cast(entry.next, ctypes.c_void_p).value  # read before the free
                    lib.free_entry(address)
                    address = following
                if end < 0:
                    raise self._fail("list", p)
                if end == 1:
                    return [n for n in names if n not in (".", "..")]
                cookie = device.call("protected_telldir")
                if len(names) == before or cookie in cookies:
                    raise VukraError(f"cannot list {p}: the device's listing does not end")
                cookies.add(cookie)

    def scandir(self, path: Path = "/") -> Iterator[DirEntry]:
        """The directory's entries with name, kind and size (one lookup each)."""
        p = remote_path(path)
        entries = []
        with self._device._lock:
            for name in self.listdir(p):
                words = self._lookup(_joined(p, name))
                if words is None:
                    raise self._fail("look up", _joined(p, name))
                entries.append(DirEntry(p, name, words))
        return iter(entries)

    def walk(self, top: Path = "/") -> Iterator[tuple[str, list[str], list[str]]]:
        """(dirpath, dirnames, filenames) for top and every directory below it, top down, as os.walk."""
        pending = [remote_path(top)]
        while pending:
            directory = pending.pop(0)
            entries = list(self.scandir(directory))
            dirs = [e.name for e in entries if e.is_dir()]
            files = [e.name for e in entries if not e.is_dir()]
            yield directory, dirs, files
            pending[0:0] = [_joined(directory, d) for d in dirs]  # after the caller pruned dirs

    def _one(self, export: str, what: str, path: Path, exists_means: int = errno.EEXIST) -> None:
        p = remote_path(path)
        with self._device._lock:
            if self._call(export, _encoded(p)) != 0:
                raise self._fail(what, p, exists_means)

    def remove(self, path: Path) -> None:
        """Removes a file (IsADirectoryError for a directory: rmdir removes those)."""
        self._one("protected_remove", "remove", path)

    unlink = remove

    def mkdir(self, path: Path) -> None:
        """Makes a directory (FileExistsError when the name is taken)."""
        self._one("protected_mkdir", "make the directory", path)

    def rmdir(self, path: Path) -> None:
        """Removes an empty directory (OSError ENOTEMPTY otherwise)."""
        self._one("protected_rmdir", "remove the directory", path, errno.ENOTEMPTY)

    def makedirs(self, path: Path, exist_ok: bool = False) -> None:
        """Makes the directory and those above it that are missing."""
        p = remote_path(path)
        with self._device._lock:
            if self.isdir(p):
                if exist_ok:
                    return
                raise file_error(-20, "make the directory", p)
            made = "/"
            for part in p.split("/")[1:]:
                made = _joined(made, part)
                if not self.isdir(made):
                    self.mkdir(made)

    def rename(self, old: Path, new: Path) -> None:
        """Renames old to new; an existing file new is replaced."""
        o, n = remote_path(old), remote_path(new)
        with self._device._lock:
            if self._call("protected_rename", _encoded(o), _encoded(n)) != 0:
                raise self._fail("rename", o, errno.ENOTEMPTY, n)

    replace = rename

    def disk_usage(self, path: Path = "/") -> DiskUsage:
        """total, used and free bytes of the filesystem holding path, its block size and free nodes."""
        p = remote_path(path)
        usage = _library.Usage()
        with self._device._lock:
            if self._call("protected_fsstat", _encoded(p), ctypes.byref(usage)) != 0:
                raise self._fail("read the usage of", p)
        block_size, blocks, free_blocks, free_nodes = usage.words
        return DiskUsage(block_size * blocks, block_size * (blocks - free_blocks), block_size * free_blocks,
                         block_size, free_nodes)

    # -- files ----------------------------------------------------------------
    def open(self, path: Path, mode: str = "r", buffering: int = -1, encoding: Optional[str] = None,
             errors: Optional[str] = None, newline: Optional[str] = None):
        """A device file as a Python file object, as the builtin open: modes r, w, x, a, with b or t.

        Text mode wraps a BufferedReader or BufferedWriter in a TextIOWrapper.
        "w" replaces the file's bytes as they are written; get and put are the
        calls that never leave a file half-written.
        """
        if not isinstance(mode, str):
            raise TypeError(f"mode must be a str, not {type(mode).__name__}")
        kinds = set(mode)
        if len(mode) != len(kinds) or not kinds <= set("rwxabt") or len(kinds & set("rwxa")) != 1 \
                or {"b", "t"} <= kinds:
            raise ValueError(f"invalid mode: {mode!r} (r, w, x or a, with b or t)")
        binary = "b" in kinds
        if binary and (encoding is not None or errors is not None or newline is not None):
            raise ValueError("binary mode takes no encoding, errors or newline")
        # Everything else is checked too before the file is made or emptied on the device.
        if not isinstance(buffering, int):
            raise TypeError(f"buffering must be an int, not {type(buffering).__name__}")
        if buffering < -1:
            raise ValueError(f"invalid buffering: {buffering}")
        if not binary:
            if buffering == 0:
                raise ValueError("text mode needs buffering")
            codecs.lookup(encoding or "utf-8")
            codecs.lookup_error(errors or "strict")
            if newline not in (None, "", "\n", "\r", "\r\n"):
                raise ValueError(f"illegal newline value: {newline!r}")
        raw = RemoteFile(self._device, remote_path(path), mode.replace("b", "").replace("t", ""))
        if buffering == 0:
            return raw
        size = io.DEFAULT_BUFFER_SIZE if buffering in (-1, 1) else buffering
        buffered = (io.BufferedReader if raw.readable() else io.BufferedWriter)(raw, size)
        self._device._files.add(buffered)
        if binary:
            return buffered
        text = io.TextIOWrapper(buffered, encoding or "utf-8", errors, newline, line_buffering=buffering == 1)
        text.mode = mode
        self._device._files.add(text)
        return text

    def get(self, remote: Path, local: Union[str, os.PathLike]) -> None:
        """Copies a device file to local. The bytes go to a temporary file beside local, which
        replaces local only once complete: a failure leaves local as it was."""
        from ._copy import get
        get(self, remote_path(remote), os.fspath(local))

    def put(self, local: Union[str, os.PathLike], remote: Path) -> None:
        """Copies a local file to the device. The bytes go to a temporary file in remote's
        directory, renamed over remote once complete, and the size the device then reports is
        checked: a failure leaves remote as it was."""
        from ._copy import put
        put(self, os.fspath(local), remote_path(remote))


class RemoteFile(io.RawIOBase):
    """The raw file under the buffered objects of FileSystem.open: reads and writes of 1024
    bytes at most a request, at the file's own position."""

    def __init__(self, device, path: str, mode: str):
        super().__init__()
        self._device, self.name, self.mode = device, path, mode
        self._position = 0
        fs = device.fs
        with device._lock:
            words = fs._lookup(path)
            status = 0 if words is not None else device.error()
            if status == NO_REPLY or (words is None and mode == "r"):
                raise file_error(status, "open", path, lookup=words is None)
            if words is not None and mode == "x":
                raise file_error(-20, "create", path)
            if words is not None and words[1] & KIND_DIRECTORY:
                raise file_error(24, "open", path)
            if words is not None and mode == "w" and kind_name(words[1]) != "file":
                # "w" replaces the object by a new empty file: never a device node or a fifo.
                raise VukraError(f"cannot open {path} for writing: it is a {kind_name(words[1])}, not a file")
            if mode in ("w", "x") or words is None:
                if words is not None:  # "w": the file starts again empty
                    if fs._call("protected_remove", _encoded(path)) != 0:
                        raise fs._fail("replace", path)
                if fs._call("protected_create", _encoded(path)) != 0:
                    raise fs._fail("create", path)
                words = (0, KIND_FILE, 0, 0)
            self._size = words[2]
            if mode == "a":
                self._position = self._size
            device.current_file = None
            device._files.add(self)

    def readable(self) -> bool:
        return self.mode == "r"

    def writable(self) -> bool:
        return self.mode != "r"

    def seekable(self) -> bool:
        return True

    def _select(self):
        """The session's current object made this file, at this file's position; under the lock."""
        device = self._device
        if self.closed:
            raise ValueError("I/O operation on closed file")
        if device.closed:
            raise ValueError(f"I/O operation on {self.name}, whose device is closed")
        if device.current_file is not self:
            fs = device.fs
            if fs._lookup(self.name) is None:
                raise fs._fail("reopen", self.name)
            if device.call("protected_seek", self._position, 0) != self._position:
                raise fs._fail("seek in", self.name)
            device.current_file = self

    def readinto(self, buffer) -> int:
        if not self.readable():
            raise io.UnsupportedOperation("not readable")
        view = memoryview(buffer).cast("B")
        done = 0
        chunk = (ctypes.c_char * _library.IO_SIZE)()
        with self._device._lock:
            self._select()
            while done < len(view):
                want = min(len(view) - done, _library.IO_SIZE)
                got = self._device.call("protected_read", chunk, want)
                if got < 0:
                    self._device.current_file = None
                    raise self._device.fs._fail("read", self.name)
                view[done:done + got] = chunk.raw[:got]
                done += got
                self._position += got
                if got < want:
                    break
        return done

    def write(self, data) -> int:
        if not self.writable():
            raise io.UnsupportedOperation("not writable")
        view = memoryview(data).cast("B")
        done = 0
        with self._device._lock:
            if self.mode == "a" and self._position != self._size:
                self.seek(self._size)  # appends go to the end wherever the file was moved, as O_APPEND
            self._select()
            while done < len(view):
                piece = bytes(view[done:done + _library.IO_SIZE])
                got = self._device.call("protected_write", piece, len(piece))
                if got < 0:
                    self._device.current_file = None
                    raise self._device.fs._fail("write", self.name)
                if got == 0:
                    raise VukraError(f"cannot write {self.name}: the device took no byte")
                done += got
                self._position += got
                self._size = max(self._size, self._position)
        return done

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        if self.closed:
            raise ValueError("I/O operation on closed file")
        if not isinstance(offset, int):
            raise TypeError(f"offset must be an int, not {type(offset).__name__}")
        base = {io.SEEK_SET: 0, io.SEEK_CUR: self._position, io.SEEK_END: self._size}.get(whence)
        if base is None:
            raise ValueError(f"invalid whence ({whence})")
        position = base + offset
        if not 0 <= position <= 0xFFFFFFFF:
            raise ValueError(f"position {position} is outside the file")
        with self._device._lock:
            self._position = position
            if self._device.current_file is self and not self._device.closed:
                # Answered without the device; elsewhere the next transfer sets it.
                if self._device.call("protected_seek", position, 0) != position:
                    self._device.current_file = None
        return position

    def tell(self) -> int:
        return self._position

    def close(self) -> None:
        if not self.closed:
            try:
                super().close()
            finally:
                self._device._files.discard(self)
                if self._device.current_file is self:
                    self._device.current_file = None

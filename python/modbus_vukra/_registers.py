"""dev.registers: the device's registers by their names in the table."""
from __future__ import annotations

import ctypes
import errno
from typing import Iterator

from . import _library
from ._errors import VukraError, error_class
from ._table import MAX_READ_WORDS, MAX_WRITE_WORDS, Register, Value


def _name(name) -> bytes:
    if not isinstance(name, str):
        raise TypeError(f"a register name is a str, not {type(name).__name__}")
    if "\0" in name:
        raise ValueError("a register name holds no NUL")
    return name.encode()


class Registers:
    """The registers of the device's table: ``regs["setpoint"]`` reads, ``regs["setpoint"] = 19.75``
    writes, with values by the register's type (int, float, bool, a list for a buffer, bytes for a type
    the package does not know). A value that is not the register's, a read of a "W" register or a
    write of an "R" one raises before anything is sent."""

    def __init__(self, device, table: dict[str, Register]):
        self._device = device
        self._table = table

    def names(self) -> list[str]:
        """Every register's name, in table order."""
        return list(self._table)

    def info(self, name: str) -> Register:
        """The register's table, address, type, access ("R", "W" or "RW") and size."""
        _name(name)
        try:
            return self._table[name]
        except KeyError:
            raise KeyError(f"no register {name} in {self._device.table}") from None

    def __iter__(self) -> Iterator[str]:
        return iter(self._table)

    def __len__(self) -> int:
        return len(self._table)

    def __contains__(self, name) -> bool:
        return isinstance(name, str) and name in self._table

    def _checked(self, name: str, writing: bool) -> Register:
        register = self.info(name)
        if writing and not register.writable:
            raise PermissionError(f"{name} is read-only (access \"R\" in the table): nothing was sent")
        if not writing and not register.readable:
            raise PermissionError(f"{name} is write-only (access \"W\" in the table): nothing was sent")
        limit = MAX_WRITE_WORDS if writing else MAX_READ_WORDS
        if not 0 < register.words <= limit:
            raise ValueError(f"{name}'s type {register.type} has {register.words} words; one Modbus "
                             f"{'write' if writing else 'read'} carries 1 to {limit}: nothing was sent")
        return register

    def _transfer(self, export: str, name: str, buffer, count: int) -> None:
        with self._device._lock:
            got = self._device.call(export, _name(name), buffer, count)
            if got == count:
                return
            # A register transaction leaves no status in the error word: what
            # the line met (a time-out, a dropped connection, a reply that does
            # not decode) is asked of the library on this thread, at once.
            code, words = self._device._lib.explain_status(0)
        what = "read" if export.endswith("readreg") else "write"
        if code == 0:
            code, words = errno.EIO, "the device answered with an exception, or for another request"
        status = 513 if code == errno.ETIMEDOUT else None
        raise error_class(code)(f"cannot {what} {name}: {words}", status, code)

    def read_bytes(self, name: str) -> bytes:
        """The register's bytes as the library hands them: words in register order, host order."""
        register = self._checked(name, False)
        buffer = (ctypes.c_ubyte * _library.TRANSFER_SIZE)()
        self._transfer("protected_readreg", name, buffer, register.size)
        return bytes(buffer[:register.size])

    def __getitem__(self, name: str) -> Value:
        return self.info(name).decode(self.read_bytes(name))

    def __setitem__(self, name: str, value: Value) -> None:
        register = self._checked(name, True)
        data = register.encode(value)
        buffer = (ctypes.c_ubyte * _library.TRANSFER_SIZE).from_buffer_copy(data.ljust(_library.TRANSFER_SIZE, b"\0"))
        self._transfer("protected_writereg", name, buffer, register.size)

    def read_text(self, name: str) -> str:
        """The value as the library's own text for its type ("21.500000"; a buffer one element a line)."""
        value = self.read_bytes(name)
        buffer = (ctypes.c_ubyte * _library.TRANSFER_SIZE).from_buffer_copy(value.ljust(_library.TRANSFER_SIZE, b"\0"))
        text = ctypes.create_string_buffer(_library.TEXT_SIZE)
        if not self._device._lib.register_btoa(text, _name(name), buffer):
            raise VukraError(f"{name}'s type {self.info(name).type} has no text form")
        return text.value.decode(errors="replace")

    def write_text(self, name: str, text: str) -> None:
        """Writes the value read from text as ``vukra reg write`` reads it: the whole text a value of
        the register's type, in range ("19.75", "0x10" for an integer, "1e3" for a real, a buffer's
        elements separated by blanks); anything else raises ValueError before anything is sent."""
        if not isinstance(text, str):
            raise TypeError(f"text must be a str, not {type(text).__name__}")
        if "\0" in text:
            raise ValueError("text holds no NUL")
        register = self._checked(name, True)
        buffer = (ctypes.c_ubyte * _library.TRANSFER_SIZE)()
        if self._device._lib.register_parse(buffer, _name(name), text.encode()) != 0:
            raise ValueError(f"{text!r} is not a value of {name}'s type {register.type} (decimal, or hexadecimal "
                             "with 0x for integers; buffer elements separated by blanks): nothing was sent")
        self._transfer("protected_writereg", name, buffer, register.size)

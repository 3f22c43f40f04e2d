"""The register table as the package sees it: each register's type, access
and size, read from the same "table.xml" the library loads, and the
conversion between Python values and a register's bytes.

A register's bytes are its 16-bit words in register order, in host order,
a 32-bit value (int32, uint32, real, a long or float buffer element) as one
host-order number; the library puts them on the wire.
"""
from __future__ import annotations

import math
import numbers
import struct
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass
from typing import Union

from ._errors import VukraError

Value = Union[int, float, bool, bytes, list]

MAX_READ_WORDS = 125   # one Modbus read (function 3) carries 1 to 125 words
MAX_WRITE_WORDS = 123  # one write (function 16) 1 to 123

# Scalar types by name: struct code, Python kind, range.
_SCALARS = {
    "int16": ("h", int, -0x8000, 0x7FFF),
    "uint16": ("H", int, 0, 0xFFFF),
    "boolean": ("h", bool, 0, 1),
    "int32": ("i", int, -0x80000000, 0x7FFFFFFF),
    "uint32": ("I", int, 0, 0xFFFFFFFF),
    "real": ("f", float, None, None),
    "buffer2float": ("f", float, None, None),
}
# Buffer elements by the type's C type.
_ELEMENTS = {"short": ("h", int, -0x8000, 0x7FFF), "long": ("i", int, -0x80000000, 0x7FFFFFFF),
             "float": ("f", float, None, None)}


@dataclass(frozen=True)
class Register:
    """One register of the table: its name, table, address, type, access ("R", "W" or "RW") and size."""

    name: str
    table: str
    address: int
    type: str
    access: str
    words: int
    c_type: str

    @property
    def size(self) -> int:
        """Bytes of the value: two per word."""
        return 2 * self.words

    @property
    def readable(self) -> bool:
        return "R" in self.access

    @property
    def writable(self) -> bool:
        return "W" in self.access

    @property
    def kind(self) -> str:
        """What Python value it holds: "int", "float", "bool", "list" or "bytes"."""
        if self.type in _SCALARS:
            return _SCALARS[self.type][1].__name__
        return "list" if self._element() else "bytes"

    def _element(self):
        if self.type.startswith("buffer") and self.type not in _SCALARS:
            return _ELEMENTS.get(self.c_type)
        return None

    def _layout(self):
        """(struct format, kind, low, high) of the whole value, or None for raw bytes."""
        if self.type in _SCALARS:
            code, kind, low, high = _SCALARS[self.type]
            if struct.calcsize(code) > self.size:
                return None
            return "=" + code, kind, low, high
        element = self._element()
        if element is None:
            return None
        code, kind, low, high = element
        count = self.size // struct.calcsize(code)
        return f"={count}{code}", kind, low, high

    def decode(self, data: bytes) -> Value:
        """The value held in the register's bytes."""
        layout = self._layout()
        if layout is None:
            return bytes(data[:self.size])
        fmt, kind, _, _ = layout
        values = struct.unpack_from(fmt, data)
        if self.type in _SCALARS:
            return kind(values[0]) if kind is not float else values[0]
        return list(values)

    def encode(self, value: Value) -> bytes:
        """The register's bytes for value; TypeError or ValueError when it is not one of its values."""
        layout = self._layout()
        if layout is None:
            if not isinstance(value, (bytes, bytearray, memoryview)):
                raise TypeError(f"{self.name} ({self.type}) takes bytes, not {type(value).__name__}")
            data = bytes(value)
            if len(data) != self.size:
                raise ValueError(f"{self.name} ({self.type}) takes {self.size} bytes, not {len(data)}")
            return data
        fmt, kind, low, high = layout
        if self.type in _SCALARS:
            items = [value]
        else:
            if not isinstance(value, (list, tuple)):
                raise TypeError(f"{self.name} ({self.type}) takes a list, not {type(value).__name__}")
            items = list(value)
            count = struct.calcsize(fmt) // struct.calcsize(fmt[-1])
            if len(items) != count:
                raise ValueError(f"{self.name} ({self.type}) takes {count} elements, not {len(items)}")
            if kind is bool:
                kind = int
        checked = [self._check(item, kind, low, high) for item in items]
        data = struct.pack(fmt, *checked)
        return data + bytes(self.size - len(data))

    def _check(self, item, kind, low, high):
        if kind is float:
            if not isinstance(item, numbers.Real) or isinstance(item, bool):
                raise TypeError(f"{self.name} ({self.type}) takes a number, not {type(item).__name__}")
            item = float(item)
            if not math.isfinite(item) or abs(item) > 3.4028234663852886e38:
                raise ValueError(f"{item} is out of the range of {self.name} ({self.type})")
            return item
        if kind is bool and isinstance(item, bool):
            return int(item)
        if not isinstance(item, numbers.Integral) or (isinstance(item, bool) and kind is not bool):
            raise TypeError(f"{self.name} ({self.type}) takes an int, not {type(item).__name__}")
        if not low <= item <= high:
            raise ValueError(f"{item} is out of the range of {self.name} ({self.type}): {low} to {high}")
        return int(item)


def load(path: str) -> dict[str, Register]:
    """The registers of the table file by name, in table order (the first of a name wins).

    The file is parsed here first, so that a malformed table raises
    VukraError instead of reaching the library's reader, which ends the
    process on a syntax error.
    """
    try:
        root = ElementTree.parse(path).getroot()
    except ElementTree.ParseError as error:
        raise VukraError(f"cannot load the register table {path}: {error}") from None
    except OSError as error:
        raise VukraError(f"cannot open the register table {path}: {error.strerror}") from None
    types = {}
    for t in root.iterfind("type_list/type"):
        name = t.get("name")
        if name is not None and name not in types:
            types[name] = (_hex_or_int(t.get("words"), 10), t.get("Ctype") or "")
    registers: dict[str, Register] = {}
    for table in root.iterfind("table_list/table"):
        automatic = table.get("auto_offset") == "yes"
        base = _hex_or_int(table.get("base"), 16)
        offset, words = 0, 0
        for r in table.iterfind("register_list/register"):
            offset = offset + words if automatic else _hex_or_int(r.get("offset"), 16)
            type_name = r.get("type") or "?"
            words, c_type = types.get(type_name, (1, ""))  # an undeclared type: one word
            access = r.get("access") if r.get("access") in ("R", "W") else "RW"
            name = r.get("name")
            if name is not None and name not in registers:
                registers[name] = Register(name, table.get("name") or "", base + offset, type_name, access,
                                           words, c_type)
    return registers


def _hex_or_int(text, base):
    digits = ""
    for c in (text or "").strip():
        if c.isdigit() or (base == 16 and c.lower() in "abcdef"):
            digits += c
        else:
            break
    return int(digits, base) if digits else 0

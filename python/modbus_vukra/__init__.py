"""modbus_vukra: a vukra device on a serial port, from Python.

    import modbus_vukra
    with modbus_vukra.open("/dev/ttyUSB0", table="table.xml") as dev:
        dev.registers["setpoint"] = 19.75
        print(dev.registers["setpoint"], dev.fs.listdir("/mem"))

A pure-Python layer over the shared library (libmodbus_vukra.so,
modbus_vukra.dll) through ctypes: see docs/python.md.
"""
from ._device import Device, open
from ._errors import DeviceTimeout, LibraryNotFound, TransferCancelled, VukraError
from ._files import DirEntry, DiskUsage
from ._library import library
from ._table import Register

for _public in (VukraError, DeviceTimeout, TransferCancelled, LibraryNotFound, Device, Register, DirEntry):
    _public.__module__ = __name__

__version__ = "0.1.0"

__all__ = ["open", "Device", "Register", "DirEntry", "DiskUsage", "VukraError", "DeviceTimeout",
           "TransferCancelled", "LibraryNotFound", "library"]

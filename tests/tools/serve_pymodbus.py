"""pymodbus (Debian's python3-pymodbus) as a Modbus TCP client of vukra serve:
values, writes, a refusal.
    serve_pymodbus.py PORT"""
import sys

from pymodbus.client import ModbusTcpClient
from pymodbus.constants import Endian
from pymodbus.payload import BinaryPayloadBuilder, BinaryPayloadDecoder

client = ModbusTcpClient("127.0.0.1", port=int(sys.argv[1]), timeout=6)
assert client.connect()
failures = []


def words(address, count, slave=1):
    r = client.read_holding_registers(address, count, slave=slave)
    if r.isError():
        return r
    return BinaryPayloadDecoder.fromRegisters(r.registers, byteorder=Endian.Big, wordorder=Endian.Big)


def expect(what, got, want):
    if got != want:
        failures.append(f"{what}: {got!r}, not {want!r}")


# Every word of every type: test_serve's libmodbus client; here pymodbus's decoding of two.
d = words(0x100, 3, slave=0)
expect("setpoint (real)", d.decode_32bit_float(), 21.5)
expect("offset_trim (int16)", d.decode_16bit_int(), -12)

b = BinaryPayloadBuilder(byteorder=Endian.Big, wordorder=Endian.Big)
b.add_32bit_float(-3.25)
expect("write setpoint", client.write_registers(0x100, b.to_registers(), slave=255).isError(), False)
expect("write offset_trim", client.write_register(0x102, 0xFF85).isError(), False)
d = words(0x100, 3)
expect("setpoint written", d.decode_32bit_float(), -3.25)
expect("offset_trim written", d.decode_16bit_int(), -123)

expect("a read-only register refused", client.write_register(0x104, 1).exception_code, 2)
client.close()
print("\n".join(failures) or "ok")
sys.exit(1 if failures else 0)

# A device that vanishes and comes back, and a closed device (package_test.sh runs the .deb).
import os
import pathlib
import re
import time

import pytest

import modbus_vukra
from modbus_vukra import _library


def test_a_vanished_device_times_out_then_comes_back(start_sim):
    port = start_sim("--drop-after", "1", "--drop-for", "1")
    with modbus_vukra.open(port, table=os.environ["VUKRA_TABLE"]) as dev:
        assert dev.registers["cycle_count"] == 4711
        start = time.monotonic()
        with pytest.raises(modbus_vukra.DeviceTimeout):
            dev.registers["cycle_count"]
        assert time.monotonic() - start < dev.timeout + 1
        assert dev.registers["cycle_count"] == 4711
        f = dev.fs.open("/mem/after.txt", "w")
        f.write("kept")  # flushed by the close
        with pytest.raises(modbus_vukra.VukraError):
            modbus_vukra.open(start_sim(), table=os.environ["VUKRA_TABLE"])  # one session a process
    for call in (lambda: dev.registers["cycle_count"], lambda: dev.fs.listdir("/"), lambda: f.write("x"),
                 lambda: dev.getfs()):
        with pytest.raises((modbus_vukra.VukraError, ValueError)):
            call()
    with modbus_vukra.open(port, table=os.environ["VUKRA_TABLE"]) as dev:
        assert dev.fs.open("/mem/after.txt").read() == "kept"


def test_a_table_the_library_cannot_read_is_refused(tmp_path):
    (tmp_path / "t.xml").write_text("<root><type_list><type name='int16' words='1'/></type_list></root>")
    with pytest.raises(modbus_vukra.VukraError, match="Xml error in attribute"):  # not the process ended
        modbus_vukra.open(os.ttyname(os.openpty()[1]), table=tmp_path / "t.xml")


def test_every_export_of_the_header_is_declared_once():
    header = (pathlib.Path(__file__).parents[2] / "include" / "modbus_vukra.h").read_text()
    assert sorted(re.findall(r"modbus_vukra_op_(\w+)\(", header)) == sorted(_library.EXPORTS)

# A device that vanishes and comes back, and a closed device (package_test.sh runs the .deb).
import errno
import gc
import os
import pathlib
import re
import socket
import subprocess
import sys
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
    assert sorted(re.findall(r"API \w+ \*?modbus_vukra_(?!op_)(\w+)\(", header)) == sorted(_library.OTHER_EXPORTS)


def test_a_dropped_device_closes_its_session_and_a_busy_one_says_where(start_sim):
    port, table = start_sim(), os.environ["VUKRA_TABLE"]
    gc.disable()  # the last reference, not the collector, closes it
    try:
        for _ in range(2):
            dev = modbus_vukra.open(port, table=table)
            dev.fs.open("/mem/held.txt", "w").write("x")  # a file that referred to it, dropped too
            del dev
        held = modbus_vukra.open(port, table=table)
        with pytest.raises(modbus_vukra.VukraError, match=rf"another session.*opened at .*{__name__.split('.')[-1]}"):
            modbus_vukra.open(port, table=table)
        held.close()
    finally:
        gc.enable()


def test_a_port_that_cannot_be_opened_says_why(tmp_path):
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    free = listener.getsockname()[1]
    listener.close()  # nothing listens there now
    (tmp_path / "plain").write_text("")
    for port, error, words in [(tmp_path / "none", FileNotFoundError, "no such device"),
                               (tmp_path / "plain", OSError, "not a serial port"),
                               (f"tcp://127.0.0.1:{free}", ConnectionRefusedError, "refused")]:
        with pytest.raises(error, match=words) as caught:
            modbus_vukra.open(port, table=os.environ["VUKRA_TABLE"])
        assert caught.value.filename == os.fspath(port) and caught.value.errno


def test_the_library_lines_go_to_logging_not_to_stdout(start_sim):
    script = ("import logging, os, sys, modbus_vukra\n"
              "logging.basicConfig(level=logging.DEBUG, stream=sys.stderr, format='%(name)s: %(message)s')\n"
              "with modbus_vukra.open(sys.argv[1], table=os.environ['VUKRA_TABLE']) as dev:\n"
              "    dev.registers['cycle_count']\n")
    child = subprocess.run([sys.executable, "-c", script, start_sim()], capture_output=True, text=True, timeout=60)
    assert child.returncode == 0, child.stderr
    assert child.stdout == "" and "modbus_vukra: Ok (" in child.stderr


def test_a_device_with_statuses_of_its_own(start_sim):
    # 2 for no such file, 39 for not empty: the table names neither.
    with modbus_vukra.open(start_sim("--statuses=-44=2,-20=39"), table=os.environ["VUKRA_TABLE"]) as dev:
        missing = pytest.raises(FileNotFoundError, dev.fs.stat, "/mem/none").value
        assert (missing.errno, missing.filename, missing.status) == (errno.ENOENT, "/mem/none", 2)
        pytest.raises(FileNotFoundError, dev.fs.open, "/mem/none")
        dev.fs.makedirs("/mem/full")
        dev.fs.open("/mem/full/x", "w").close()
        refused = pytest.raises(OSError, dev.fs.rmdir, "/mem/full").value
        assert (refused.errno, refused.status) == (errno.EIO, 39) and "status 39" in str(refused)
        assert isinstance(refused, modbus_vukra.VukraError)


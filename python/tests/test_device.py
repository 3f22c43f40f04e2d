# One session on one sim for the registers, the files and the transfers.
import errno
import io
import os
import signal
import threading
import time

import pytest

import modbus_vukra


@pytest.mark.parametrize("name, value", [
    ("setpoint", 19.75), ("offset_trim", -300), ("heater_on", True), ("energy", -123456), ("gain", 0.5),
    ("alarm", False), ("cycle_count", 4711), ("uptime", 3000000000), ("probe_raw", [100, -200, 300]),
    ("history", [70000, -5]), ("serial_number", 123456)])
def test_registers_round_trip_by_type(dev, name, value):
    if dev.registers.info(name).writable:
        dev.registers[name] = value
    got = dev.registers[name]
    assert got == value and type(got) is type(value)


def test_register_text_goes_through_the_library(dev):
    dev.registers.write_text("setpoint", "18.5")
    assert dev.registers["setpoint"] == 18.5 and dev.registers.read_text("setpoint") == "18.500000"
    dev.registers.write_text("setpoint", "1e1")
    dev.registers.write_text("offset_trim", "0x10")  # as vukra reg write takes them
    assert (dev.registers["setpoint"], dev.registers["offset_trim"]) == (10.0, 16)
    for name, text in [("energy", "twelve"), ("offset_trim", "40000"), ("setpoint", "1,5"), ("offset_trim", "12abc"),
                       ("offset_trim", "1e3"), ("setpoint", " 1"), ("setpoint", "nan"), ("offset_trim", "")]:
        pytest.raises(ValueError, dev.registers.write_text, name, text)  # nothing partly parsed is sent
    assert (dev.registers["setpoint"], dev.registers["offset_trim"]) == (10.0, 16)
    r = dev.registers.info("history")
    assert "history" in dev.registers.names() and (r.table, r.address, r.access, r.size) == ("status", 0x206, "R", 8)


@pytest.mark.parametrize("call, error", [
    (lambda r: r.__setitem__("cycle_count", 1), PermissionError), (lambda r: r["reset"], PermissionError),
    (lambda r: r.__setitem__("heater_on", 2), ValueError), (lambda r: r.__setitem__("alarm", [1]), TypeError),
    (lambda r: r.__setitem__("offset_trim", 40000), ValueError),
    (lambda r: r.__setitem__("offset_trim", 1.5), TypeError), (lambda r: r.__setitem__("setpoint", "1"), TypeError),
    (lambda r: r.__setitem__("setpoint", 1e39), ValueError), (lambda r: r["no_such"], KeyError),
    (lambda r: r[b"setpoint"], TypeError), (lambda r: r.write_text("uptime", "5"), PermissionError),
    (lambda r: r._device.fs.stat("/mem\0x"), ValueError), (lambda r: r._device.fs.open("/mem/x", "rw"), ValueError),
    (lambda r: r._device.fs.listdir(3), TypeError),
    (lambda r: r._device.fs.open("/mem/x", "w", encoding="?"), LookupError)])  # before the file is emptied
def test_refused_before_the_library_is_called(dev, monkeypatch, call, error):
    monkeypatch.setattr(dev, "_lib", None)  # any library call would raise AttributeError
    with pytest.raises(error):
        call(dev.registers)


def test_file_objects(dev):
    data = os.urandom(3000)
    with dev.fs.open("/mem/blob.bin", "wb") as f:
        f.write(data[:1000])
        f.write(data[1000:])  # across the 1024-byte boundary
    with dev.fs.open("/mem/blob.bin", "rb") as f:
        assert f.read() == data
        f.seek(1020)
        assert f.read(10) == data[1020:1030]
        f.seek(-5, io.SEEK_END)
        assert f.read() == data[-5:] and pytest.raises(ValueError, f.seek, -1)
    with dev.fs.open("/mem/notes.txt", "w") as f:
        f.write("one\ntwo\n")
    with dev.fs.open("/mem/notes.txt", "a") as f:
        f.seek(0)  # appends still go to the end
        f.write("three\n")
    with dev.fs.open("/mem/notes.txt") as f, dev.fs.open("/mem/blob.bin", "rb") as g:
        assert f.readline() == "one\n" and g.read(4) == data[:4]  # two files, one session handle
        assert list(f) == ["two\n", "three\n"] and g.read(4) == data[4:8]
    assert dev.fs.stat("/mem/blob.bin").st_size == 3000


def test_tree_and_file_errors(dev):
    dev.fs.makedirs("/mem/t/a/b")
    [dev.fs.open(f"/mem/t/a/b/{i}", "w").close() for i in range(130)]  # more than one listing reply
    assert sorted(map(int, dev.fs.listdir("/mem/t/a/b"))) == list(range(130))
    [dev.fs.remove(f"/mem/t/a/b/{i}") for i in range(130)]
    dev.fs.makedirs("/mem/t/a", exist_ok=True)
    for path in ("/mem/t/x", "/mem/t/a/y", "/mem/t/a/b/z"):
        with dev.fs.open(path, "w") as f:
            f.write(path)
    assert list(dev.fs.walk("/mem/t")) == [("/mem/t", ["a"], ["x"]), ("/mem/t/a", ["b"], ["y"]),
                                           ("/mem/t/a/b", [], ["z"])]
    assert sorted((e.name, e.kind, e.size * e.is_file()) for e in dev.fs.scandir("/mem/t")) == \
        [("a", "directory", 0), ("x", "file", 8)]
    fs = dev.fs
    for call, args, error in [(fs.stat, ["/mem/none"], FileNotFoundError), (fs.mkdir, ["/mem/t/a"], FileExistsError),
                              (fs.open, ["/mem/t/x", "x"], FileExistsError), (fs.remove, ["/mem/t/a"], IsADirectoryError),
                              (fs.open, ["/mem/t/a"], IsADirectoryError), (fs.listdir, ["/mem/t/x"], NotADirectoryError)]:
        caught = pytest.raises(error, call, *args).value
        assert isinstance(caught, modbus_vukra.VukraError) and caught.errno
    pytest.raises(modbus_vukra.VukraError, fs.open, "/dev/null", "w")  # a device node is not replaced by a file
    with pytest.raises(OSError) as caught:
        dev.fs.rmdir("/mem/t/a")
    assert caught.value.errno == errno.ENOTEMPTY
    dev.fs.rename("/mem/t/x", "/mem/t/a/y")
    dev.fs.remove("/mem/t/a/y")
    assert dev.fs.listdir("/mem/t/a") == ["b"]
    usage = dev.fs.disk_usage("/mem")
    assert 0 < usage.used < usage.total == usage.used + usage.free


def test_get_and_put_lose_nothing(dev, tmp_path):
    local, back = tmp_path / "local.bin", tmp_path / "back.bin"
    local.write_bytes(os.urandom(5000))
    dev.fs.put(local, "/mem/put.bin")
    dev.fs.get("/mem/put.bin", back)
    assert back.read_bytes() == local.read_bytes()
    with pytest.raises(FileNotFoundError):
        dev.fs.get("/mem/missing", back)
    with pytest.raises(FileNotFoundError):
        dev.fs.put(tmp_path / "missing", "/mem/put.bin")
    os.mkfifo(tmp_path / "fifo")  # refused, not waited on for a writer
    pytest.raises(OSError, dev.fs.put, tmp_path / "fifo", "/mem/put.bin") and os.unlink(tmp_path / "fifo")
    assert back.read_bytes() == local.read_bytes() and sorted(os.listdir(tmp_path)) == ["back.bin", "local.bin"]
    assert not [n for n in dev.fs.listdir("/mem") if "vukra-put" in n]


def test_getfs_progress_and_mirror(dev):
    seen = []
    dev.getfs(progress=lambda phase, percent: seen.append((phase, percent)))
    # The share of the bytes that cross the line: it never goes back as the phases change.
    assert seen[-1] == (4, 100) and seen == sorted(seen, key=lambda s: s[1]) and len(seen) > 2
    with dev.fs.open("/mem/notes.txt", "a") as f:  # the local copy now
        f.write("four\n")
    # Only what changed: a node, a block and a little of the map, then nothing at all.
    assert 0 < dev.putfs(changed_only=True) < 2048 and dev.putfs(changed_only=True) == 0
    dev.putfs()
    assert os.path.getsize("sdcard0.o") > 0


@pytest.mark.parametrize("stop, error", [
    (lambda d: d.cancel(), modbus_vukra.TransferCancelled),
    (lambda d: os.kill(os.getpid(), signal.SIGINT), KeyboardInterrupt)])
def test_a_transfer_stops_and_the_session_goes_on(dev, stop, error):
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also when started with SIGINT ignored, as by "&"
    asked = []  # once, from another thread, as the data start to move
    progress = lambda phase, _: phase < 2 or asked or asked.append(threading.Thread(target=stop, args=[dev]).start())
    with pytest.raises(error):
        dev.getfs(progress)
    assert dev.registers["cycle_count"] == 4711 and "notes.txt" in dev.fs.listdir("/mem")


def test_notifications_reach_python_and_a_failing_callback_is_logged(dev, caplog):
    called = threading.Event()
    dev.mount()
    dev.on_status(lambda device, status: device is dev and status == 0 and called.set())
    assert called.wait(10)
    calls = []
    dev.on_status(lambda device, status: calls.append(status) or 1 / 0)
    deadline = time.monotonic() + 10
    while len(calls) < 2 and time.monotonic() < deadline:  # the timer goes on after a callback that raised
        time.sleep(0.1)
    dev.on_status(None)
    assert len(calls) == 2 and "ZeroDivisionError" in caplog.text

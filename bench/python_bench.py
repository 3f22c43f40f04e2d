#!/usr/bin/env python3
"""The Python package's costs, each next to its yardstick in the same run:

- reads per second of a two-word register ("setpoint", real) through
  dev.registers, next to the same reads through the C library in a C
  program (python_bench_peer) and through the bare export called by ctypes,
  all against one vukra-sim, in turns; target: the package costs at most 1.5 times
  the C call;
- a 256 KiB file read through dev.fs.open through the paced line of
  bench/paced_line.h at 400000 baud, next to the time the line takes for
  the bytes it carried; target: line time / measured time at least 0.9.

    python_bench.py BUILD_DIR
"""
import ctypes
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

build = os.path.abspath(sys.argv[1])
source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(source, "python"))
os.environ["MODBUS_VUKRA_LIBRARY"] = os.path.join(build, "src", "libmodbus_vukra.so")
import modbus_vukra  # noqa: E402

SECONDS = 0.5
ROUNDS = 9
BAUD = 400000
FILE_SIZE = 256 * 1024
peer = os.path.join(build, "bench", "python_bench_peer")
work = tempfile.mkdtemp(prefix="python-bench-")
os.chdir(work)
shutil.copyfile(os.path.join(source, "examples", "table.xml"), "table.xml")
sim = subprocess.Popen([os.path.join(build, "tools", "vukra-sim"), "--table", "table.xml", "--image", "card.o"],
                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
port = sim.stdout.readline().strip()


def rate(loop):
    count, start = 0, time.monotonic()
    while time.monotonic() - start < SECONDS:
        loop()
        count += 1
    return count / (time.monotonic() - start)


# The library prints a line per frame on standard output: to /dev/null on both sides.
shown = os.dup(1)
quiet = os.open(os.devnull, os.O_WRONLY)


def say(text):
    os.write(shown, (text + "\n").encode())


try:
    os.dup2(quiet, 1)
    # Short runs in turn, so that the busy moments of a shared machine fall
    # on all three alike; the median of each.
    rates = {"C program": [], "package": [], "bare export": []}
    value = (ctypes.c_ubyte * 4)()
    for _ in range(ROUNDS):
        out = subprocess.run([peer, "reads", port, "setpoint", str(SECONDS)], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True, check=True)
        rates["C program"].append(float(out.stderr.split()[-1]))
        with modbus_vukra.open(port) as dev:
            rates["package"].append(rate(lambda: dev.registers["setpoint"]))
            rates["bare export"].append(rate(lambda: dev._lib.protected_readreg(dev._handle, b"setpoint", value, 4)))
    best = {k: statistics.median(v) for k, v in rates.items()}
    say(f"register reads of setpoint (2 words) against vukra-sim, {ROUNDS} rounds of {SECONDS:g} s each:")
    for k, v in best.items():
        say(f"  {k:12} median {v:8.0f} reads/s ({1e6 / v:6.1f} us a read), best {max(rates[k]):8.0f}")
    say(f"  package cost / C call: {best['C program'] / best['package']:.2f} (target <= 1.5)")

    data = os.urandom(FILE_SIZE)
    relay = subprocess.Popen([peer, "line", port], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    line_port = relay.stdout.readline().strip()

    def carried():
        relay.stdin.write("\n")
        relay.stdin.flush()
        return sum(map(int, relay.stdout.readline().split()))

    with modbus_vukra.open(line_port) as dev:
        dev.mount()
        with dev.fs.open("/mem/bench.bin", "wb") as f:
            f.write(data)
        before, start = carried(), time.monotonic()
        with dev.fs.open("/mem/bench.bin", "rb") as f:
            got = f.read()
        seconds = time.monotonic() - start
        carried_bytes = carried() - before
    relay.stdin.close()
    relay.wait()
    line = carried_bytes * 10 / BAUD
    say(f"256 KiB read through dev.fs.open at {BAUD} baud (paced line): {seconds:.3f} s; the line carried "
          f"{carried_bytes} bytes, {line:.3f} s; ratio line/measured {line / seconds:.3f} (target >= 0.9)"
          + ("" if got == data else "; the bytes DIFFER"))
finally:
    sim.terminate()
    sim.wait()
    os.chdir("/")
    shutil.rmtree(work, ignore_errors=True)

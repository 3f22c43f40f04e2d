#!/usr/bin/env python3
"""vukra serve's web door, in one run against vukra-sim --listen:

1. GET /api/registers (every readable register, from the last round)
   requests per second, 4 clients on kept-alive connections, against the
   device's own pace: rounds of direct reads of the same registers per
   second (vukra poll without pause on the sim, before serve holds it).
2. From a change on the device (a Modbus TCP write through serve,
   answered) to its "value" event at an event client, 50 changes at
   --every 0.5: target within the period plus 100 ms.

   web_bench.py BUILD_DIR
"""
import http.client
import json
import os
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

build = os.path.abspath(sys.argv[1])
tools = os.path.join(build, "tools")
table = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples", "table.xml")
work = tempfile.mkdtemp()
os.chdir(work)
with open(table) as f, open("table.xml", "w") as out:
    out.write(f.read())
started = []


def start(*argv):
    p = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    started.append(p)
    return p


def line_of(stream, word):
    while True:
        line = stream.readline()
        if not line:
            raise RuntimeError("ended before " + word)
        if word in line:
            return line.strip()


sim = start(os.path.join(tools, "vukra-sim"), "--table", "table.xml", "--listen", "127.0.0.1:0")
device = sim.stdout.readline().split()[0]
names = ["setpoint", "offset_trim", "heater_on", "cycle_count", "energy", "uptime", "gain", "temperature",
         "probe_raw", "alarm", "history", "serial_number"]
try:
    rounds = 300
    t = time.monotonic()
    subprocess.run([os.path.join(tools, "vukra"), "-q", "-p", device, "poll", *names, "--every", "0.0001",
                    "--count", str(rounds), "--format", "json"], stdout=subprocess.DEVNULL, check=True)
    direct = rounds / (time.monotonic() - t)
    time.sleep(0.3)  # the sim takes its next client

    serve = start(os.path.join(tools, "vukra"), "-q", "-p", device, "serve", "--http", "127.0.0.1:0",
                  "--modbus-tcp", "127.0.0.1:0", "--every", "0.5")
    mtcp = int(line_of(serve.stderr, "Modbus TCP on").rsplit(":", 1)[1])
    web = line_of(serve.stderr, "web on http").split("http://")[1].rstrip("/")
    host, port = web.split(":")
    port = int(port)
    time.sleep(1)

    counts = []
    end = time.monotonic() + 5

    def client():
        c = http.client.HTTPConnection(host, port)
        n = 0
        while time.monotonic() < end:
            c.request("GET", "/api/registers")
            body = c.getresponse().read()
            assert len(json.loads(body)) == len(names)
            n += 1
        counts.append(n)

    threads = [threading.Thread(target=client) for _ in range(4)]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    api = sum(counts) / 5
    print("GET /api/registers, 4 clients: %.0f requests/s (12 registers each)" % api)
    print("direct reads of the same 12 registers (vukra poll on the sim): %.0f rounds/s" % direct)
    print("ratio: %.1f" % (api / direct))

    events = http.client.HTTPConnection(host, port)
    events.request("GET", "/api/events")
    stream = events.getresponse()
    modbus = socket.create_connection(("127.0.0.1", mtcp))
    latencies = []
    for i in range(50):
        value = 1000 + i
        modbus.sendall(struct.pack(">HHHBBHH", i, 0, 6, 1, 6, 0x102, value))
        modbus.recv(64)
        changed = time.monotonic()
        while True:
            line = stream.readline().decode()
            if line.startswith("data: ") and '"offset_trim"' in line and '"value":%d,' % value in line:
                latencies.append((time.monotonic() - changed) * 1000)
                break
    latencies.sort()
    print("change on the device to its event, 50 changes at --every 0.5: median %.0f ms, worst %.0f ms "
          "(target: at most 600 ms)" % (statistics.median(latencies), latencies[-1]))
finally:
    for p in reversed(started):
        p.terminate()
        p.wait()

"""Real-time client throughput and overhead, over loopback.

The streaming server runs in a child process (so it does not share the GIL
with the client) and serves data files from memory. Figures:

1. Sustained receive: RTClient receiving 1,000 data files of 1 MB and 50 of
   50 MB (each decoded into a ZelDataSet), against a plain socket reading the
   same stream from the same server in the same run; the client's CPU time
   per data file.
2. Buffer handling: time per MB for 10 MB and 100 MB data files; equal
   figures mean receiving costs O(message size).
3. The cost of the listener's polling loop: how much a connected but idle
   client slows CPU-bound numpy work on the main thread.

Usage: python bench/bench_rt.py [--quick]
"""

import argparse
import os
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

import zelpy
from zelpy import RTClient, RTClientMessageType, ZelDataSet, ZelDataVariableType

HEADER = 8
TIMEOUT = 300.0
VARIABLES = 6

SERVER_CODE = """
import sys
from zelpy.rtserver import RTServer
blocks = [open(path, "rb").read() for path in sys.argv[1:]]
server = RTServer(blocks, host="127.0.0.1", port=0, loop=True).start()
print(server.port, flush=True)
sys.stdin.read()
server.stop()
"""


def make_block(megabytes, seed=0):
    """A data file of about `megabytes` MB: one square AOI, six variables."""
    points = int(megabytes * 1e6 / (4 * VARIABLES))
    side = max(1, int(points ** 0.5))
    rng = np.random.default_rng(seed)
    ds = ZelDataSet()
    ds.add_aoi(side, side, "bench")
    kinds = [ZelDataVariableType.PixelCoordinate, ZelDataVariableType.PixelCoordinate,
             ZelDataVariableType.PixelDisplacement, ZelDataVariableType.PixelDisplacement,
             ZelDataVariableType.Correlation, ZelDataVariableType.Strain]
    for n, kind in enumerate(kinds):
        ds.add_variable("v%d" % n, "variable %d" % n, kind,
                        rng.random(side * side, dtype=np.float32))
    return ds.export_raw()


class Server:
    """The shipped server in a child process, looping over one block."""

    def __init__(self, path):
        self.process = subprocess.Popen([sys.executable, "-c", SERVER_CODE, path],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def close(self):
        self.process.stdin.close()
        self.process.wait(timeout=60)


def plain_socket(port, count, size):
    """Read `count` messages of `size` payload bytes as fast as Python can."""
    import socket
    total = count * (size + HEADER)
    buf = bytearray(1 << 20)
    view = memoryview(buf)
    with socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT) as sock:
        t0 = time.perf_counter()
        c0 = time.process_time()
        sock.sendall(b"S")
        got = 0
        while got < total:
            n = sock.recv_into(view, min(len(buf), total - got))
            if n == 0:
                raise ConnectionError("server went away")
            got += n
        elapsed = time.perf_counter() - t0
        cpu = time.process_time() - c0
        sock.sendall(b"P")
    return elapsed, cpu


def rt_client(port, count):
    """Receive `count` data files with RTClient; every one is decoded."""
    done = threading.Event()
    seen = [0]

    def on_data(i, ds):
        seen[0] = i + 1
        if i + 1 == count:
            done.set()

    client = RTClient("127.0.0.1", port)
    client.register_handler(RTClientMessageType.DATA, on_data)
    with client:
        client.connect()
        t0 = time.perf_counter()
        c0 = time.process_time()
        client.request_start_data_streaming()
        if not done.wait(TIMEOUT):
            raise RuntimeError("only %d of %d data files arrived" % (seen[0], count))
        elapsed = time.perf_counter() - t0
        cpu = time.process_time() - c0
        client.request_stop_data_streaming()
    return elapsed, cpu


def throughput(tmp, megabytes, count, repeats):
    path = os.path.join(tmp, "block-%d.out" % megabytes)
    block = make_block(megabytes)
    with open(path, "wb") as f:
        f.write(block)
    size = len(block)
    del block
    server = Server(path)
    try:
        best_plain = best_rt = None
        for _ in range(repeats):
            plain = plain_socket(server.port, count, size)
            rt = rt_client(server.port, count)
            best_plain = plain if best_plain is None or plain[0] < best_plain[0] else best_plain
            best_rt = rt if best_rt is None or rt[0] < best_rt[0] else best_rt
    finally:
        server.close()
        os.remove(path)
    mb = count * (size + HEADER) / 1e6
    plain_rate = mb / best_plain[0]
    rt_rate = mb / best_rt[0]
    print("%4d x %6.2f MB  plain socket %7.0f MB/s   RTClient %7.0f MB/s   ratio %.2f   "
          "client CPU %.2f ms/data file (plain socket %.2f ms)"
          % (count, size / 1e6, plain_rate, rt_rate, rt_rate / plain_rate,
             1e3 * best_rt[1] / count, 1e3 * best_plain[1] / count))
    return size, best_rt


def linearity(tmp, repeats):
    rows = []
    for megabytes, count in ((10, 20), (100, 2)):
        size, (elapsed, cpu) = throughput(tmp, megabytes, count, repeats)
        rows.append((megabytes, 1e3 * elapsed / (count * size / 1e6)))
    (small, per_small), (large, per_large) = rows
    print("time per MB: %d MB files %.3f ms/MB, %d MB files %.3f ms/MB, ratio %.2f "
          "(1.0 = linear in the message size)" % (small, per_small, large, per_large,
                                                   per_large / per_small))


def numpy_work(kind):
    if kind == "small arrays":
        # Many short numpy calls: the main thread holds the GIL almost all the time.
        a = np.linspace(0.0, 1.0, 64)
        t0 = time.perf_counter()
        for _ in range(600000):
            a = np.sin(a) * 0.5 + 0.25
        return time.perf_counter() - t0
    # Few long calls that release the GIL inside numpy.
    a = np.linspace(0.0, 1.0, 4_000_000)
    t0 = time.perf_counter()
    for _ in range(40):
        a = np.sin(a) * 0.5 + 0.25
    return time.perf_counter() - t0


def idle_cost(tmp, repeats):
    import socket
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    port = listener.getsockname()[1]
    try:
        for kind in ("small arrays", "large arrays"):
            alone = min(numpy_work(kind) for _ in range(repeats))
            client = RTClient("127.0.0.1", port)
            client.connect()
            conn, _ = listener.accept()
            try:
                with_client = min(numpy_work(kind) for _ in range(repeats))
                c0 = time.process_time()
                time.sleep(1.0)
                idle_cpu = time.process_time() - c0
            finally:
                client.disconnect()
                conn.close()
            print("numpy on the main thread (%s): alone %.3f s, with an idle connected client "
                  "%.3f s, slowdown x%.2f; the idle listener alone uses %.0f%% of a core"
                  % (kind, alone, with_client, with_client / alone, 100 * idle_cpu))
    finally:
        listener.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="fewer and smaller runs")
    args = parser.parse_args()
    repeats = 1 if args.quick else 2
    print("zelpy %s, python %s, %d CPUs" % (zelpy.__version__, sys.version.split()[0],
                                            os.cpu_count()))
    with tempfile.TemporaryDirectory() as tmp:
        if args.quick:
            throughput(tmp, 1, 100, repeats)
            throughput(tmp, 50, 5, repeats)
        else:
            throughput(tmp, 1, 1000, repeats)
            throughput(tmp, 50, 50, repeats)
        linearity(tmp, repeats)
        idle_cost(tmp, 3)


if __name__ == "__main__":
    main()

"""Real-time client throughput and overhead, over loopback.

The streaming server runs in a child process (so it does not share the GIL
with the client) and serves data files from memory. Figures:

1. Sustained receive: RTClient receiving 1,000 data files of 1 MB and 50 of
   50 MB (each decoded into a ZelDataSet), against a plain socket reading the
   same stream from the same server in the same run; the client's CPU time
   per data file.
2. Buffer handling: time per MB for messages of 10 MB and 100 MB (analog
   data, so no decoding is involved); equal figures mean receiving costs
   O(message size). The same for a plain socket and for a listener that
   concatenates and slices a bytes object, for contrast.
3. The cost of an idle connected client to CPU-bound work on the main
   thread (pure Python, short and long numpy calls), against the same work
   with no client, run interleaved: the client with its default polling wait
   and with idle_wait=False, and for contrast the polling loop written in
   Python (select on reading and writing, no timeout), which holds the
   interpreter lock while it polls.

Usage: python bench/bench_rt.py [--quick] [--idle-only]
"""

import argparse
import os
import socket
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


def decode_alone(block, count):
    """Decoding `count` copies of a block into fresh datasets, on a thread of
    its own as the listener does (its allocator arena behaves differently
    from the main thread's)."""
    elapsed = [0.0]

    def work():
        t0 = time.perf_counter()
        for _ in range(count):
            ds = ZelDataSet()
            ds.load_from_data(block, "bench.out")
            del ds
        elapsed[0] = time.perf_counter() - t0

    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    return elapsed[0]


def naive_listener(port, count, size):
    """The obvious listener: a bytes buffer that grows by concatenation and
    is sliced after each message. Returns the seconds for `count` messages."""
    import select
    with socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT) as sock:
        sock.setblocking(False)
        t0 = time.perf_counter()
        sock.sendall(b"S")
        buffer = b""
        seen = 0
        while seen < count:
            select.select([sock], [], [], TIMEOUT)
            try:
                buffer += sock.recv(1000000)
            except BlockingIOError:
                continue
            while len(buffer) >= HEADER:
                length = int.from_bytes(buffer[0:4], sys.byteorder) + HEADER
                if length > len(buffer):
                    break
                message = buffer[HEADER:length]
                buffer = buffer[length:]
                seen += 1
        elapsed = time.perf_counter() - t0
        sock.setblocking(True)
        sock.sendall(b"P")
    return elapsed


def throughput(tmp, megabytes, count, repeats):
    path = os.path.join(tmp, "block-%d.out" % megabytes)
    block = make_block(megabytes)
    with open(path, "wb") as f:
        f.write(block)
    size = len(block)
    decode = min(decode_alone(block, min(count, 50)) for _ in range(repeats)) / min(count, 50)
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
    decode_rate = size / 1e6 / decode
    # What reading and decoding one after the other on one thread allows.
    bound = 1.0 / (1.0 / plain_rate + 1.0 / decode_rate)
    print("%4d x %6.2f MB  plain socket %7.0f MB/s   RTClient %7.0f MB/s   ratio %.2f   "
          "client CPU %.2f ms/data file (plain socket %.2f ms)"
          % (count, size / 1e6, plain_rate, rt_rate, rt_rate / plain_rate,
             1e3 * best_rt[1] / count, 1e3 * best_plain[1] / count))
    print("                 decoding alone %.2f ms/data file (%.0f MB/s); plain socket then "
          "decode in turn: %.0f MB/s; RTClient reaches %.2f of that"
          % (1e3 * decode, decode_rate, bound, rt_rate / bound))
    return size, best_rt


TEXT_SERVER_CODE = """
import socket, struct, sys
size, count = int(sys.argv[1]), int(sys.argv[2])
payload = b"x" * size
header = struct.pack("=II", size, 6)
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen(4)
print(listener.getsockname()[1], flush=True)
while True:
    conn, _ = listener.accept()
    if conn.recv(1) != b"S":
        conn.close()
        break
    try:
        for _ in range(count):
            conn.sendall(header)
            conn.sendall(payload)
        conn.recv(1)
    except OSError:
        pass
    conn.close()
"""


def text_stream_rates(megabytes, count):
    """Seconds per MB for RTClient, a plain socket and the naive listener on
    a stream of large analog-data messages: framing cost without decoding."""
    size = int(megabytes * 1e6)
    process = subprocess.Popen([sys.executable, "-c", TEXT_SERVER_CODE, str(size), str(count)],
                               stdout=subprocess.PIPE, text=True)
    port = int(process.stdout.readline())
    try:
        done = threading.Event()
        seen = [0]

        def on_text(i, text):
            seen[0] += 1
            if seen[0] == count:
                done.set()

        client = RTClient("127.0.0.1", port)
        client.register_handler(RTClientMessageType.ANALOG_DATA, on_text)
        with client:
            client.connect()
            t0 = time.perf_counter()
            client.request_start_data_streaming()
            if not done.wait(TIMEOUT):
                raise RuntimeError("analog messages missing")
            rt = time.perf_counter() - t0
        plain = plain_socket(port, count, size)[0]
        # Two messages are enough to see it, and more take minutes.
        naive_count = min(count, 2)
        naive = naive_listener(port, naive_count, size) * count / naive_count
        with socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT) as stop:
            stop.sendall(b"Q")
    finally:
        process.wait(timeout=60)
    mb = count * size / 1e6
    return rt / mb, plain / mb, naive / mb


def text_alone(megabytes, count):
    """Seconds per MB for only turning payloads into str, as the listener does
    for analog data: the part of the framing figure that is not the buffer."""
    size = int(megabytes * 1e6)
    view = memoryview(bytearray(b"x" * size))
    elapsed = [0.0]

    def work():
        t0 = time.perf_counter()
        for _ in range(count):
            text = str(view[0:size], "utf-8")
            del text
        elapsed[0] = time.perf_counter() - t0

    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    view.release()
    return elapsed[0] / (count * size / 1e6)


def linearity(tmp, repeats):
    rows = {}
    # Enough messages that the one-off growth of the buffer is spread thin.
    for megabytes, count in ((10, 50), (100, 5)):
        rows[megabytes] = min((text_stream_rates(megabytes, count) for _ in range(repeats)),
                              key=lambda r: r[0])
    for n, name in enumerate(("RTClient", "plain socket", "growing bytes buffer")):
        print("framing, %-20s %.3f ms/MB with 10 MB messages, %.3f ms/MB with 100 MB "
              "messages, ratio %.2f (1.0 = linear)"
              % (name, 1e3 * rows[10][n], 1e3 * rows[100][n], rows[100][n] / rows[10][n]))
    small, large = text_alone(10, 50), text_alone(100, 5)
    print("  of which making the str of each payload alone: %.3f ms/MB and %.3f ms/MB "
          "(fresh memory for every large str)" % (1e3 * small, 1e3 * large))


WORKLOADS = ("pure Python", "small numpy arrays", "large numpy arrays")


def waits_of_this_thread():
    """How often this thread has blocked so far (Linux; None elsewhere). A
    thread that computes without I/O blocks only when it has to hand the
    interpreter lock to another thread and wait to get it back."""
    try:
        with open("/proc/thread-self/status") as status:
            for line in status:
                if line.startswith("voluntary_ctxt_switches:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def main_thread_work(kind):
    """About a third of a second of CPU-bound work on the calling thread:
    its seconds and how often it had to wait for the interpreter lock.
    Short runs, many of them: the best of many is what a quiet moment of a
    shared machine gives."""
    w0 = waits_of_this_thread()
    t0 = time.perf_counter()
    if kind == "pure Python":
        # Holds the interpreter lock all the time: the case a listener that
        # also wants the lock hurts most.
        total = 0
        for i in range(2_000_000):
            total += i * i % 7
    elif kind == "small numpy arrays":
        # Many short numpy calls: the lock is held almost all the time.
        a = np.linspace(0.0, 1.0, 64)
        for _ in range(100000):
            a = np.sin(a) * 0.5 + 0.25
    else:
        # Few long calls that release the lock inside numpy.
        a = np.linspace(0.0, 1.0, 4_000_000)
        for _ in range(8):
            a = np.sin(a) * 0.5 + 0.25
    elapsed = time.perf_counter() - t0
    w1 = waits_of_this_thread()
    return elapsed, (None if w0 is None else (w1 - w0) / elapsed)


class PythonPollingListener:
    """The protocol's client loop written in Python: select on reading and
    writing without a timeout, holding the interpreter lock while it polls.
    This is how the listener waited before it moved its wait out of the lock."""

    def __init__(self, port):
        import select
        self.sock = socket.create_connection(("127.0.0.1", port))
        self.sock.setblocking(False)
        self.running = True

        def loop():
            while self.running:
                readable, _, _ = select.select([self.sock], [self.sock], [])
                if readable:
                    try:
                        if not self.sock.recv(1000000):
                            return
                    except BlockingIOError:
                        pass

        self.thread = threading.Thread(target=loop, daemon=True)
        self.thread.start()

    def close(self):
        self.running = False
        self.thread.join()
        self.sock.close()


CONTENDERS = {
    "no client": None,
    "Python select loop": PythonPollingListener,
    "RTClient()": lambda port: connected(RTClient("127.0.0.1", port)),
    "RTClient(idle_wait=False)": lambda port: connected(RTClient("127.0.0.1", port, idle_wait=False)),
}


def connected(client):
    client.connect()
    client.close = client.disconnect
    return client


def idle_cost(tmp, repeats):
    """Slowdown of main-thread work by a connected client that receives
    nothing, against the same work with no client, runs interleaved."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(4)
    port = listener.getsockname()[1]
    try:
        for kind in WORKLOADS:
            times = {name: [] for name in CONTENDERS}
            waits = {name: [] for name in CONTENDERS}
            cpu = {name: 0.0 for name in CONTENDERS}
            for _ in range(repeats):
                for name, make in CONTENDERS.items():
                    try:
                        contender = make(port) if make else None
                    except TypeError:
                        # A build without the keyword: measured without it.
                        times.pop(name, None)
                        continue
                    conn = listener.accept()[0] if make else None
                    try:
                        elapsed, rate = main_thread_work(kind)
                        times[name].append(elapsed)
                        waits[name].append(rate)
                        c0 = time.process_time()
                        time.sleep(0.2)
                        cpu[name] += (time.process_time() - c0) / 0.2 / repeats
                    finally:
                        if contender is not None:
                            contender.close()
                            conn.close()
            alone = times["no client"]
            print("main thread, %s: alone %.3f s (best of %d), waits for the lock %s/s"
                  % (kind, min(alone), repeats, median_text(waits["no client"])))
            for name in [name for name in CONTENDERS if name in times][1:]:
                # Each run against the run without a client just before it:
                # both saw about the same load from the rest of the machine.
                pairs = sorted(t / a for t, a in zip(times[name], alone))
                print("  with an idle %-26s slowdown x%.3f best of each, runs in pairs x%.3f "
                      "median (x%.3f-x%.3f); main thread waits for the lock %s/s; "
                      "process CPU when idle %3.0f%% of a core"
                      % (name, min(times[name]) / min(alone), pairs[len(pairs) // 2], pairs[0],
                         pairs[-1], median_text(waits[name]), 100 * cpu[name]))
    finally:
        listener.close()


def median_text(values):
    if any(v is None for v in values):
        return "?"
    return "%.0f" % sorted(values)[len(values) // 2]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="fewer and smaller runs")
    parser.add_argument("--idle-only", action="store_true",
                        help="only the cost of an idle client to the main thread")
    args = parser.parse_args()
    repeats = 1 if args.quick else 2
    print("zelpy %s, python %s, %d CPUs, load average %.2f" % (
        zelpy.__version__, sys.version.split()[0], os.cpu_count(), os.getloadavg()[0]))
    if args.idle_only:
        idle_cost(None, 11)
        return
    with tempfile.TemporaryDirectory() as tmp:
        if args.quick:
            throughput(tmp, 1, 100, repeats)
            throughput(tmp, 50, 5, repeats)
        else:
            throughput(tmp, 1, 1000, repeats)
            throughput(tmp, 50, 50, repeats)
        linearity(tmp, repeats)
        idle_cost(tmp, 11)


if __name__ == "__main__":
    main()

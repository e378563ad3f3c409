"""RTClient against hand-written byte streams and against the shipped server.

Every peer is a socket this file opens on 127.0.0.1 with an ephemeral port;
every wait has a timeout; fixtures close and join everything they start.
"""

import json
import os
import queue
import socket
import struct
import subprocess
import sys
import threading
import time
import tracemalloc

import numpy as np
import pytest

import zelpy
from zelpy import RTClient, RTClientMessageType, ZelDataSet, ZelDataVariableType
from zelpy.rtserver import RTServer

TIMEOUT = 10.0
NOT_CONNECTED = "Real time client is not connected."


# ------------------------------------------------------------------ data

def make_dataset(rows, columns, seed):
    """A small but real data file: two AOIs, a few variables of mixed kinds."""
    rng = np.random.default_rng(seed)
    ds = ZelDataSet()
    ds.add_aoi(rows, columns, "aoi-a")
    ds.add_aoi(max(1, rows // 2), columns + 1, "aoi-b")
    points = rows * columns + max(1, rows // 2) * (columns + 1)
    for name, kind in (("x", ZelDataVariableType.PixelCoordinate),
                       ("y", ZelDataVariableType.PixelCoordinate),
                       ("sigma", ZelDataVariableType.Correlation),
                       ("u", ZelDataVariableType.PixelDisplacement)):
        ds.add_variable(name, name + " of the test", kind,
                        rng.standard_normal(points).astype(np.float32).tolist())
    return ds


def block_of(seed, rows=6, columns=7):
    return make_dataset(rows, columns, seed).export_raw()


def decoded(block):
    ds = ZelDataSet()
    ds.load_from_data(block, "expected.out")
    return ds


def assert_same_data(received, block):
    expected = decoded(block)
    assert received.export_raw() == expected.export_raw()
    names = expected.variables()
    assert received.variables() == names
    np.testing.assert_array_equal(received.get_values(names), expected.get_values(names))


def frame(message_type, payload=b""):
    return (len(payload).to_bytes(4, sys.byteorder) + message_type.to_bytes(4, sys.byteorder)
            + payload)


# -------------------------------------------------------------- fixtures

@pytest.fixture(autouse=True)
def no_thread_left_behind():
    before = set(threading.enumerate())
    yield
    new = [t for t in threading.enumerate() if t not in before]
    for thread in new:
        thread.join(TIMEOUT)
    assert [t.name for t in new if t.is_alive()] == []


class Peer:
    """The server side of one connection, written by hand."""

    def __init__(self):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.listener.settimeout(TIMEOUT)
        self.port = self.listener.getsockname()[1]
        self.conn = None

    def accept(self):
        self.conn, _ = self.listener.accept()
        self.conn.settimeout(TIMEOUT)
        self.conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return self

    def send(self, data, pause=0.0):
        self.conn.sendall(data)
        if pause:
            # Gives the client's loop a chance to read what is there so far;
            # the outcome must not depend on whether it did.
            time.sleep(pause)

    def recv_exactly(self, size):
        data = b""
        while len(data) < size:
            chunk = self.conn.recv(size - len(data))
            if not chunk:
                break
            data += chunk
        return data

    def close_connection(self):
        if self.conn is not None:
            self.conn.close()
            self.conn = None

    def close(self):
        self.close_connection()
        self.listener.close()


@pytest.fixture
def peer():
    p = Peer()
    yield p
    p.close()


class Received:
    """Handler calls, in order, as (kind, index, payload)."""

    def __init__(self):
        self.items = queue.Queue()

    def data(self, i, ds):
        self.items.put(("data", i, ds))

    def analog(self, i, text):
        self.items.put(("analog", i, text))

    def get(self):
        return self.items.get(timeout=TIMEOUT)

    def take(self, count):
        return [self.get() for _ in range(count)]

    def empty(self):
        return self.items.empty()


@pytest.fixture
def received():
    return Received()


@pytest.fixture
def thread_errors(monkeypatch):
    """Exceptions that end a listener thread, caught instead of printed."""
    errors = queue.Queue()
    monkeypatch.setattr(threading, "excepthook", lambda args: errors.put(args.exc_value))
    return errors


@pytest.fixture
def make_client(received):
    clients = []

    def make(port, handlers=True):
        client = RTClient("127.0.0.1", port)
        if handlers:
            client.register_handler(RTClientMessageType.DATA, received.data)
            client.register_handler(RTClientMessageType.ANALOG_DATA, received.analog)
        clients.append(client)
        return client

    yield make
    for client in clients:
        thread = client.thread
        client.disconnect()
        assert thread is None or not thread.is_alive()


@pytest.fixture
def connected(peer, make_client):
    """A connected client and the accepted peer connection."""
    client = make_client(peer.port)
    client.connect()
    peer.accept()
    return client


# ------------------------------------------------------------ lifecycle

def test_new_client_is_disconnected_and_lives_in_the_module():
    client = RTClient()
    assert (client.ip, client.port) == ("localhost", 20020)
    assert client.handlers == {} and client.running is False
    assert client.socket is None and client.thread is None
    assert type(client).__module__ == "zelpyx.zelpy.zelpy"
    assert [(m.name, m.value) for m in RTClientMessageType] == [("DATA", 0), ("ANALOG_DATA", 1)]


@pytest.mark.parametrize("request_name", ["request_start_data_streaming",
                                          "request_stop_data_streaming",
                                          "request_analog_data_while_streaming"])
def test_requests_while_disconnected_raise(request_name):
    client = RTClient("127.0.0.1", 1)
    with pytest.raises(ConnectionError) as info:
        getattr(client, request_name)()
    assert str(info.value) == NOT_CONNECTED
    assert type(info.value) is ConnectionError


def test_disconnect_without_connect_is_harmless():
    client = RTClient()
    client.disconnect()
    client.disconnect()
    assert (client.running, client.socket, client.thread) == (False, None, None)


def test_refused_connection_reaches_the_caller():
    probe = socket.socket()
    probe.bind(("127.0.0.1", 0))
    port = probe.getsockname()[1]
    probe.close()  # bound but never listening: nothing accepts on that port
    client = RTClient("127.0.0.1", port)
    with pytest.raises(ConnectionRefusedError):
        client.connect()
    assert client.running is False and client.thread is None
    assert client.socket is not None  # kept until the next cleanup
    client.disconnect()
    assert client.socket is None


def test_requests_send_single_bytes(connected, peer):
    connected.request_start_data_streaming()
    connected.request_analog_data_while_streaming()
    connected.request_stop_data_streaming()
    assert peer.recv_exactly(3) == b"SAP"


def test_second_connect_is_refused_and_keeps_the_first_connection(connected, peer, received):
    with pytest.raises(ConnectionError) as info:
        connected.connect()
    assert str(info.value) == "Real time client is already connected."
    peer.send(frame(6, b"still here"))
    assert received.get() == ("analog", 0, "still here")


def test_reconnect_restarts_the_count(peer, make_client, received):
    client = make_client(peer.port)
    block = block_of(1)
    for _ in range(2):
        client.connect()
        peer.accept()
        peer.send(frame(3, block) + frame(3, block))
        got = received.take(2)
        assert [(k, i, ds.file_name()) for k, i, ds in got] == [
            ("data", 0, "data_00000_0.out"), ("data", 1, "data_00001_0.out")]
        client.disconnect()
        peer.close_connection()
        assert client.thread is None and client.socket is None


def test_context_manager_does_not_connect_and_disconnects_on_error(peer, received):
    client = RTClient("127.0.0.1", peer.port)
    with pytest.raises(KeyError):
        with client as entered:
            assert entered is client and client.socket is None
            client.connect()
            thread = client.thread
            peer.accept()
            raise KeyError("from the block")
    assert (client.running, client.socket, client.thread) == (False, None, None)
    assert not thread.is_alive()


def test_disconnect_from_a_handler(connected, peer):
    calls = queue.Queue()

    def stop_at_first(i, ds):
        connected.disconnect()
        calls.put(i)

    connected.register_handler(RTClientMessageType.DATA, stop_at_first)
    thread = connected.thread
    peer.send(frame(3, block_of(2)) * 3)
    assert calls.get(timeout=TIMEOUT) == 0
    thread.join(TIMEOUT)
    assert not thread.is_alive()
    assert calls.empty() and connected.socket is None


# -------------------------------------------------------------- framing

def split_every(data, size):
    return [data[i:i + size] for i in range(0, len(data), size)]


FRAMING_PLANS = {
    # how the same three messages are cut into writes
    "one write": lambda s: [s],
    "header split after 3 bytes": lambda s: [s[:3], s[3:]],
    "header split after 7 bytes": lambda s: [s[:7], s[7:]],
    "header and payload apart": lambda s: [s[:8], s[8:]],
    "byte by byte": lambda s: split_every(s, 1),
    "odd pieces": lambda s: split_every(s, 13),
}


@pytest.mark.parametrize("plan", list(FRAMING_PLANS), ids=list(FRAMING_PLANS))
def test_messages_survive_any_cut(connected, peer, received, plan):
    block = block_of(3)
    stream = frame(6, "zero ¹".encode("utf-8")) + frame(3, block) + frame(6, b"") + frame(3, block)
    pieces = FRAMING_PLANS[plan](stream)
    pause = 0.02 if len(pieces) < 10 else 0.0
    for piece in pieces:
        peer.send(piece, pause)
    got = received.take(4)
    assert [(k, i) for k, i, _ in got] == [("analog", 0), ("data", 0), ("analog", 1), ("data", 1)]
    assert got[0][2] == "zero ¹" and got[2][2] == ""
    assert [ds.file_name() for _, _, ds in (got[1], got[3])] == ["data_00000_0.out", "data_00001_0.out"]
    for _, _, ds in (got[1], got[3]):
        assert_same_data(ds, block)


def test_two_messages_in_one_read_and_a_third_waiting(connected, peer, received):
    first, second, third = block_of(4), block_of(5), block_of(6)
    tail = frame(3, third)
    peer.send(frame(3, first) + frame(3, second) + tail[:20], pause=0.05)
    got = received.take(2)
    assert [i for _, i, _ in got] == [0, 1]
    assert_same_data(got[0][2], first)
    assert_same_data(got[1][2], second)
    assert received.empty()  # the third has its header but not its payload
    peer.send(tail[20:])
    kind, i, ds = received.get()
    assert (kind, i, ds.file_name()) == ("data", 2, "data_00002_0.out")
    assert_same_data(ds, third)


def test_payload_of_tens_of_megabytes(connected, peer, received):
    big = block_of(7, rows=1400, columns=1100)  # five variables of 1.5 Mpoints
    assert len(big) > 25_000_000
    small = block_of(8)
    # All in one go: the client's buffer has to grow while a message is pending.
    peer.send(frame(6, b"before") + frame(3, big) + frame(3, small) + frame(6, b"after"))
    got = received.take(4)
    assert [(k, i) for k, i, _ in got] == [("analog", 0), ("data", 0), ("data", 1), ("analog", 2)]
    assert_same_data(got[1][2], big)
    assert_same_data(got[2][2], small)


def test_handlers_registered_mid_stream(peer, make_client, received):
    client = make_client(peer.port, handlers=False)
    client.register_handler(RTClientMessageType.ANALOG_DATA, received.analog)
    client.connect()
    peer.accept()
    block = block_of(9)
    peer.send(frame(3, block) + frame(6, b"sync"))
    # The data set went unhandled but was counted.
    assert received.get() == ("analog", 1, "sync")
    client.register_handler(RTClientMessageType.DATA, received.data)
    peer.send(frame(3, block))
    kind, i, ds = received.get()
    assert (kind, i, ds.file_name()) == ("data", 1, "data_00001_0.out")
    replaced = queue.Queue()
    client.register_handler(RTClientMessageType.DATA, lambda i, ds: replaced.put(i))
    peer.send(frame(3, block))
    assert replaced.get(timeout=TIMEOUT) == 2
    assert received.empty()


# --------------------------------------------------------------- failures

def assert_listener_ended(client, thread_errors, exc_class, message):
    error = thread_errors.get(timeout=TIMEOUT)
    assert type(error) is exc_class
    assert str(error) == message
    assert client.running is False and client.socket is None
    client.thread.join(TIMEOUT)
    assert not client.thread.is_alive()
    with pytest.raises(ConnectionError, match="^Real time client is not connected\\.$"):
        client.request_start_data_streaming()


@pytest.mark.parametrize("text", ["Camera disconnected", "", "Überlauf ✗"])
def test_error_message_ends_the_listener(connected, peer, received, thread_errors, text):
    peer.send(frame(6, b"first") + frame(0, text.encode("utf-8")) + frame(6, b"never"))
    assert received.get() == ("analog", 0, "first")
    assert_listener_ended(connected, thread_errors, Exception, "Error from server: " + text)
    assert received.empty()


@pytest.mark.parametrize("message_type", [1, 2, 4, 5, 7, 255, 0xFFFFFFFF])
def test_unknown_message_type_ends_the_listener(connected, peer, received, thread_errors,
                                                message_type):
    peer.send(frame(3, block_of(10)) + frame(message_type, b"\x00" * 5))
    assert received.get()[:2] == ("data", 0)
    assert_listener_ended(connected, thread_errors, Exception, "Unknown message type, exiting.")


@pytest.mark.parametrize("payload", [b"", b"\x00" * 64, b"not a data file at all"])
def test_undecodable_data_ends_the_listener(connected, peer, thread_errors, payload):
    peer.send(frame(3, payload))
    assert_listener_ended(connected, thread_errors, ValueError, "Unable to decode memory buffer")


def test_handler_exception_ends_the_listener(connected, peer, thread_errors):
    def broken(i, text):
        raise ZeroDivisionError("handler failed at " + text)

    connected.register_handler(RTClientMessageType.ANALOG_DATA, broken)
    peer.send(frame(6, b"x"))
    assert_listener_ended(connected, thread_errors, ZeroDivisionError, "handler failed at x")


@pytest.mark.parametrize("cut", [3, 8, 8 + 100], ids=["in header", "after header", "in payload"])
def test_server_closing_mid_message(connected, peer, received, thread_errors, cut):
    stream = frame(6, b"whole") + frame(3, block_of(11))
    peer.send(stream[:len(frame(6, b"whole")) + cut])
    assert received.get() == ("analog", 0, "whole")
    peer.close_connection()
    assert_listener_ended(connected, thread_errors, ConnectionError,
                          "Connection closed by the server in the middle of a message.")


def test_a_huge_announced_length_does_not_allocate_it(connected, peer, thread_errors):
    tracemalloc.start()
    try:
        peer.send((0xFFFFFFF0).to_bytes(4, sys.byteorder)
                  + (3).to_bytes(4, sys.byteorder) + bytes(3_000_000))
        peer.close_connection()
        assert_listener_ended(connected, thread_errors, ConnectionError,
                              "Connection closed by the server in the middle of a message.")
        peak = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert peak < 100_000_000


def test_server_closing_between_messages_ends_quietly(connected, peer, received, thread_errors):
    peer.send(frame(6, b"bye"))
    assert received.get() == ("analog", 0, "bye")
    thread = connected.thread
    peer.close_connection()
    thread.join(TIMEOUT)
    assert not thread.is_alive()
    assert connected.running is False and connected.socket is None
    assert thread_errors.empty()


def test_disconnect_while_data_is_flowing_raises_nothing(connected, peer, received,
                                                         thread_errors):
    sender = threading.Thread(target=lambda: _send_until_closed(peer.conn, frame(6, b"x" * 5000)))
    sender.start()
    try:
        received.take(3)
        connected.disconnect()
    finally:
        sender.join(TIMEOUT)
    assert not sender.is_alive()
    assert thread_errors.empty()


def _send_until_closed(conn, data):
    try:
        for _ in range(100000):
            conn.sendall(data)
    except OSError:
        pass


# ------------------------------------------------------- shipped server

@pytest.fixture
def blocks():
    return [block_of(20 + n, rows=5 + n, columns=4 + 2 * n) for n in range(5)]


def collect(received, count):
    got = received.take(count)
    assert all(kind == "data" for kind, _, _ in got)
    return got


def test_server_streams_blocks_then_rewinds(blocks, make_client, received):
    with RTServer(blocks, port=0) as server:
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, len(blocks))
        assert [i for _, i, _ in got] == list(range(len(blocks)))
        for (_, _, ds), block in zip(got, blocks):
            assert_same_data(ds, block)
        # Stopped at the end; the next start sends everything again.
        client.request_analog_data_while_streaming()
        kind, i, text = received.get()
        assert (kind, i) == ("analog", len(blocks))
        assert json.loads(text)["data_set"] == len(blocks)
        client.request_start_data_streaming()
        again = collect(received, len(blocks))
        assert [ds.file_name() for _, _, ds in again][0] == "data_%05d_0.out" % len(blocks)
        assert_same_data(again[-1][2], blocks[-1])


def test_server_stop_and_resume_continue_where_they_left(blocks, make_client, received):
    # Slow enough that "P" arrives long before the last file is due.
    with RTServer(blocks, port=0, fps=5) as server:
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        first = received.get()
        client.request_stop_data_streaming()
        client.request_analog_data_while_streaming()
        # Anything already under way arrives before the answer to "A".
        before = []
        while True:
            item = received.get()
            if item[0] == "analog":
                break
            before.append(item)
        paused_at = item[1]
        assert paused_at == 1 + len(before) < len(blocks)
        client.request_start_data_streaming()
        rest = collect(received, len(blocks) - paused_at)
        assert [i for _, i, _ in [first] + before + rest] == list(range(len(blocks)))
        for (_, i, ds) in [first] + before + rest:
            assert_same_data(ds, blocks[i])


def test_server_loops(blocks, make_client, received):
    with RTServer(blocks[:2], port=0, loop=True) as server:
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, 5)
        client.request_stop_data_streaming()
    for _, i, ds in got:
        assert_same_data(ds, blocks[i % 2])


@pytest.mark.parametrize("fail, exc_class, message", [
    ("error", Exception, "Error from server: Simulated server error."),
    ("unknown", Exception, "Unknown message type, exiting."),
    ("truncated", ConnectionError, "Connection closed by the server in the middle of a message."),
])
def test_server_faults(blocks, make_client, received, thread_errors, fail, exc_class, message):
    with RTServer(blocks, port=0, fail_after=2, fail=fail) as server:
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, 2)
        assert_same_data(got[1][2], blocks[1])
        assert_listener_ended(client, thread_errors, exc_class, message)
        assert received.empty()


def test_server_injected_messages(blocks, make_client, received, thread_errors):
    with RTServer(blocks, port=0) as server:
        client = make_client(server.port)
        client.connect()
        assert server.wait_for_clients(1, TIMEOUT)
        assert server.send_message(6, "injected") == 1
        assert received.get() == ("analog", 0, "injected")
        server.send_error("stop now")
        assert_listener_ended(client, thread_errors, Exception, "Error from server: stop now")


def test_server_stop_does_not_hang_on_a_client_that_stopped_reading(make_client):
    big = [bytes(8_000_000)]
    server = RTServer(big, port=0, loop=True).start()
    try:
        stalled = socket.create_connection(("127.0.0.1", server.port), timeout=TIMEOUT)
        stalled.sendall(b"S")
        assert server.wait_for_clients(1, TIMEOUT)
        stalled.recv(1000)  # the stream has started; now it stays unread
        stopper = threading.Thread(target=server.stop)
        stopper.start()
        stopper.join(TIMEOUT)
        assert not stopper.is_alive()
        assert server.clients == 0
    finally:
        server.stop()
        stalled.close()


def test_server_with_nothing_to_serve_still_answers_analog_requests():
    with RTServer([], port=0) as server:
        with socket.create_connection(("127.0.0.1", server.port), timeout=TIMEOUT) as s:
            s.sendall(b"SA")
            size, kind = struct.unpack("=II", s.recv(8, socket.MSG_WAITALL))
            assert kind == 6
            assert json.loads(s.recv(size, socket.MSG_WAITALL))["data_set"] == 0


@pytest.mark.parametrize("source, message", [
    ([object()], "cannot serve an object of type object"),
    (42, "source must be a reader source (str or list of str) or a list of data blocks"),
])
def test_server_rejects_foreign_sources(source, message):
    with pytest.raises(TypeError) as info:
        RTServer(source, port=0)
    assert str(info.value) == message


# ------------------------------------------------- sources on disk

needs_reader = pytest.mark.skipif(not hasattr(zelpy, "ZelDataSetReader"),
                                  reason="dataset reader not built into this module")


@pytest.fixture
def data_dir(tmp_path, blocks):
    for n, block in enumerate(blocks):
        (tmp_path / "plate-{:04d}_0.out".format(n)).write_bytes(block)
    (tmp_path / "notes.txt").write_text("not a data file")
    return tmp_path


@needs_reader
def test_server_serves_a_directory_in_reader_order(data_dir, blocks, make_client, received):
    with RTServer(str(data_dir), port=0) as server:
        assert len(server.blocks) == len(blocks)
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, len(blocks))
    for (_, i, ds), block in zip(got, blocks):
        assert ds.file_name() == "data_%05d_0.out" % i
        assert_same_data(ds, block)


@needs_reader
def test_server_reports_a_file_gone_since_the_listing(data_dir, blocks, make_client, received,
                                                       thread_errors):
    with RTServer(str(data_dir), port=0) as server:
        gone = server.blocks.names[1]
        os.remove(gone)
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        assert_same_data(collect(received, 1)[0][2], blocks[0])
        error = thread_errors.get(timeout=TIMEOUT)
    assert str(error).startswith("Error from server: Cannot read data file " + gone + ": ")
    assert received.empty()


@needs_reader
def test_server_serves_an_hdf5_file(tmp_path, blocks, make_client, received):
    h5py = pytest.importorskip("h5py")
    path = tmp_path / "run.h5"
    with h5py.File(path, "w") as h5:
        group = h5.create_group("out")
        for n, block in enumerate(blocks):
            group.create_dataset(str(n), data=np.frombuffer(block, dtype="uint8"))
    with RTServer(str(path), port=0) as server:
        client = make_client(server.port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, len(blocks))
    for (_, i, ds), block in zip(got, blocks):
        assert_same_data(ds, block)


@needs_reader
def test_command_line_server(data_dir, blocks, make_client, received):
    process = subprocess.Popen(
        [sys.executable, "-m", "zelpy.rtserver", str(data_dir), "--port", "0", "--fps", "200"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        line = _readline_with_timeout(process.stdout)
        assert line.startswith("rtserver: serving 5 data files on 127.0.0.1:"), line
        port = int(line.rsplit(":", 1)[1])
        client = make_client(port)
        client.connect()
        client.request_start_data_streaming()
        got = collect(received, len(blocks))
        for (_, i, ds), block in zip(got, blocks):
            assert_same_data(ds, block)
        client.disconnect()
    finally:
        process.terminate()
        process.communicate(timeout=TIMEOUT)


def _readline_with_timeout(stream):
    lines = queue.Queue()
    reader = threading.Thread(target=lambda: lines.put(stream.readline()), daemon=True)
    reader.start()
    line = lines.get(timeout=TIMEOUT)
    reader.join(TIMEOUT)
    return line.strip()


@needs_reader
def test_server_rejects_an_empty_pattern(tmp_path):
    with pytest.raises(ValueError, match="^Cannot find any valid files$"):
        RTServer(os.path.join(str(tmp_path), "nothing-*.out"), port=0)


@needs_reader
def test_command_line_rejects_a_missing_source(tmp_path):
    result = subprocess.run(
        [sys.executable, "-m", "zelpy.rtserver", os.path.join(str(tmp_path), "nothing-*.out"),
         "--port", "0"], capture_output=True, text=True, timeout=TIMEOUT * 3)
    assert result.returncode == 1
    assert result.stderr.strip() == "rtserver: Cannot find any valid files"

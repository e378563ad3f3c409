"""RTClient against hand-written byte streams and against the shipped server.

Every peer is a socket this file opens on 127.0.0.1 with an ephemeral port;
every wait has a timeout; fixtures close and join everything they start.
"""

import contextlib
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
MID_MESSAGE = "Connection closed by the server in the middle of a message."
needs_reader = pytest.mark.skipif(not hasattr(zelpy, "ZelDataSetReader"),
                                  reason="dataset reader not built into this module")


def block_of(seed, rows=6, columns=7):
    """A small but real data file: two AOIs, a few variables of mixed kinds."""
    rng, ds, kinds = np.random.default_rng(seed), ZelDataSet(), ZelDataVariableType
    shapes = [(rows, columns), (max(1, rows // 2), columns + 1)]
    for n, shape in enumerate(shapes):
        ds.add_aoi(*shape, "aoi-%d" % n)
    points = sum(r * c for r, c in shapes)
    for name, kind in zip(("x", "y", "sigma", "u"), (kinds.PixelCoordinate, kinds.PixelCoordinate,
                                                     kinds.Correlation, kinds.PixelDisplacement)):
        ds.add_variable(name, name + " of the test", kind,
                        rng.standard_normal(points).astype(np.float32).tolist())
    return ds.export_raw()


def assert_same_data(received, block):
    expected = ZelDataSet()
    expected.load_from_data(block, "expected.out")
    # export_raw carries every value, so this compares the data, not just the layout.
    assert received.export_raw() == expected.export_raw()


def frame(message_type, payload=b""):
    # Payload length, then type: unsigned 32-bit each, in this machine's byte order.
    return struct.pack("=II", len(payload), message_type) + payload


@pytest.fixture(autouse=True)
def no_thread_left_behind():
    before = set(threading.enumerate())
    yield
    new = [t for t in threading.enumerate() if t not in before]
    for thread in new:
        thread.join(TIMEOUT)
    assert [t.name for t in new if t.is_alive()] == []


@pytest.fixture
def peer():
    """The application's side, written by hand: ``peer()`` accepts one connection
    on ``peer.port``; every connection is closed after the test."""
    with socket.create_server(("127.0.0.1", 0)) as listener, contextlib.ExitStack() as stack:
        listener.settimeout(TIMEOUT)

        def accept():
            conn = stack.enter_context(listener.accept()[0])
            conn.settimeout(TIMEOUT)
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            return conn

        accept.port = listener.getsockname()[1]
        yield accept


@pytest.fixture
def received():
    """Handler calls, in order, as (kind, index, payload)."""
    return queue.Queue()


def take(items, count=None):
    if count is None:
        return items.get(timeout=TIMEOUT)
    return [items.get(timeout=TIMEOUT) for _ in range(count)]


def check_data(got, blocks):
    """Checks each data file against the block its index points at."""
    for kind, i, ds in got:
        assert (kind, ds.file_name()) == ("data", "data_%05d_0.out" % i)
        assert_same_data(ds, blocks[i % len(blocks)])
    return got


def collect(received, blocks, count=None):
    return check_data(take(received, len(blocks) if count is None else count), blocks)


@pytest.fixture
def thread_errors(monkeypatch):
    """Exceptions that end a listener thread, caught instead of printed."""
    errors = queue.Queue()
    monkeypatch.setattr(threading, "excepthook", lambda args: errors.put(args.exc_value))
    return errors


def register(client, received):
    client.register_handler(RTClientMessageType.DATA, lambda i, ds: received.put(("data", i, ds)))
    client.register_handler(RTClientMessageType.ANALOG_DATA,
                            lambda i, text: received.put(("analog", i, text)))


@pytest.fixture(params=[True, False], ids=["polling", "idle_wait=False"])
def make_client(received, request):
    """Connected clients with both handlers, disconnected after the test; each
    test runs with both ways of waiting for data."""
    with contextlib.ExitStack() as stack:
        def make(port):
            client = stack.enter_context(RTClient("127.0.0.1", port, idle_wait=request.param))
            register(client, received)
            client.connect()
            return client
        yield make


@pytest.fixture
def client(peer, make_client):
    return make_client(peer.port)


@pytest.fixture
def conn(peer, client):
    return peer()


def assert_listener_ended(client, thread_errors, exc_class, message):
    error = thread_errors.get(timeout=TIMEOUT)
    assert type(error) is exc_class
    assert str(error) == message
    assert client.error is error
    assert client.running is False and client.socket is None
    client.thread.join(TIMEOUT)
    assert not client.thread.is_alive()
    with pytest.raises(ConnectionError, match="^Real time client is not connected\\.$"):
        client.request_start_data_streaming()


# ------------------------------------------------------------ lifecycle

@pytest.mark.parametrize("request_name", ["request_start_data_streaming",
                                          "request_stop_data_streaming",
                                          "request_analog_data_while_streaming"])
def test_requests_while_disconnected_raise(request_name):
    client = RTClient("127.0.0.1", 1)
    client.disconnect()  # harmless without a connect, and twice
    client.disconnect()
    with pytest.raises(ConnectionError) as info:
        getattr(client, request_name)()
    assert type(info.value) is ConnectionError
    assert str(info.value) == "Real time client is not connected."


def test_refused_connection_reaches_the_caller():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))  # bound but never listening: nothing accepts
        client = RTClient("127.0.0.1", probe.getsockname()[1])
        with pytest.raises(ConnectionRefusedError):
            client.connect()
    assert client.running is False and client.thread is None
    client.disconnect()
    assert client.socket is None


def test_requests_send_single_bytes_and_second_connect_is_refused(client, conn, received):
    client.request_start_data_streaming()
    client.request_analog_data_while_streaming()
    client.request_stop_data_streaming()
    assert conn.recv(3, socket.MSG_WAITALL) == b"SAP"
    with pytest.raises(ConnectionError) as info:
        client.connect()
    assert str(info.value) == "Real time client is already connected."
    conn.sendall(frame(6, b"still here"))
    assert take(received) == ("analog", 0, "still here")


def test_reconnect_restarts_the_count_and_the_context_manager_disconnects(peer, received):
    with pytest.raises(KeyError):
        with RTClient("127.0.0.1", peer.port) as client:
            assert client.socket is None  # entering does not connect
            register(client, received)
            for _ in range(2):
                client.connect()
                with peer() as conn:
                    conn.sendall(frame(3, block_of(1)) * 2)
                    assert [(k, i, ds.file_name()) for k, i, ds in take(received, 2)] == [
                        ("data", 0, "data_00000_0.out"), ("data", 1, "data_00001_0.out")]
                    client.disconnect()
                assert client.thread is None and client.socket is None
            client.connect()
            thread = client.thread
            peer()
            raise KeyError("from the block")
    assert (client.running, client.socket, client.thread) == (False, None, None)
    assert not thread.is_alive()


@pytest.mark.skipif(not os.path.isdir("/proc/self/fd"), reason="needs /proc/self/fd")
def test_listener_follows_running_and_leaves_no_descriptor_open(peer, make_client, thread_errors):
    before = set(os.listdir("/proc/self/fd"))
    client = make_client(peer.port)
    with peer():
        thread = client.thread
        client.running = False  # as a script may do instead of disconnecting
        thread.join(TIMEOUT)
        assert not thread.is_alive()
        client.disconnect()
    assert set(os.listdir("/proc/self/fd")) == before
    assert thread_errors.empty() and client.error is None


def test_disconnect_from_a_handler(client, conn, received):
    def stop_at_first(i, ds):
        client.disconnect()
        received.put(i)

    client.register_handler(RTClientMessageType.DATA, stop_at_first)
    thread = client.thread
    conn.sendall(frame(3, block_of(2)) * 3)
    assert take(received) == 0
    thread.join(TIMEOUT)
    assert not thread.is_alive()
    assert received.empty() and client.socket is None


# -------------------------------------------------------------- framing

FRAMING_PLANS = {
    # how the same four messages are cut into writes
    "one write": lambda s: [s],
    "header split after 3 bytes": lambda s: [s[:3], s[3:]],
    "header split after 7 bytes": lambda s: [s[:7], s[7:]],
    "header and payload apart": lambda s: [s[:8], s[8:]],
    # three whole messages in one read, the fourth's header with part of its payload
    "last payload cut short": lambda s: [s[:-20], s[-20:]],
    "byte by byte": lambda s: [s[i:i + 1] for i in range(len(s))],
    "odd pieces": lambda s: [s[i:i + 13] for i in range(0, len(s), 13)],
}


@pytest.mark.parametrize("plan", list(FRAMING_PLANS))
def test_messages_survive_any_cut(conn, received, plan):
    first, second = block_of(3), block_of(4)
    stream = frame(6, "zero ¹".encode("utf-8")) + frame(3, first) + frame(6, b"") + frame(3, second)
    pieces = FRAMING_PLANS[plan](stream)
    for piece in pieces:
        conn.sendall(piece)
        # Lets the client read what is there so far; the outcome must not
        # depend on whether it did.
        time.sleep(0.02 if len(pieces) < 10 else 0.0)
    analog_0, data_0, analog_1, data_1 = take(received, 4)
    assert (analog_0, analog_1) == (("analog", 0, "zero ¹"), ("analog", 1, ""))
    assert [i for _, i, _ in check_data([data_0, data_1], [first, second])] == [0, 1]
    assert received.empty()


def test_payload_of_tens_of_megabytes(conn, received):
    big, small = block_of(7, rows=1400, columns=1100), block_of(8)
    assert len(big) > 25_000_000
    # All in one go: the client's buffer has to grow while a message is pending.
    conn.sendall(frame(6, b"before") + frame(3, big) + frame(3, small) + frame(6, b"after"))
    before, data_0, data_1, after = take(received, 4)
    assert (before, after) == (("analog", 0, "before"), ("analog", 2, "after"))
    assert [i for _, i, _ in check_data([data_0, data_1], [big, small])] == [0, 1]


def test_handlers_registered_mid_stream(peer, received):
    with RTClient("127.0.0.1", peer.port) as client:
        client.register_handler(RTClientMessageType.ANALOG_DATA,
                                lambda i, text: received.put(("analog", i, text)))
        client.connect()
        conn = peer()
        conn.sendall(frame(3, block_of(9)) + frame(6, b"sync"))
        # The data set went unhandled but was counted.
        assert take(received) == ("analog", 1, "sync")
        register(client, received)
        conn.sendall(frame(3, block_of(9)))
        kind, i, ds = take(received)
        assert (kind, i, ds.file_name()) == ("data", 1, "data_00001_0.out")
        client.register_handler(RTClientMessageType.DATA, lambda i, ds: received.put(("new", i)))
        conn.sendall(frame(3, block_of(9)))
        assert take(received) == ("new", 2)
    assert received.empty()


# --------------------------------------------------------------- failures

LISTENER_ENDS = [
    ("error", frame(0, b"Camera disconnected"), Exception, "Error from server: Camera disconnected"),
    ("empty error", frame(0), Exception, "Error from server: "),
    ("utf-8 error", frame(0, "Überlauf ✗".encode("utf-8")), Exception, "Error from server: Überlauf ✗"),
    *[("type %d" % t, frame(t, b"\x00" * 5), Exception, "Unknown message type, exiting.")
      for t in (1, 2, 4, 5, 7, 255, 0xFFFFFFFF)],
    *[("undecodable %d" % n, frame(3, p), ValueError, "Unable to decode memory buffer")
      for n, p in enumerate([b"", b"\x00" * 64, b"not a data file at all"])],
    # The peer hangs up after these.
    *[("closed after %d bytes" % n, frame(3, bytes(200))[:n], ConnectionError, MID_MESSAGE)
      for n in (3, 8, 108)],
    # Lengths a message cannot have are refused at their header, before any payload.
    *[("%d announced" % n, struct.pack("=II", n, t) + bytes(1000), Exception,
       "Message of %d bytes announced, more than the protocol allows; exiting." % n)
      for n, t in ((1 << 31, 3), (0xFFFFFFFF, 6))],
    ("unknown type of 1 GB", struct.pack("=II", 10 ** 9, 9), Exception,
     "Unknown message type, exiting."),
    # The buffer grows with what arrives, never with what a header announces.
    *[("%d announced, closed after %d" % (n, sent), struct.pack("=II", n, 3) + bytes(sent),
       ConnectionError, MID_MESSAGE) for n, sent in ((200_000_000, 100), ((1 << 31) - 1, 3_000_000))],
]


@pytest.mark.parametrize("stream, exc_class, message", [case[1:] for case in LISTENER_ENDS],
                         ids=[case[0] for case in LISTENER_ENDS])
def test_listener_ends_on(client, conn, received, thread_errors, stream, exc_class, message):
    closes = exc_class is ConnectionError
    tracemalloc.start()
    try:
        # A data file first, so the count is seen to stop with the fault.
        conn.sendall(frame(3, block_of(10)) + stream + (b"" if closes else frame(6, b"never")))
        if closes:
            conn.close()
        assert take(received)[:2] == ("data", 0)
        assert_listener_ended(client, thread_errors, exc_class, message)
        peak = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert peak < 16_000_000
    assert received.empty()


def test_handler_exception_ends_the_listener_until_the_next_connect(client, conn, peer, received,
                                                                    thread_errors):
    def broken(i, text):
        raise ZeroDivisionError("handler failed at " + text)

    client.register_handler(RTClientMessageType.ANALOG_DATA, broken)
    conn.sendall(frame(6, b"x"))
    assert_listener_ended(client, thread_errors, ZeroDivisionError, "handler failed at x")
    register(client, received)
    client.connect()
    assert client.error is None
    peer().sendall(frame(6, b"again"))
    assert take(received) == ("analog", 0, "again")


def test_server_closing_between_messages_ends_quietly(client, conn, received, thread_errors):
    conn.sendall(frame(6, b"bye"))
    assert take(received) == ("analog", 0, "bye")
    thread = client.thread
    conn.close()
    thread.join(TIMEOUT)
    assert not thread.is_alive()
    assert client.running is False and client.socket is None and client.error is None
    assert thread_errors.empty()


def test_disconnect_while_data_is_flowing_raises_nothing(client, conn, received, thread_errors):
    def send_until_closed():
        with contextlib.suppress(OSError):
            for _ in range(100000):
                conn.sendall(frame(6, b"x" * 5000))

    sender = threading.Thread(target=send_until_closed)
    sender.start()
    take(received, 3)
    client.disconnect()
    assert client.thread is None and client.socket is None
    # The server sees the client go: an end of stream, or a reset when the
    # client left received bytes unread.
    with contextlib.suppress(ConnectionResetError):
        assert conn.recv(1) == b""
    # A sender parked on a zero window learns of the close only from its next
    # window probe, which the kernel may send seconds later: end it here.
    with contextlib.suppress(OSError):
        conn.shutdown(socket.SHUT_RDWR)
    sender.join(TIMEOUT)
    assert not sender.is_alive()
    assert thread_errors.empty() and client.error is None


# ------------------------------------------------------- shipped server

@pytest.fixture
def blocks():
    return [block_of(20 + n, rows=5 + n, columns=4 + 2 * n) for n in range(5)]


def streaming_client(make_client, port):
    client = make_client(port)
    client.request_start_data_streaming()
    return client


@pytest.mark.parametrize("loop", [False, True], ids=["rewinds", "loops"])
def test_server_streams_every_block_then_rewinds_or_loops(blocks, make_client, received, loop):
    with RTServer(blocks, port=0, loop=loop) as server:
        client = streaming_client(make_client, server.port)
        assert [i for _, i, _ in collect(received, blocks)] == list(range(len(blocks)))
        if not loop:
            # Stopped at the end; the next start sends everything again.
            client.request_analog_data_while_streaming()
            kind, i, text = take(received)
            assert (kind, i, json.loads(text)["data_set"]) == ("analog", len(blocks), len(blocks))
            client.request_start_data_streaming()
        again = collect(received, blocks)
        assert [i for _, i, _ in again] == list(range(len(blocks), 2 * len(blocks)))
        # Before the server goes: a looping server is still streaming and would
        # hang up in the middle of a file.
        client.disconnect()


def test_server_stop_and_resume_continue_where_they_left(blocks, make_client, received):
    # Slow enough that "P" arrives long before the last file is due.
    with RTServer(blocks, port=0, fps=5) as server:
        client = streaming_client(make_client, server.port)
        streamed = [take(received)]
        client.request_stop_data_streaming()
        client.request_analog_data_while_streaming()
        # Anything already under way arrives before the answer to "A".
        while (item := take(received))[0] != "analog":
            streamed.append(item)
        paused_at = item[1]
        assert paused_at == len(streamed) < len(blocks)
        client.request_start_data_streaming()
        streamed += take(received, len(blocks) - paused_at)
        assert [i for _, i, _ in check_data(streamed, blocks)] == list(range(len(blocks)))


@pytest.mark.parametrize("fail, exc_class, message", [
    ("error", Exception, "Error from server: Simulated server error."),
    ("unknown", Exception, "Unknown message type, exiting."),
    ("truncated", ConnectionError, MID_MESSAGE),
])
def test_server_faults(blocks, make_client, received, thread_errors, fail, exc_class, message):
    with RTServer(blocks, port=0, fail_after=2, fail=fail) as server:
        client = streaming_client(make_client, server.port)
        collect(received, blocks, 2)
        assert_listener_ended(client, thread_errors, exc_class, message)
        assert received.empty()


def test_server_injected_messages(blocks, make_client, received, thread_errors):
    with RTServer(blocks, port=0) as server:
        client = make_client(server.port)
        assert server.wait_for_clients(1, TIMEOUT)
        assert server.send_message(6, "injected") == 1
        assert take(received) == ("analog", 0, "injected")
        server.send_error("stop now")
        assert_listener_ended(client, thread_errors, Exception, "Error from server: stop now")


def test_server_stop_does_not_hang_on_a_client_that_stopped_reading():
    with RTServer([bytes(8_000_000)], port=0, loop=True) as server, \
            socket.create_connection(("127.0.0.1", server.port), timeout=TIMEOUT) as stalled:
        stalled.sendall(b"S")
        assert server.wait_for_clients(1, TIMEOUT)
        stalled.recv(1000)  # the stream has started; now it stays unread
        stopper = threading.Thread(target=server.stop)
        stopper.start()
        stopper.join(TIMEOUT)
        assert not stopper.is_alive()
        assert server.clients == 0


def test_server_with_nothing_to_serve_still_answers_analog_requests():
    with RTServer([], port=0) as server:
        with socket.create_connection(("127.0.0.1", server.port), timeout=TIMEOUT) as s:
            s.sendall(b"SA")
            size, kind = struct.unpack("=II", s.recv(8, socket.MSG_WAITALL))
            assert kind == 6
            assert json.loads(s.recv(size, socket.MSG_WAITALL))["data_set"] == 0


@pytest.mark.parametrize("source, exc_class, message", [
    ([object()], TypeError, "cannot serve an object of type object"),
    (42, TypeError, "source must be a reader source (str or list of str) or a list of data blocks"),
    pytest.param("nothing-*.out", ValueError, "Cannot find any valid files", marks=needs_reader),
])
def test_server_rejects_bad_sources(tmp_path, source, exc_class, message):
    if isinstance(source, str):
        source = str(tmp_path / source)
    with pytest.raises(exc_class) as info:
        RTServer(source, port=0)
    assert str(info.value) == message


# ------------------------------------------------- sources on disk

@pytest.fixture
def data_dir(tmp_path, blocks):
    for n, block in enumerate(blocks):
        (tmp_path / "plate-{:04d}_0.out".format(n)).write_bytes(block)
    (tmp_path / "notes.txt").write_text("not a data file")
    return tmp_path


def write_hdf5(tmp_path, blocks):
    h5py = pytest.importorskip("h5py")
    with h5py.File(tmp_path / "run.h5", "w") as h5:
        group = h5.create_group("out")
        for n, block in enumerate(blocks):
            group.create_dataset(str(n), data=np.frombuffer(block, dtype="uint8"))
    return tmp_path / "run.h5"


@needs_reader
@pytest.mark.parametrize("kind", ["directory", "hdf5"])
def test_server_serves_a_reader_source_in_order(data_dir, blocks, make_client, received, kind):
    path = data_dir if kind == "directory" else write_hdf5(data_dir, blocks)
    with RTServer(str(path), port=0) as server:
        assert len(server.blocks) == len(blocks)
        streaming_client(make_client, server.port)
        collect(received, blocks)


@needs_reader
def test_server_reports_a_file_gone_since_the_listing(data_dir, blocks, make_client, received,
                                                       thread_errors):
    with RTServer(str(data_dir), port=0) as server:
        gone = server.blocks.names[1]
        os.remove(gone)
        streaming_client(make_client, server.port)
        collect(received, blocks, 1)
        error = thread_errors.get(timeout=TIMEOUT)
    assert str(error).startswith("Error from server: Cannot read data file " + gone + ": ")
    assert received.empty()


@needs_reader
def test_command_line_server(data_dir, blocks, make_client, received):
    process = subprocess.Popen(
        [sys.executable, "-m", "zelpy.rtserver", str(data_dir), "--port", "0", "--fps", "200"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        # readline on a thread: a server that never prints must not hang the test.
        lines = queue.Queue()
        threading.Thread(target=lambda: lines.put(process.stdout.readline()), daemon=True).start()
        line = lines.get(timeout=TIMEOUT).strip()
        assert line.startswith("rtserver: serving 5 data files on 127.0.0.1:"), line
        streaming_client(make_client, int(line.rsplit(":", 1)[1]))
        collect(received, blocks)
    finally:
        process.terminate()
        process.communicate(timeout=TIMEOUT)


@needs_reader
def test_command_line_rejects_a_missing_source(tmp_path):
    result = subprocess.run(
        [sys.executable, "-m", "zelpy.rtserver", str(tmp_path / "nothing-*.out"), "--port", "0"],
        capture_output=True, text=True, timeout=TIMEOUT * 3)
    assert result.returncode == 1
    assert result.stderr.strip() == "rtserver: Cannot find any valid files"

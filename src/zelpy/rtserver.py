"""A stand-in for the application's real-time mode: streams data files over TCP.

It speaks the server side of the protocol that :class:`zelpy.RTClient` speaks,
so real-time scripts can be written and tested without the application:

    python -m zelpy.rtserver SOURCE [--host 127.0.0.1] [--port 20020] [--fps F]

SOURCE is anything :class:`zelpy.ZelDataSetReader` accepts: a directory of
".out" files, a glob pattern, an HDF5 file or a project. The data files are
sent exactly as they are stored (no decoding on the server side).

Protocol, per connection. Every message from the server is an 8-byte header,
payload length and message type as two unsigned 32-bit integers in the byte
order of the machine (client and server run side by side), then the payload:
type 3 is one data file, type 6 is analog data (JSON text), type 0 is an error
text. The client sends single bytes:

- ``S`` starts streaming from the current position (the first data file on a
  new connection); data files follow back to back, or ``fps`` per second.
- ``P`` stops streaming; the next ``S`` continues with the following file.
- ``A`` is answered at once with one analog-data message.

After the last data file the server stops streaming and rewinds, so the next
``S`` sends everything again; with ``loop=True`` (``--loop``) it starts over
without stopping. Other bytes from the client are ignored.

For testing error handling the server can inject faults, either at once on
every connection (:meth:`RTServer.send_error`, :meth:`RTServer.send_message`,
:meth:`RTServer.send_truncated`, ...) or after a number of streamed data files
(``fail_after``/``fail``, ``--fail-after``/``--fail``).
"""

import argparse
import json
import math
import os
import select
import socket
import struct
import sys
import threading
import time

__all__ = ["RTServer", "MESSAGE_ERROR", "MESSAGE_DATA", "MESSAGE_ANALOG", "pack_message", "main"]

MESSAGE_ERROR = 0
MESSAGE_DATA = 3
MESSAGE_ANALOG = 6

# Native byte order and standard sizes: the header is read with sys.byteorder.
_HEADER = struct.Struct("=II")
_MAX_PAYLOAD = 0xFFFFFFFF

FAULTS = ("error", "unknown", "truncated", "close")


def pack_message(message_type, payload=b""):
    """Return header + payload of one message as bytes."""
    if len(payload) > _MAX_PAYLOAD:
        raise ValueError("payload of {} bytes does not fit a message header".format(len(payload)))
    return _HEADER.pack(len(payload), message_type) + bytes(payload)


def _read_block(name):
    """The stored bytes of one data file: a ".out" file or an HDF5 member,
    read with the checks of a load (NameError, ValueError or OSError as it
    fails)."""
    from zelpyx.zelpy import zelpy as core
    return core._dataset_bytes(name)


class _Blocks:
    """The data files to serve: in-memory blocks, or names read on demand
    (a long run of 50 MB files must not be held in memory at once)."""

    def __init__(self, source):
        self.names = None
        self.blocks = None
        if isinstance(source, (str, os.PathLike)) or (
                isinstance(source, (list, tuple)) and source
                and all(isinstance(s, (str, os.PathLike)) for s in source)):
            from zelpy import ZelDataSetReader
            if isinstance(source, (list, tuple)):
                source = [os.fspath(s) for s in source]
            else:
                source = os.fspath(source)
            self.names = list(ZelDataSetReader(source).dataset_list)
        elif isinstance(source, (list, tuple)):
            self.blocks = [self._to_bytes(b) for b in source]
        else:
            raise TypeError("source must be a reader source (str or list of str) "
                            "or a list of data blocks")

    @staticmethod
    def _to_bytes(block):
        if isinstance(block, (bytes, bytearray, memoryview)):
            return bytes(block)
        export_raw = getattr(block, "export_raw", None)
        if export_raw is None:
            raise TypeError("cannot serve an object of type " + type(block).__name__)
        return export_raw()

    def __len__(self):
        return len(self.names) if self.names is not None else len(self.blocks)

    def __getitem__(self, index):
        if self.blocks is not None:
            return self.blocks[index]
        return _read_block(self.names[index])


def default_analog(index, elapsed):
    """Analog data as the stand-in sends it: a few smooth channels, so plots
    of a script under development look like something."""
    return json.dumps({
        "data_set": index,
        "time": round(elapsed, 6),
        "channels": {
            "force": round(1000.0 * math.sin(0.1 * index), 6),
            "displacement": round(0.01 * index, 6),
            "temperature": 23.0,
        },
    })


class _Connection:
    """State of one client: where its stream is, and a lock so that injected
    messages never land inside a data file being sent."""

    def __init__(self, sock, address):
        self.sock = sock
        self.address = address
        self.send_lock = threading.Lock()
        self.streaming = False
        self.position = 0
        self.sent = 0
        self.next_due = 0.0
        self.started = time.monotonic()
        self.closed = False

    def send(self, data):
        with self.send_lock:
            self.sock.sendall(data)

    def send_message(self, message_type, payload=b""):
        if len(payload) > _MAX_PAYLOAD:
            raise ValueError("payload of {} bytes does not fit a message header".format(len(payload)))
        # Two writes rather than header + payload: no copy of a 50 MB file.
        with self.send_lock:
            self.sock.sendall(_HEADER.pack(len(payload), message_type))
            self.sock.sendall(payload)

    def shut(self):
        if not self.closed:
            self.closed = True
            try:
                self.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class RTServer:
    """Streaming server for the real-time protocol.

    ``source`` is a reader source (directory, glob pattern, HDF5 file, project,
    or a list of those) or a list of in-memory data blocks (``bytes`` or
    :class:`zelpy.ZelDataSet`). ``port=0`` binds an ephemeral port; the bound
    port is :attr:`port` after :meth:`start`. ``fps`` paces the data files
    (None: as fast as the connection takes them). ``loop`` restarts at the
    first file instead of stopping at the end. ``fail_after=n`` with ``fail``
    one of "error", "unknown", "truncated", "close" replaces the data file
    after the n-th one with that fault. ``analog`` is a callable
    ``(data_files_sent, seconds_since_connect) -> str`` producing the
    analog-data text.

    Use as a context manager, or call :meth:`start` and :meth:`stop`.
    """

    def __init__(self, source, host="127.0.0.1", port=20020, fps=None, loop=False,
                 fail_after=None, fail="error", error_text="Simulated server error.",
                 analog=None):
        if fps is not None and not fps > 0:
            raise ValueError("fps must be positive")
        if fail not in FAULTS:
            raise ValueError("fail must be one of " + ", ".join(FAULTS))
        self.blocks = _Blocks(source)
        self.host = host
        self.port = port
        self.fps = fps
        self.loop = loop
        self.fail_after = fail_after
        self.fail = fail
        self.error_text = error_text
        self.analog = analog or default_analog
        self._listener = None
        self._accept_thread = None
        self._threads = []
        self._connections = []
        self._lock = threading.Lock()
        self._connected = threading.Condition(self._lock)
        self._wake_r = None
        self._wake_w = None
        self._stopping = threading.Event()

    # ---------------------------------------------------------- lifecycle

    def __enter__(self):
        return self.start()

    def __exit__(self, exc_type, exc_value, traceback):
        self.stop()
        return False

    @property
    def address(self):
        """(host, port) the server listens on."""
        return (self.host, self.port)

    def start(self):
        """Bind, listen and accept clients on a background thread."""
        if self._listener is not None:
            raise RuntimeError("server already started")
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((self.host, self.port))
            listener.listen(8)
        except BaseException:
            listener.close()
            raise
        self.port = listener.getsockname()[1]
        self._listener = listener
        # Every blocking select also watches this pair, so stop() wakes all
        # threads at once instead of each polling a flag.
        self._wake_r, self._wake_w = socket.socketpair()
        self._stopping.clear()
        self._accept_thread = threading.Thread(target=self._accept_loop, name="RTServer accept",
                                               daemon=True)
        self._accept_thread.start()
        return self

    def stop(self):
        """Close every connection and the listening socket; join all threads."""
        if self._listener is None:
            return
        self._stopping.set()
        self._wake_w.send(b"x")
        # No connection can be added once the accept thread is gone.
        self._accept_thread.join()
        self._accept_thread = None
        with self._lock:
            connections = list(self._connections)
        for connection in connections:
            # Unblocks a sendall stuck on a client that stopped reading.
            connection.shut()
        for thread in list(self._threads):
            thread.join()
        self._threads = []
        self._listener.close()
        self._wake_r.close()
        self._wake_w.close()
        self._listener = None

    def serve_forever(self):
        """Start (if needed) and serve until interrupted."""
        if self._listener is None:
            self.start()
        try:
            self._stopping.wait()
        finally:
            self.stop()

    def _spawn(self, target, name, *args):
        self._threads = [t for t in self._threads if t.is_alive()]
        thread = threading.Thread(target=target, args=args, name=name, daemon=True)
        self._threads.append(thread)
        thread.start()

    @property
    def clients(self):
        """Number of connected clients."""
        with self._lock:
            return len(self._connections)

    def wait_for_clients(self, count=1, timeout=5.0):
        """Wait until at least ``count`` clients are connected; True if so."""
        with self._connected:
            return self._connected.wait_for(lambda: len(self._connections) >= count, timeout)

    # ---------------------------------------------------------- injection

    def _each_connection(self, action):
        with self._lock:
            connections = list(self._connections)
        for connection in connections:
            try:
                action(connection)
            except OSError:
                connection.shut()
        return len(connections)

    def send_message(self, message_type, payload=b""):
        """Send one message of any type to every client; returns the count."""
        if isinstance(payload, str):
            payload = payload.encode("utf-8")
        data = pack_message(message_type, payload)
        return self._each_connection(lambda c: c.send(data))

    def send_raw(self, data):
        """Send arbitrary bytes to every client (for malformed streams)."""
        data = bytes(data)
        return self._each_connection(lambda c: c.send(data))

    def send_error(self, text=None):
        """Send an error message (type 0) to every client."""
        return self.send_message(MESSAGE_ERROR, self.error_text if text is None else text)

    def send_analog(self):
        """Send one analog-data message to every client."""
        return self._each_connection(self._send_analog)

    def send_truncated(self, payload_size=1024, sent=100):
        """Announce a data file of ``payload_size`` bytes, send only ``sent``
        of them and close the connection."""
        data = _HEADER.pack(payload_size, MESSAGE_DATA) + bytes(min(sent, payload_size))

        def truncate(connection):
            connection.send(data)
            connection.shut()
        return self._each_connection(truncate)

    def close_clients(self):
        """Close every client connection (the server keeps listening)."""
        return self._each_connection(lambda c: c.shut())

    # ---------------------------------------------------------- serving

    def _accept_loop(self):
        while not self._stopping.is_set():
            readable, _, _ = select.select([self._listener, self._wake_r], [], [])
            if self._wake_r in readable:
                return
            try:
                sock, address = self._listener.accept()
            except OSError:
                continue
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection = _Connection(sock, address)
            with self._connected:
                self._connections.append(connection)
                self._connected.notify_all()
            self._spawn(self._serve, "RTServer client {}:{}".format(*address), connection)

    def _serve(self, connection):
        try:
            self._serve_commands(connection)
        except OSError:
            pass  # the client went away; nothing to tell it
        finally:
            with self._lock:
                self._connections.remove(connection)
            connection.shut()
            connection.sock.close()

    def _serve_commands(self, connection):
        sock = connection.sock
        while not self._stopping.is_set() and not connection.closed:
            if connection.streaming:
                timeout = max(0.0, connection.next_due - time.monotonic()) if self.fps else 0.0
            else:
                timeout = None
            readable, _, _ = select.select([sock, self._wake_r], [], [], timeout)
            if self._wake_r in readable:
                return
            if sock in readable:
                commands = sock.recv(4096)
                if not commands:
                    return
                for command in commands:
                    self._command(connection, command)
            if connection.streaming and time.monotonic() >= connection.next_due:
                self._stream_next(connection)

    def _command(self, connection, command):
        if command == ord("S"):
            if not connection.streaming:
                connection.streaming = True
                connection.next_due = time.monotonic()
        elif command == ord("P"):
            connection.streaming = False
        elif command == ord("A"):
            self._send_analog(connection)

    def _send_analog(self, connection):
        text = self.analog(connection.sent, time.monotonic() - connection.started)
        connection.send_message(MESSAGE_ANALOG, text.encode("utf-8"))

    def _stream_next(self, connection):
        if len(self.blocks) == 0:
            connection.streaming = False
            return
        if self.fail_after is not None and connection.sent >= self.fail_after:
            self._fault(connection)
            return
        try:
            block = self.blocks[connection.position]
        except (OSError, NameError, ValueError) as error:
            # A file that vanished or broke since the listing: tell the client
            # the way the application reports its own failures.
            connection.streaming = False
            connection.send_message(MESSAGE_ERROR, "Cannot read data file {}: {}".format(
                self.blocks.names[connection.position], error).encode("utf-8"))
            return
        connection.send_message(MESSAGE_DATA, block)
        connection.sent += 1
        connection.position += 1
        if self.fps:
            connection.next_due += 1.0 / self.fps
        if connection.position >= len(self.blocks):
            connection.position = 0
            if not self.loop:
                connection.streaming = False

    def _fault(self, connection):
        connection.streaming = False
        if self.fail == "error":
            connection.send_message(MESSAGE_ERROR, self.error_text.encode("utf-8"))
        elif self.fail == "unknown":
            connection.send_message(0x7A, b"not a message type the client knows")
        elif self.fail == "truncated":
            connection.send(_HEADER.pack(1024, MESSAGE_DATA) + bytes(100))
            connection.shut()
        else:
            connection.shut()


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="python -m zelpy.rtserver",
        description="Stream the data files of SOURCE to real-time clients.")
    parser.add_argument("source", nargs="+", metavar="SOURCE",
                        help="directory, glob pattern, HDF5 file or project (several allowed)")
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    parser.add_argument("--port", type=int, default=20020,
                        help="port to listen on (default 20020; 0 picks a free one)")
    parser.add_argument("--fps", type=float, default=None,
                        help="data files per second (default: as fast as the client reads)")
    parser.add_argument("--loop", action="store_true",
                        help="start over after the last data file instead of stopping")
    parser.add_argument("--fail-after", type=int, default=None, metavar="N",
                        help="after N data files send the fault chosen with --fail")
    parser.add_argument("--fail", choices=FAULTS, default="error",
                        help="fault to send: error message, unknown message type, "
                             "truncated data file, or closing the connection (default error)")
    parser.add_argument("--error-text", default="Simulated server error.",
                        help="text of the error message")
    args = parser.parse_args(argv)
    if args.fps is not None and args.fps <= 0:
        parser.error("--fps must be positive")
    source = args.source[0] if len(args.source) == 1 else args.source
    try:
        server = RTServer(source, host=args.host, port=args.port, fps=args.fps, loop=args.loop,
                          fail_after=args.fail_after, fail=args.fail, error_text=args.error_text)
    except (ValueError, NameError, OSError) as error:
        print("rtserver: {}".format(error), file=sys.stderr)
        return 1
    server.start()
    # Scripts that start the server with --port 0 read the bound port here.
    print("rtserver: serving {} data files on {}:{}".format(len(server.blocks), server.host, server.port),
          flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())

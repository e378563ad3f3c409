# RTClient: receives data files and analog data from an application running in
# real-time mode.
#
# The wire format is fixed by the application: every message is an 8-byte
# header (payload length, message type; two unsigned 32-bit integers in the
# byte order of this machine) followed by the payload. The client only ever
# sends single ASCII bytes.

_RT_HEADER_SIZE = 8
# Data files run to tens of MB: read up to this much per call, so a large
# file is not taken apart into thousands of small reads.
_RT_CHUNK_SIZE = 1000000

# Payload lengths from 2 GiB on are not messages: no data file or text the
# application sends comes near that, and waiting for one would let a broken
# or hostile server make the client buffer gigabytes.
_RT_PAYLOAD_LIMIT = 1 << 31

_RT_TYPE_ERROR = 0
_RT_TYPE_DATA = 3
_RT_TYPE_ANALOG = 6
_RT_TYPES = (_RT_TYPE_ERROR, _RT_TYPE_DATA, _RT_TYPE_ANALOG)

# How long one wait for data may last before the listener looks at `running`
# again (a script may set it directly), in milliseconds.
cdef int _RT_WAIT_MS = 100


cdef class _RTSocketWatch:
    """The listener's wait for data, done without the interpreter lock.

    ``stop()`` may be called from any thread; the wait under way (or the
    next one) then returns at once.
    """

    cdef nimbra.SocketWatch* watch

    def __cinit__(self):
        self.watch = new nimbra.SocketWatch()

    def __dealloc__(self):
        del self.watch

    def stop(self):
        """Make the current and every later wait return False at once."""
        self.watch.stop()

    def wait(self, sock, bint polling):
        """True when ``sock`` is readable; False when stopped or after the
        wait's slice of time. ``polling`` polls for reading and writing
        without sleeping; otherwise the wait blocks on reading."""
        cdef intptr_t fd = sock.fileno()
        cdef nimbra.SocketWaitResult result
        with nogil:
            if polling:
                result = self.watch.pollReadable(fd, _RT_WAIT_MS)
            else:
                result = self.watch.waitReadable(fd, _RT_WAIT_MS)
        if result == nimbra.SocketWaitResult.Failed:
            code = self.watch.error()
            raise OSError(code, os.strerror(code))
        return result == nimbra.SocketWaitResult.Readable


class RTClient:
    """TCP client of an application that streams data files in real-time mode.

    Register handlers with :meth:`register_handler`, :meth:`connect`, then ask
    for data with :meth:`request_start_data_streaming`. Every data file arrives
    as a :class:`ZelDataSet` named ``data_00000_0.out``, ``data_00001_0.out``, …
    (counted from 0 on every connect) and is passed to the ``DATA`` handler as
    ``handler(data_set_i, data_set)``; analog data arrives as text and is passed
    to the ``ANALOG_DATA`` handler as ``handler(data_set_i, text)``.

    Handlers run on the client's listener thread, one at a time; nothing is
    read from the socket while a handler runs, so keep them short. An error
    message from the server, an unknown message type, a header announcing
    2 GiB or more, a payload that is not a data file or an exception in a
    handler ends the listener: the client disconnects, the exception is kept
    in :attr:`error` and raised in the listener thread (where
    :func:`threading.excepthook` reports it), not in the caller's thread.

    While no data arrives the listener polls its socket without sleeping, as
    the protocol's client loop does, but without holding the interpreter lock,
    so other threads run at full speed; it still keeps a core busy. With
    ``idle_wait=False`` it blocks until data arrives instead (looking every
    0.1 s whether the client was stopped) and leaves the core idle. The mode
    is taken at :meth:`connect`.

    Calling :meth:`connect` on a client that is already connected raises
    ``ConnectionError("Real time client is already connected.")``; call
    :meth:`disconnect` first.
    """

    def __init__(self, ip='localhost', port=20020, *, idle_wait=True):
        self.ip = ip
        self.port = port
        self.handlers = {}
        self.running = False
        self.socket = None
        self.thread = None
        self.idle_wait = idle_wait
        # The exception that ended the last listener; None while it runs and
        # after an orderly end.
        self.error = None
        self.__watch = None

    def __enter__(self):
        return self

    def __exit__(self, type, value, traceback):
        self.disconnect()
        return False

    def register_handler(self, message_type, handler):
        """Call ``handler`` for every message of ``message_type``
        (an :class:`RTClientMessageType`); replaces an earlier handler."""
        self.handlers[message_type] = handler

    def connect(self):
        """Connect to (``ip``, ``port``) and start the listener thread.

        Errors of the socket module (connection refused, unknown host) reach
        the caller unchanged.
        """
        if self.running:
            # A second listener on the same client would read the same socket
            # and tear messages apart between the two threads.
            raise ConnectionError("Real time client is already connected.")
        self.__cleanup()
        self.__join_listener()
        self.error = None
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.connect((self.ip, self.port))
        self.socket.setblocking(False)
        # The listener waits on and reads from a duplicate that only it
        # closes: disconnect() may close `socket` from another thread at any
        # moment, and a descriptor closed (and perhaps reused) under a wait
        # would be watched in place of the connection.
        own = self.socket.dup()
        try:
            own.setblocking(False)
            watch = _RTSocketWatch()
            self.__watch = watch
            self.running = True
            self.thread = threading.Thread(target=self.__listen, args=(own, watch,
                                           bool(self.idle_wait)), daemon=True,
                                           name="RTClient listener")
            self.thread.start()
        except BaseException:
            self.running = False
            own.close()
            raise

    def disconnect(self):
        """Close the connection and wait for the listener thread to end.

        Harmless when not connected. May be called from a handler, in which
        case the listener ends after the handler returns.
        """
        self.__cleanup()
        self.__join_listener()
        self.thread = None

    def request_start_data_streaming(self):
        """Ask the server to start sending data files."""
        self.__send("S")

    def request_stop_data_streaming(self):
        """Ask the server to stop sending data files."""
        self.__send("P")

    def request_analog_data_while_streaming(self):
        """Ask the server for analog data."""
        self.__send("A")

    def __send(self, command):
        sock = self.socket
        if sock is None or not self.running:
            raise ConnectionError("Real time client is not connected.")
        sock.send(command.encode("utf-8"))

    def __join_listener(self):
        thread = self.thread
        if thread is not None and thread is not threading.current_thread():
            thread.join()

    def __cleanup(self):
        self.running = False
        watch = self.__watch
        if watch is not None:
            watch.stop()
        sock = self.socket
        if sock is not None:
            # Shutting the connection down, not only closing this descriptor,
            # ends it for the listener's duplicate as well: the server sees
            # the client go at once, and a listener blocked in its wait wakes
            # up to an end of stream.
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # never connected, or the server already went
            sock.close()
        self.socket = None

    def __listen(self, sock, watch, polling):
        # Received bytes live in buf[start:end]; messages are cut out by moving
        # `start`, so a large message costs one copy in and one copy out
        # instead of re-slicing an ever-growing byte string.
        buf = bytearray(2 * _RT_CHUNK_SIZE)
        view = memoryview(buf)
        start = 0
        end = 0
        message_size = 0
        message_type = 0
        data_set_i = 0
        try:
            while self.running:
                # The wait runs without the interpreter lock and comes back
                # when there is something to read, when disconnect() stops it,
                # or after a slice of time to look at `running` again.
                if not watch.wait(sock, polling) or not self.running:
                    continue
                # A message that already fits behind `start` is read into the
                # space left; anything else first gets room for a full chunk.
                if (len(buf) - end < _RT_CHUNK_SIZE
                        and (message_size == 0 or start + message_size > len(buf))):
                    buf, view, start, end = _rt_make_room(buf, view, start, end, message_size)
                try:
                    received = sock.recv_into(view[end:end + _RT_CHUNK_SIZE])
                except BlockingIOError:
                    continue
                if received == 0:
                    if message_size or end > start:
                        raise ConnectionError(
                            "Connection closed by the server in the middle of a message.")
                    # The server hung up between two messages: a normal end.
                    self.__cleanup()
                    return
                end += received
                # Checking `running` per message lets a handler that calls
                # disconnect() be the last one called, even with more
                # messages already buffered.
                while self.running:
                    if message_size == 0 and end - start >= _RT_HEADER_SIZE:
                        payload_size = int.from_bytes(view[start:start + 4], byteorder=sys.byteorder)
                        message_type = int.from_bytes(view[start + 4:start + 8], byteorder=sys.byteorder)
                        # Refused as soon as the header is in, not once the
                        # payload has been buffered only to be thrown away.
                        if payload_size >= _RT_PAYLOAD_LIMIT:
                            raise Exception("Message of {} bytes announced, more than the "
                                            "protocol allows; exiting.".format(payload_size))
                        if message_type not in _RT_TYPES:
                            raise Exception("Unknown message type, exiting.")
                        message_size = _RT_HEADER_SIZE + payload_size
                    if message_size == 0 or message_size > end - start:
                        break
                    # The payload is handed on as a view into the buffer: the
                    # decoder copies what it keeps, so a data file is not
                    # copied once more just to become a bytes object.
                    message = view[start + _RT_HEADER_SIZE:start + message_size]
                    start += message_size
                    message_size = 0
                    try:
                        data_set_i = self.__process_data(message, message_type, data_set_i)
                    finally:
                        message.release()
                if start == end:
                    start = end = 0
        except BaseException as error:
            if not self.running:
                # disconnect() ended the connection under the loop; whatever
                # the wait or recv made of that is not an error of the stream.
                self.__cleanup()
                return
            # Kept before `running` turns False, so a script that sees the
            # client stop finds the reason already there.
            self.error = error
            self.__cleanup()
            raise
        finally:
            view.release()
            sock.close()

    def __process_data(self, message, message_type, data_set_i):
        if message_type == _RT_TYPE_DATA:
            data_set = ZelDataSet()
            data_set.load_from_data(message, "data_" + format(data_set_i, "05d") + "_0.out")
            if RTClientMessageType.DATA in self.handlers:
                self.handlers[RTClientMessageType.DATA](data_set_i, data_set)
            return data_set_i + 1
        if message_type == _RT_TYPE_ANALOG:
            if RTClientMessageType.ANALOG_DATA in self.handlers:
                self.handlers[RTClientMessageType.ANALOG_DATA](data_set_i, str(message, "utf-8"))
            return data_set_i
        if message_type == _RT_TYPE_ERROR:
            raise Exception("Error from server: {}".format(str(message, "utf-8")))
        raise Exception("Unknown message type, exiting.")


def _rt_make_room(buf, view, start, end, message_size):
    """Make room after `end` for a chunk, or for the rest of the message whose
    first bytes are buf[start:end], keeping those bytes.

    Returns the (possibly new) buffer, its view and the moved offsets. The
    buffer grows only while the bytes of one message fill it, doubling up to
    that message's size and never beyond: it grows with what arrives, not
    with what a header announces. It keeps its largest size, so a stream of
    equally large data files allocates once.
    """
    pending = end - start
    needed = pending + _RT_CHUNK_SIZE
    if message_size:
        needed = min(needed, message_size)
    if needed <= len(buf):
        # Slide the unread bytes to the front; memoryview copies with memmove.
        view[0:pending] = view[start:end]
        return buf, view, 0, pending
    grown = bytearray(min(max(needed, 2 * len(buf)), message_size) if message_size else needed)
    grown[0:pending] = view[start:end]
    view.release()
    return grown, memoryview(grown), 0, pending

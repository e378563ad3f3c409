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

# A data file announced in a header is given its whole buffer at once up to
# this size; beyond it the buffer only doubles as bytes arrive, so a corrupt
# length cannot make the client allocate gigabytes before any data is there.
_RT_PRESIZE_LIMIT = 256000000

_RT_TYPE_ERROR = 0
_RT_TYPE_DATA = 3
_RT_TYPE_ANALOG = 6


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
    message from the server, an unknown message type, a payload that is not a
    data file or an exception in a handler ends the listener: the client
    disconnects and the exception is raised in the listener thread (where
    :func:`threading.excepthook` reports it), not in the caller's thread.

    Calling :meth:`connect` on a client that is already connected raises
    ``ConnectionError("Real time client is already connected.")``; call
    :meth:`disconnect` first.
    """

    def __init__(self, ip='localhost', port=20020):
        self.ip = ip
        self.port = port
        self.handlers = {}
        self.running = False
        self.socket = None
        self.thread = None

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
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.socket.connect((self.ip, self.port))
        self.socket.setblocking(False)
        self.running = True
        self.thread = threading.Thread(target=self.__listen, daemon=True,
                                       name="RTClient listener")
        self.thread.start()

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
        sock = self.socket
        if sock is not None:
            sock.close()
        self.socket = None

    def __listen(self):
        # The socket is taken once: disconnect() sets self.socket to None while
        # this loop may still be between two checks of self.running.
        sock = self.socket
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
                # Watching for writability as well makes select return at
                # once on a connected socket: the loop polls instead of
                # blocking, so it notices `running` going False right away.
                readable, writable, errored = select.select([sock], [sock], [])
                if readable:
                    # A message that already fits behind `start` is read into
                    # the space left; anything else first gets a full chunk.
                    if (len(buf) - end < _RT_CHUNK_SIZE
                            and (message_size == 0 or start + message_size > len(buf))):
                        buf, view, start, end = _rt_make_room(
                            buf, view, start, end, message_size)
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
        except BaseException:
            stopping = not self.running
            self.__cleanup()
            if stopping:
                # disconnect() closed the socket under the loop; whatever
                # select or recv made of that is not an error of the stream.
                return
            raise
        finally:
            view.release()

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
    """Free at least one chunk of space after `end`, keeping buf[start:end].

    Returns the (possibly new) buffer, its view and the moved offsets. The
    buffer keeps its largest size, so a stream of equally large data files
    allocates once.
    """
    pending = end - start
    needed = pending + _RT_CHUNK_SIZE
    if message_size <= _RT_PRESIZE_LIMIT:
        needed = max(needed, message_size)
    if needed <= len(buf):
        # Slide the unread bytes to the front; memoryview copies with memmove.
        view[0:pending] = view[start:end]
        return buf, view, 0, pending
    grown = bytearray(max(needed, 2 * len(buf)))
    grown[0:pending] = view[start:end]
    view.release()
    return grown, memoryview(grown), 0, pending

"""A device server in a few lines of sockets, for answers that no simulated till would give."""

import contextlib
import socket
import struct
import threading
import time

from ports import reserve_port

ESC, BS = b"\x1b", b"\x08"


def framed(document):
    return ESC + (document if isinstance(document, bytes) else document.encode()) + BS


def device(name="SCANNER1", cls="UPOS_Scanner", **fields):
    """One instance of an answer; fields are texts, or (type word, text)."""
    fields = {"DeviceID": name, "ManufacturerName": "Veltran", **fields}
    typed = {key: value if isinstance(value, tuple) else ("string", value)
             for key, value in fields.items()}
    return f'<instance name="{cls}">' + "".join(
        f'<field name="{key}" type="{word}">{value}</field>'
        for key, (word, value) in typed.items()) + "</instance>"


def response(*instances):
    return "<response>" + "".join(instances) + "</response>"


NORMAL = framed(response(device()))


def reset(connection):
    """Closes a connection so that the other side sees it reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Peer:
    """Listens on 127.0.0.1 and answers each connection on a thread of its own.

    `answer` is what it answers with: bytes, or a function that gets (connection, request bytes).
    `requests` holds the bytes of each request, marks included, as they came.
    """

    def __init__(self, port=None, answer=NORMAL):
        self.answer = answer
        self.on_connect = None  # a function that takes the connection before its request is read
        self.requests = []
        self.connections = []
        self.port = port or reserve_port()
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", self.port))
        self.listener.listen(128)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self.listener.accept()
                self.connections.append(connection)
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with contextlib.suppress(OSError), connection:
            if self.on_connect:
                self.on_connect(connection)
                return
            request = b""
            while not request.endswith(BS):
                piece = connection.recv(65536)
                if not piece:
                    break
                request += piece
            self.requests.append(request)
            if callable(self.answer):
                self.answer(connection, request)
            else:
                connection.sendall(self.answer)

    def close(self):
        """Nobody listens any more; a connect is refused from now on."""
        # A thread that waits in accept keeps the socket alive; a shutdown wakes it.
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        deadline = time.monotonic() + 10
        while True:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) != 0:
                    return
            assert time.monotonic() < deadline, "the listening socket did not close"
            time.sleep(0.01)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

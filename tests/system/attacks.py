"""What a hostile peer sends, and how its success would be seen from outside."""

import contextlib
import ctypes
import os
import socket

from peer import device, response


def expansion(levels, width=10):
    """Entities of entities: a few hundred bytes that stand for width ** levels times a hundred."""
    entities = "".join(
        f'<!ENTITY e{i} "{f"&e{i - 1};" * width}">' for i in range(1, levels + 1))
    return (f'<!DOCTYPE response [<!ENTITY e0 "{"x" * 100}">{entities}]>'
            + response(device(ModelName=f"&e{levels};")))


class Watched:
    """A file of which each opening is seen, and a listener of which each connection is."""

    def __init__(self, file):
        file.write_text("<!ENTITY a 'secret'>")
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.notices = self.libc.inotify_init1(os.O_NONBLOCK)
        assert self.notices >= 0
        in_open = 0x20
        assert self.libc.inotify_add_watch(self.notices, os.fsencode(file), in_open) >= 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.setblocking(False)
        self.port = self.listener.getsockname()[1]
        file.read_text()
        socket.create_connection(("127.0.0.1", self.port)).close()
        assert self.seen() == ["opened", "connected"]  # so it would be seen

    def seen(self):
        found = []
        with contextlib.suppress(BlockingIOError):
            os.read(self.notices, 4096)
            found.append("opened")
        with contextlib.suppress(BlockingIOError):
            self.listener.accept()[0].close()
            found.append("connected")
        return found

    def close(self):
        os.close(self.notices)
        self.listener.close()


PLACES = ["file:///C:/secret.txt", "C:\\secret.txt", "C:/secret.txt", "/secret.txt", "secret.txt",
          "file://localhost/C:/secret.txt", "../secret.txt", "http://127.0.0.1:{port}/secret.txt",
          "//127.0.0.1:{port}/secret.txt"]

"""A TCP relay in front of a server that notes when each piece of the client's bytes arrived."""

import bisect
import socket
import threading
import time


class Relay:
    """Serves one connection. `data` holds the client's bytes, and arrival() tells when each of them was read from the
    socket, in nanoseconds of the monotonic clock."""

    def __init__(self, server):
        self._server = server
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.data = bytearray()
        self._ends = []
        self._times = []
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def arrival(self, end):
        """When the byte before position `end` arrived."""
        return self._times[bisect.bisect_left(self._ends, end)]

    def close(self):
        """Waits for the connection's end, which the client's has brought about."""
        self._listener.close()
        self._thread.join(10)

    def _run(self):
        try:
            client, _ = self._listener.accept()
        except OSError:
            return
        with client, socket.create_connection(self._server) as server:
            for end in (client, server):
                end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            back = threading.Thread(target=_copy, args=(server, client), daemon=True)
            back.start()
            self._receive(client, server)
            _shut(server)
            back.join(5)

    def _receive(self, client, server):
        try:
            while piece := client.recv(1 << 18):
                self._times.append(time.monotonic_ns())
                self.data += piece
                self._ends.append(len(self.data))
                server.sendall(piece)
        except OSError:
            pass


def _copy(source, target):
    try:
        while piece := source.recv(1 << 16):
            target.sendall(piece)
    except OSError:
        pass
    _shut(target)


def _shut(end):
    try:
        end.shutdown(socket.SHUT_WR)
    except OSError:
        pass

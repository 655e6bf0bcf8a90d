"""Brokers: how a program joins a broker tree."""
import socket

import ivelmo

from .errors import Error, translated

# Where the framework itself starts looking for a free port.
_FIRST_FREE_PORT = 54010
# Attempts to take a port picked here when other processes take it first.
_PORT_ATTEMPTS = 20


def _first_free_port(ip, start):
    """The first port from `start` that nothing holds, probed as the framework does
    (no address reuse, so a port any socket holds counts as taken)."""
    for candidate in range(start, 65536):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
            try:
                probe.bind(("", candidate))
            except OSError:
                continue
            return candidate
    raise Error(f"\tvelmo::Broker\n\tNo free port from {start} on {ip}")


def _parent_address(parent):
    """(ip, port) of a parent given as "ip:port" or (ip, port); ("", 0) for a root."""
    if parent is None:
        return "", 0
    if isinstance(parent, str):
        ip, separator, port = parent.rpartition(":")
        if not separator or not ip:
            raise ValueError(f"parent {parent!r} is not of the form 'ip:port'")
        return ip, int(port)
    ip, port = parent
    return ip, int(port)


class Broker:
    """This program's broker in a tree: the root (no `parent`), or a child of the broker
    at `parent` ("ip:port" or (ip, port)).

    Port 0 takes the first free port from 54010; ``port`` is the port actually used.
    The framework reports no port of its own to a program, so for port 0 the layer
    picks the free port itself (as the framework would) and hands it over.

    Use it as a context manager, or call ``shutdown()``. Note that the framework shuts
    down the *current* broker of the program, the one created last.
    """

    def __init__(self, name="python", ip="127.0.0.1", port=0, parent=None):
        self.name, self.ip = name, ip
        self.parent = _parent_address(parent)
        self.port = port
        self._broker = None
        picked = port == 0
        for attempt in range(1, _PORT_ATTEMPTS + 1):
            if picked:
                self.port = _first_free_port(ip, _FIRST_FREE_PORT if attempt == 1
                                             else self.port + 1)
            try:
                with translated():
                    self._broker = ivelmo.broker(name, ip, self.port, *self.parent)
                return
            except Error as error:
                # Another process took the port between the probe and the bind.
                if not picked or "is not free" not in error.description \
                        or attempt == _PORT_ATTEMPTS:
                    raise

    def shutdown(self):
        """Shuts the broker down (the current broker of the program); once only."""
        if self._broker is not None:
            broker, self._broker = self._broker, None
            with translated():
                broker.shutdown()

    @property
    def running(self):
        """False once shut down through this object."""
        return self._broker is not None

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        self.shutdown()

    def __repr__(self):
        parent = "root" if not self.parent[0] else "parent %s:%d" % self.parent
        return f"<velmo.Broker {self.name!r} at {self.ip}:{self.port}, {parent}>"

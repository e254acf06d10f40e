"""The test's side: connect, register, exchange messages, close in order."""

import os
import re
import select
import socket
import threading
import time
from typing import Optional

from .wire import (
    CONFIG,
    EXIT,
    EXIT_ACK,
    LAUNCH_TOKEN_ENV,
    READ_CHUNK,
    TOKEN_SIZE,
    FrameBuffer,
    FrameError,
    Message,
    encode,
    parse_address,
    pid_body,
)

# How long close() waits for the host to grant the close, like the library.
CLOSE_WAIT_SECONDS = 2.0
# A write that cannot go on for this long gives up, like the library's.
WRITE_LIMIT_SECONDS = 30.0

_TOKEN = re.compile("[0-9a-fA-F]{%d}" % TOKEN_SIZE)


def launch_token() -> bytes:
    """The token this process was launched with, as its 9001 carries it after
    the pid; empty when VEXA_LAUNCH_TOKEN is unset or not 32 hex characters
    (the server then sees a registration without a token)."""
    value = os.environ.get(LAUNCH_TOKEN_ENV, "")
    return value.encode("ascii") if _TOKEN.fullmatch(value) else b""


class ServerGone(Exception):
    """The host closed the connection, ended this client or sent a bad head."""


class Client:
    """One registered test client. send() may be called from any thread;
    recv() and close() from one thread at a time."""

    def __init__(self, sock: socket.socket, dev, item: int) -> None:
        self.dev = dev
        self.item = item
        self._sock: Optional[socket.socket] = sock
        self._poll = select.poll()
        self._poll.register(sock, select.POLLIN)
        self._frames = FrameBuffer()
        self._send_lock = threading.Lock()
        self._gone = ""

    @classmethod
    def connect(cls, address: str, dev, item: int, timeout: Optional[float] = 3.0) -> "Client":
        """Connects to the host at `address` and registers as (dev, item) with
        9001, this process's id and its launch token, if any. A timeout of None
        or 0 waits as long as the system does. Raises ValueError for a bad
        address, OSError when the host cannot be reached."""
        host, port = parse_address(address)
        sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            sock.settimeout(timeout if timeout else None)
            sock.connect((host, port))
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            sock.settimeout(WRITE_LIMIT_SECONDS)
        except OSError:
            sock.close()
            raise
        client = cls(sock, dev, item)
        client.send(CONFIG, pid_body(os.getpid()) + launch_token())
        return client

    def send(self, event: int, body: bytes = b"") -> bool:
        """Sends one message as (dev, item). Raises ValueError for a body of
        512000 bytes or more; returns False when the connection is gone."""
        data = encode(self.dev, self.item, event, body)
        with self._send_lock:
            sock = self._sock
            if sock is None:
                return False
            try:
                sock.sendall(data)
                return True
            except OSError:
                return False

    def recv(self, timeout: Optional[float] = None) -> Optional[Message]:
        """The next message from the host, or None when `timeout` seconds pass
        first. Raises ServerGone once the host has gone away (also when it ends
        this client with 9003, or sends a head the library would refuse)."""
        msg = self._next(timeout)
        if msg is not None and msg.event == EXIT_ACK:
            self._drop("the host ended this client")
            raise ServerGone(self._gone)
        return msg

    def close(self) -> bool:
        """Asks the host to close (9002) and waits up to 2 seconds for its 9003;
        the connection is closed either way. Messages that arrive meanwhile are
        dropped. True when the host granted the close."""
        if self._sock is None:
            return False
        granted = False
        if self.send(EXIT):
            deadline = time.monotonic() + CLOSE_WAIT_SECONDS
            try:
                while not granted:
                    msg = self._next(max(0.0, deadline - time.monotonic()))
                    if msg is None:
                        break
                    granted = msg.event == EXIT_ACK
            except ServerGone:
                pass
        self._drop("closed")
        return granted

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def _next(self, timeout: Optional[float]) -> Optional[Message]:
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            if self._sock is None:
                raise ServerGone(self._gone)
            try:
                msg = self._frames.next_message()
            except FrameError as err:
                self._drop("refused a message from the host: %s" % err)
                continue
            if msg is not None:
                return msg
            wait_ms = None
            if deadline is not None:
                wait_ms = max(0, int((deadline - time.monotonic()) * 1000) + 1)
            if not self._poll.poll(wait_ms):
                if deadline is not None and time.monotonic() >= deadline:
                    return None
                continue
            try:
                data = self._sock.recv(READ_CHUNK)
            except OSError as err:
                data = b""
                self._gone = str(err)
            if not data:
                self._drop(self._gone or "the host closed the connection")
            else:
                self._frames.feed(data)

    def _drop(self, reason: str) -> None:
        sock = self._sock
        if sock is not None:
            try:
                sock.shutdown(socket.SHUT_RDWR)  # wakes a sender blocked on this socket
            except OSError:
                pass
        with self._send_lock:
            sock, self._sock = self._sock, None
        if sock is not None:
            self._gone = reason
            self._poll.unregister(sock)
            sock.close()

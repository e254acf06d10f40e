"""The host's side: accept tests, register them, route messages by (dev, item).

The rules are the library server's:
- a connection counts only once it registers with 9001; a message, a 9002
  included, acts only on pairs registered on the connection it arrives on:
  one for a pair that is not registered, or registered on another connection,
  is dropped (logged at most once a second per connection);
- a later registration under the same key replaces the earlier one and closes
  the earlier connection (a connection registering twice thus closes itself);
- a 9001 of 36 bytes carries a launch token after the pid: this host checks
  no tokens and strips it, so the host sees the 4-byte pid as ever;
- 9002 is answered with 9003 and reaches the host as 9005; that connection is
  then closed;
- a registered connection that breaks before its 9002 reaches the host as 9006,
  with the current time and an empty body; an unregistered one, silently.
"""

import logging
import queue
import selectors
import socket
import struct
import threading
import time
from typing import Dict, List, Optional, Tuple

from .client import WRITE_LIMIT_SECONDS
from .wire import (
    CLOSED,
    CONFIG,
    EXIT,
    EXIT_ACK,
    OFFLINE,
    PID_SIZE,
    READ_CHUNK,
    TOKEN_SIZE,
    FrameBuffer,
    FrameError,
    Message,
    check_body,
    client_key,
    encode,
    parse_address,
    sec_usec,
)

log = logging.getLogger("vexawire.host")

# Drops on one connection are logged at most this often: a flood stays one line.
DROP_NOTE_SECONDS = 1.0


class _Connection:
    def __init__(self, sock: socket.socket) -> None:
        sock.settimeout(WRITE_LIMIT_SECONDS)
        self.sock = sock
        self.fd = sock.fileno()
        self.frames = FrameBuffer()
        self.write_lock = threading.Lock()  # keeps one message's bytes together
        self.closed = False
        self.last_drop_note = -DROP_NOTE_SECONDS

    def write(self, data: bytes) -> bool:
        with self.write_lock:
            if self.closed:
                return False
            try:
                self.sock.sendall(data)
                return True
            except OSError:
                return False

    def close(self) -> None:
        if self.closed:
            return
        try:
            self.sock.shutdown(socket.SHUT_RDWR)  # wakes a writer blocked on it
        except OSError:
            pass
        with self.write_lock:
            self.closed = True
            self.sock.close()


class _Registration:
    def __init__(self, dev: str, item: int, conn: _Connection, pid: int) -> None:
        self.dev = dev
        self.item = item
        self.conn = conn
        self.pid = pid
        self.closing = False


class Host:
    """Listens for tests on its own thread. recv() hands out their messages and
    the 9001/9005/9006 events; send() may be called from any thread."""

    def __init__(self, listener: socket.socket) -> None:
        self._listener = listener
        self._events: "queue.Queue[Optional[Message]]" = queue.Queue()
        self._lock = threading.Lock()  # guards _table
        self._table: Dict[bytes, _Registration] = {}
        self._wake_r, self._wake_w = socket.socketpair()
        self._selector = selectors.DefaultSelector()
        self._selector.register(listener, selectors.EVENT_READ)
        self._selector.register(self._wake_r, selectors.EVENT_READ)
        self._stopping = False
        self._thread = threading.Thread(target=self._run, name="vexawire-host", daemon=True)
        self._thread.start()

    @classmethod
    def listen(cls, address: str) -> "Host":
        """Listens on `address` ("tcp://:PORT" is 127.0.0.1). Raises ValueError
        for a bad address, OSError when the port cannot be had."""
        ip, port = parse_address(address)
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((ip, port))
            listener.listen(socket.SOMAXCONN)  # a burst of tests never waits for a SYN retry
        except OSError:
            listener.close()
            raise
        return cls(listener)

    @property
    def address(self) -> str:
        ip, port = self._listener.getsockname()
        return "tcp://%s:%d" % (ip, port)

    def recv(self, timeout: Optional[float] = None) -> Optional[Message]:
        """The next event, or None when `timeout` seconds pass first or the
        host is closed."""
        try:
            msg = self._events.get(timeout=timeout)
        except queue.Empty:
            return None
        if msg is None:
            self._events.put(None)  # every later call returns at once too
        return msg

    def send(self, dev, item: int, event: int, body: bytes = b"") -> bool:
        """Sends to the test registered as (dev, item). False when there is no
        such test or the write fails; ValueError for a body of 512000 bytes or
        more."""
        data = encode(dev, item, event, check_body(body))
        with self._lock:
            reg = self._table.get(client_key(dev, item))
        return reg is not None and reg.conn.write(data)

    def is_registered(self, dev, item: int) -> bool:
        """True while a test is registered under the key of (dev, item)."""
        with self._lock:
            return client_key(dev, item) in self._table

    def clients(self) -> List[Tuple[str, int, int]]:
        """(dev, item, pid) of every registered test, in key order."""
        with self._lock:
            return [(r.dev, r.item, r.pid) for _, r in sorted(self._table.items())]

    def close(self) -> None:
        """Stops the thread and closes every connection without a word to the
        tests, which see their connection drop. No 9006 is produced."""
        if self._stopping:
            return
        self._stopping = True
        self._wake_w.send(b"x")
        self._thread.join()
        for key in list(self._selector.get_map().values()):
            if isinstance(key.data, _Connection):
                key.data.close()
        self._selector.close()
        for sock in (self._listener, self._wake_r, self._wake_w):
            sock.close()
        self._events.put(None)

    def __enter__(self) -> "Host":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def _run(self) -> None:
        while not self._stopping:
            for key, _ in self._selector.select():
                if key.fileobj is self._listener:
                    self._accept()
                elif isinstance(key.data, _Connection):
                    self._read(key.data)

    def _accept(self) -> None:
        try:
            sock, _ = self._listener.accept()
        except OSError as err:
            log.warning("accept failed: %s", err)
            return
        conn = _Connection(sock)
        self._selector.register(sock, selectors.EVENT_READ, conn)

    def _read(self, conn: _Connection) -> None:
        try:
            data = conn.sock.recv(READ_CHUNK)
        except OSError:
            data = b""
        if not data:
            self._broken(conn)
            return
        conn.frames.feed(data)
        while not conn.closed:
            try:
                msg = conn.frames.next_message()
            except FrameError as err:
                log.warning("connection fd=%d: %s; closing it", conn.fd, err)
                self._broken(conn)
                return
            if msg is None:
                return
            self._route(conn, msg)

    def _route(self, conn: _Connection, msg: Message) -> None:
        key = client_key(msg.dev, msg.item)
        ended: List[_Connection] = []
        if msg.event == CONFIG:
            if len(msg.body) == PID_SIZE + TOKEN_SIZE:
                msg = msg._replace(body=msg.body[:PID_SIZE])
            # A body under 4 bytes leaves the missing bytes 0, as the library's copy does.
            pid = struct.unpack("=i", msg.body[:PID_SIZE].ljust(PID_SIZE, b"\0"))[0]
            with self._lock:
                old = self._table.pop(key, None)
                self._table[key] = _Registration(msg.dev, msg.item, conn, pid)
            if old is not None:
                log.warning("dev=%s item=%d registered again; closing fd=%d", msg.dev,
                            msg.item, old.conn.fd)
                old.conn.close()
                ended.append(old.conn)
        with self._lock:
            reg = self._table.get(key)
        if reg is None or reg.conn is not conn:
            self._drop(conn, msg)
        elif msg.event == EXIT:
            reg.closing = True
            self.send(msg.dev, msg.item, EXIT_ACK)
            self._events.put(msg._replace(event=CLOSED))
            conn.close()
            ended.append(conn)
        else:
            self._events.put(msg)
        for gone in ended:
            self._remove(gone)

    def _drop(self, conn: _Connection, msg: Message) -> None:
        now = time.monotonic()
        if now - conn.last_drop_note >= DROP_NOTE_SECONDS:
            conn.last_drop_note = now
            log.warning("fd=%d: dropped event=%d for dev=%s item=%d, which this connection has "
                        "not registered", conn.fd, msg.event, msg.dev, msg.item)

    def _broken(self, conn: _Connection) -> None:
        conn.close()
        with self._lock:
            # The last entry in key order that this connection registered.
            regs = [r for _, r in sorted(self._table.items()) if r.conn is conn]
        if regs and not regs[-1].closing:
            reg = regs[-1]
            self._events.put(Message(reg.dev, reg.item, OFFLINE, *sec_usec(), b""))
        self._remove(conn)

    def _remove(self, conn: _Connection) -> None:
        if conn.fd in self._selector.get_map():
            self._selector.unregister(conn.fd)
        with self._lock:
            for key, reg in sorted(self._table.items()):
                if reg.conn is conn:
                    del self._table[key]
                    break

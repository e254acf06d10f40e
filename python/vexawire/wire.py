"""The message head, the library's own event codes and the address grammar.

One message is a 100-byte head followed by the body:

    offset  size  field
         0    80  device string, NUL-padded (at most 79 bytes of text)
        80     4  test item
        84     4  event id
        88     4  sender's time, seconds
        92     4  sender's time, microseconds
        96     4  body length, 0 to 511999

All integers are big-endian signed 32-bit. The one exception is the body of a
registration (9001): the sender's process id in the machine's own byte order,
followed, from a launched test, by its launch token (32 ASCII hex characters).
"""

import socket
import struct
import time
from typing import NamedTuple, Optional, Tuple

HEAD_SIZE = 100
DEV_FIELD_SIZE = 80
MAX_DEV_BYTES = DEV_FIELD_SIZE - 1
MAX_DATA_LEN = 512000  # exclusive: the longest body is 511999 bytes
MAX_BODY = MAX_DATA_LEN - 1

CONFIG = 9001  # test to host: registration, body = pid (native int32) [+ launch token]
EXIT = 9002  # test to server: asks to close (never delivered to the host)
EXIT_ACK = 9003  # server to test: close granted (never delivered to the test)
CLOSED = 9005  # to the host: a test closed in order (replaces its 9002)
OFFLINE = 9006  # to the host: a registered test's connection broke
DISCONNECTED = 1006  # to a test: its server went away
SERVER_CLOSED = -900  # the body of DISCONNECTED

EVENT_NAMES = {
    CONFIG: "CONFIG",
    EXIT: "EXIT",
    EXIT_ACK: "EXIT_ACK",
    CLOSED: "CLOSED",
    OFFLINE: "OFFLINE",
    DISCONNECTED: "DISCONNECTED",
}

# A launched test's 9001 carries its launch token after the pid: 32 ASCII hex
# characters (128 bits) that the server handed it in VEXA_LAUNCH_TOKEN.
LAUNCH_TOKEN_ENV = "VEXA_LAUNCH_TOKEN"
TOKEN_SIZE = 32
PID_SIZE = 4

# What one read asks the socket for.
READ_CHUNK = 65536

_HEAD_INTS = struct.Struct(">iiiii")
_PID = struct.Struct("=i")  # PID_SIZE bytes


class Message(NamedTuple):
    dev: str
    item: int
    event: int
    sec: int
    usec: int
    body: bytes

    @property
    def pid(self) -> Optional[int]:
        """The process id a registration (9001) carries, else None."""
        if self.event != CONFIG or len(self.body) < _PID.size:
            return None
        return _PID.unpack_from(self.body)[0]


class FrameError(Exception):
    """A head the library would refuse: the connection cannot go on."""


def dev_bytes(dev) -> bytes:
    """The device string as it travels: its first 79 bytes."""
    raw = dev if isinstance(dev, bytes) else dev.encode("utf-8", "surrogateescape")
    return raw[:MAX_DEV_BYTES]


def dev_text(raw: bytes) -> str:
    """The device field of a head up to its first NUL, as text."""
    return raw.split(b"\0", 1)[0].decode("utf-8", "surrogateescape")


def client_key(dev, item: int) -> bytes:
    # The device string followed directly by the decimal item, with no
    # separator: ("phone", 12) and ("phone1", 2) are the same client. The
    # library keys its clients this way on purpose; keep it.
    return dev_bytes(dev) + b"%d" % item


def pid_body(pid: int) -> bytes:
    return _PID.pack(pid)


def check_body(body) -> bytes:
    body = bytes(body)
    if len(body) > MAX_BODY:
        raise ValueError("body of %d bytes; at most %d are allowed" % (len(body), MAX_BODY))
    return body


def _int32(value: int) -> int:
    return (value + 2**31) % 2**32 - 2**31


def sec_usec(now: Optional[float] = None) -> Tuple[int, int]:
    """The time of day (now, unless given) as whole seconds and microseconds."""
    if now is None:
        now = time.time()
    sec = int(now)
    return sec, int((now - sec) * 1_000_000)


def encode(dev, item: int, event: int, body: bytes = b"", now: Optional[float] = None) -> bytes:
    """One whole message; raises ValueError for a body of 512000 bytes or more."""
    body = check_body(body)
    sec, usec = sec_usec(now)
    head = dev_bytes(dev).ljust(DEV_FIELD_SIZE, b"\0")
    # The seconds travel as the low 32 bits of the clock, like the library's.
    head += _HEAD_INTS.pack(_int32(item), _int32(event), _int32(sec), usec, len(body))
    return head + body


def decode_head(head: bytes) -> Tuple[str, int, int, int, int, int]:
    """(dev, item, event, sec, usec, length) of a 100-byte head.

    Raises FrameError for a length outside 0..511999, which ends the
    connection at the library too (nothing resynchronises).
    """
    item, event, sec, usec, length = _HEAD_INTS.unpack_from(head, DEV_FIELD_SIZE)
    if length < 0 or length > MAX_BODY:
        raise FrameError("body length %d outside 0..%d" % (length, MAX_BODY))
    return dev_text(head[:DEV_FIELD_SIZE]), item, event, sec, usec, length


class FrameBuffer:
    """Bytes received on one connection, cut into messages."""

    def __init__(self) -> None:
        self._data = bytearray()

    def feed(self, data: bytes) -> None:
        self._data += data

    def next_message(self) -> Optional[Message]:
        """The next whole message, or None while it is incomplete."""
        if len(self._data) < HEAD_SIZE:
            return None
        dev, item, event, sec, usec, length = decode_head(bytes(self._data[:HEAD_SIZE]))
        end = HEAD_SIZE + length
        if len(self._data) < end:
            return None
        body = bytes(self._data[HEAD_SIZE:end])
        del self._data[:end]
        return Message(dev, item, event, sec, usec, body)


def _atoi(text: str) -> int:
    """C's atoi: optional blanks and sign, then leading digits; 0 for none."""
    text = text.lstrip(" \t\n\r\f\v")
    sign = 1
    if text[:1] in ("+", "-"):
        sign = -1 if text[0] == "-" else 1
        text = text[1:]
    digits = ""
    for ch in text:
        if not ch.isdigit() or not ch.isascii():
            break
        digits += ch
    return sign * int(digits) if digits else 0


def parse_address(address: str) -> Tuple[str, int]:
    """(IPv4 text, port) of "tcp://:PORT" (127.0.0.1) or "tcp://HOST:PORT".

    The same grammar as the library's: the port is read like atoi and must not
    be 0; only its low 16 bits count (tcp://:70000 is port 4464); pieces after
    the port are ignored; the host is a dotted IPv4 address, never a name.
    Raises ValueError otherwise.
    """
    if address.startswith("tcp://:"):
        host, port = "127.0.0.1", _atoi(address[len("tcp://:"):])
    elif address.startswith("tcp://"):
        pieces = address[len("tcp://"):].split(":")
        if len(pieces) < 2:
            raise ValueError("invalid address %r" % address)
        host, port = pieces[0], _atoi(pieces[1])
    else:
        raise ValueError("invalid address %r" % address)
    if port == 0:
        raise ValueError("invalid address %r" % address)
    try:
        host = socket.inet_ntoa(socket.inet_aton(host))
    except OSError:
        raise ValueError("invalid address %r: the host must be a dotted IPv4 address" % address)
    return host, port & 0xFFFF


def printable(data: bytes, limit: int = 40) -> str:
    """Up to `limit` bytes as text, '.' for what cannot be printed."""
    return "".join(chr(b) if 0x20 <= b < 0x7F else "." for b in data[:limit])


def describe(direction: str, msg: Message) -> str:
    """One line for an event, in the form vexahost prints (without its time)."""
    name = EVENT_NAMES.get(msg.event)
    event = "%s(%d)" % (name, msg.event) if name else str(msg.event)
    line = "%s dev=%s item=%d event=%s len=%d" % (
        direction, printable(dev_bytes(msg.dev), MAX_DEV_BYTES), msg.item, event, len(msg.body))
    if msg.pid is not None:
        line += " pid=%d" % msg.pid
    elif msg.body:
        line += ' "%s"' % printable(msg.body)
        if len(msg.body) > 40:
            line += "..."
    return line

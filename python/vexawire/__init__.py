"""A pure-Python peer of libvexatool64: a test client and a host that speak its
framed messages over TCP and follow its registration and routing rules."""

from .client import Client, ServerGone
from .host import Host
from .version import version as _version
from .wire import (
    CLOSED,
    CONFIG,
    DISCONNECTED,
    EXIT,
    EXIT_ACK,
    MAX_BODY,
    OFFLINE,
    SERVER_CLOSED,
    FrameError,
    Message,
    parse_address,
)

__version__ = _version()

__all__ = [
    "Client", "Host", "Message", "ServerGone", "FrameError", "parse_address", "MAX_BODY",
    "CONFIG", "EXIT", "EXIT_ACK", "CLOSED", "OFFLINE", "DISCONNECTED", "SERVER_CLOSED",
]

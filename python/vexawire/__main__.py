"""Command line: python3 -m vexawire host|send|listen ... (or the vexawire zipapp)

  host   [-a ADDR]                          be the host: print every event; a
                                            line "DEV ITEM EVENT [TEXT]" on
                                            standard input is sent to that test
                                            and printed, "quit" or the end of
                                            the input stops
  send   [-a ADDR] -d DEV -i ITEM EVENT [TEXT]   register as a test, send one
                                            message, close in order
  listen [-a ADDR] -d DEV -i ITEM [-n COUNT]     register as a test and print
                                            what the host sends

A registration carries VEXA_LAUNCH_TOKEN from the environment when that holds
32 hex characters. Exit status: 0 when done, 1 when the host cannot be reached
or the port cannot be had, 2 for a usage error.
"""

import argparse
import logging
import signal
import sys
import threading
import time

from .client import Client, ServerGone
from .host import Host
from .version import version
from .wire import Message, check_body, describe, sec_usec

DEFAULT_ADDRESS = "tcp://:6000"
HOST_USAGE = "usage: DEV ITEM EVENT [TEXT], or quit"

_output_lock = threading.Lock()  # one line at a time from the event and command threads


class _Stop(Exception):
    pass


def _stamp() -> str:
    now = time.time()
    return time.strftime("%H:%M:%S", time.localtime(now)) + ".%03d" % (int(now * 1000) % 1000)


def _print(direction, msg) -> None:
    with _output_lock:
        print(_stamp(), describe(direction, msg), flush=True)


def _note(text) -> None:
    with _output_lock:
        print("vexawire: " + text, file=sys.stderr, flush=True)


def _print_events(host: Host) -> None:
    msg = host.recv()
    while msg is not None:
        _print("recv", msg)
        msg = host.recv()


def _host_command(host: Host, line: str) -> bool:
    """Runs one typed line; False when it asks to stop."""
    words = line.split(None, 3)
    if words in (["quit"], ["exit"]):
        return False
    if not words:
        return True
    try:
        dev, item, event = words[0], int(words[1]), int(words[2])
    except (IndexError, ValueError):
        _note(HOST_USAGE)
        return True
    try:
        body = check_body(words[3].rstrip("\r\n").encode() if len(words) > 3 else b"")
    except ValueError as err:
        _note(str(err))
        return True
    if not host.is_registered(dev, item):
        _note("dev=%s item=%d is not registered; nothing was sent" % (dev, item))
        return True
    # Printed first, so that a quick answer never shows up above its question.
    _print("sent", Message(dev, item, event, *sec_usec(), body))
    if not host.send(dev, item, event, body):
        _note("dev=%s item=%d: the write failed; the test is gone" % (dev, item))
    return True


def _on_sigterm(signo, frame) -> None:
    raise _Stop("terminated")


def _run_host(args) -> int:
    logging.basicConfig(format="vexawire: %(message)s")  # the host's warnings, once each
    host = Host.listen(args.address)
    _note("listening on %s" % host.address)
    printer = threading.Thread(target=_print_events, args=(host,), daemon=True)
    printer.start()
    signal.signal(signal.SIGTERM, _on_sigterm)
    reason = "end of input"
    try:
        for line in sys.stdin:
            if not _host_command(host, line):
                reason = "quit"
                break
    except KeyboardInterrupt:
        reason = "interrupted"
    except _Stop as stop:
        reason = str(stop)
    finally:
        host.close()
        printer.join()  # every event that came before the end is printed
    _note("stopping (%s)" % reason)
    return 0


def _run_send(args) -> int:
    with Client.connect(args.address, args.dev, args.item) as client:
        if not client.send(args.event, args.text.encode()):
            _note("the host went away")
            return 1
    return 0


def _run_listen(args) -> int:
    with Client.connect(args.address, args.dev, args.item) as client:
        count = 0
        try:
            while args.count is None or count < args.count:
                _print("recv", client.recv())
                count += 1
        except ServerGone as gone:
            _note(str(gone))
        except KeyboardInterrupt:
            pass
    return 0


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="vexawire", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version="vexawire " + version())
    sub = parser.add_subparsers(dest="command", required=True)
    for name in ("host", "send", "listen"):
        cmd = sub.add_parser(name)
        cmd.add_argument("-a", "--address", default=DEFAULT_ADDRESS)
        if name != "host":
            cmd.add_argument("-d", "--dev", required=True)
            cmd.add_argument("-i", "--item", type=int, required=True)
    send = sub.choices["send"]
    send.add_argument("event", type=int)
    send.add_argument("text", nargs="?", default="")
    sub.choices["listen"].add_argument("-n", "--count", type=int)
    args = parser.parse_args(argv)
    run = {"host": _run_host, "send": _run_send, "listen": _run_listen}[args.command]
    try:
        return run(args)
    except (OSError, ValueError) as err:
        _note(str(err))
        return 1


if __name__ == "__main__":
    sys.exit(main())

"""Command line: python3 -m vexawire host|send|listen ...

  host   [-a ADDR]                          be the host: print every event; lines
                                            "DEV ITEM EVENT [TEXT]" on standard
                                            input are sent to that test
  send   [-a ADDR] -d DEV -i ITEM EVENT [TEXT]   register as a test, send one
                                            message, close in order
  listen [-a ADDR] -d DEV -i ITEM [-n COUNT]     register as a test and print
                                            what the host sends

Exit status: 0 when done, 1 when the host cannot be reached or the port cannot
be had, 2 for a usage error.
"""

import argparse
import sys
import threading
import time

from .client import Client, ServerGone
from .host import Host
from .wire import describe

DEFAULT_ADDRESS = "tcp://:6000"


def _stamp() -> str:
    now = time.time()
    return time.strftime("%H:%M:%S", time.localtime(now)) + ".%03d" % (int(now * 1000) % 1000)


def _print(direction, msg) -> None:
    print(_stamp(), describe(direction, msg), flush=True)


def _run_host(args) -> int:
    host = Host.listen(args.address)
    print("vexawire: listening on %s" % host.address, file=sys.stderr)

    def type_commands():
        for line in sys.stdin:
            words = line.split(None, 3)
            try:
                dev, item, event = words[0], int(words[1]), int(words[2])
            except (IndexError, ValueError):
                print("vexawire: usage: DEV ITEM EVENT [TEXT]", file=sys.stderr)
                continue
            text = words[3].rstrip("\r\n") if len(words) > 3 else ""
            if not host.send(dev, item, event, text.encode()):
                print("vexawire: dev=%s item=%d is not registered" % (dev, item), file=sys.stderr)

    threading.Thread(target=type_commands, daemon=True).start()
    try:
        while True:
            msg = host.recv()
            if msg is None:
                return 0
            _print("recv", msg)
    except KeyboardInterrupt:
        return 0
    finally:
        host.close()


def _run_send(args) -> int:
    with Client.connect(args.address, args.dev, args.item) as client:
        if not client.send(args.event, args.text.encode()):
            print("vexawire: the host went away", file=sys.stderr)
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
            print("vexawire: %s" % gone, file=sys.stderr)
        except KeyboardInterrupt:
            pass
    return 0


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="vexawire", description=__doc__.split("\n")[0])
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
        print("vexawire: %s" % err, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())

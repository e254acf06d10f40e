"""The Python peer against the C library and against itself: the same
scenario must give the same events from the C server and the Python host."""

import os
import shutil
import socket
import struct
import subprocess
import sys

import pytest

from conftest import LIMIT, build_path
from vexawire import CLOSED, CONFIG, OFFLINE, Client, Host, ServerGone

EVENT = r"recv dev=(\S*) item=(-?\d+) event=(?:\w+\()?(-?\d+)\)? len=(\d+)"


class CServer:
    """vexahost as the server; events are read from its lines."""

    def __init__(self, vexahost, address):
        self.tool = vexahost("-a", address)
        self.tool.wait_for("listening on")

    def expect(self):
        dev, item, event, length = self.tool.wait_for(EVENT).groups()
        return dev, int(item), int(event), int(length)

    def send(self, dev, item, event, text):
        self.tool.type("send %s %d %d %s\n" % (dev, item, event, text))

    def stop(self):
        self.tool.type("quit\n")
        assert self.tool.finish() == 0


class PyServer:
    def __init__(self, address):
        self.host = Host.listen(address)

    def expect(self):
        msg = self.host.recv(LIMIT)
        assert msg is not None
        return msg.dev, msg.item, msg.event, len(msg.body)

    def send(self, dev, item, event, text):
        assert self.host.send(dev, item, event, text.encode())

    def stop(self):
        self.host.close()


@pytest.fixture(params=["c", "py"])
def server(request, vexahost, address):
    srv = CServer(vexahost, address) if request.param == "c" else PyServer(address)
    yield srv
    if request.param == "py":
        srv.stop()


def raw_head(dev, item, event, length):
    return dev.ljust(80, b"\0") + struct.pack(">iiiii", item, event, 0, 0, length)


def test_registration_routing_and_close(server, address):
    first = Client.connect(address, "phone", 12)
    assert server.expect() == ("phone", 12, CONFIG, 4)
    first.send(2001, b"")
    first.send(2002, b"x" * 511999)
    assert server.expect() == ("phone", 12, 2001, 0)
    assert server.expect() == ("phone", 12, 2002, 511999)
    with pytest.raises(ValueError):
        first.send(2003, b"x" * 512000)
    server.send("phone", 12, 2000, "to the first")
    assert first.recv(LIMIT).body == b"to the first"

    # phone/12 and phone1/2 share the key "phone12": the later one replaces
    # the earlier, whose connection is closed without a word to the host.
    second = Client.connect(address, "phone1", 2)
    assert server.expect() == ("phone1", 2, CONFIG, 4)
    with pytest.raises(ServerGone):
        first.recv(LIMIT)
    server.send("phone", 12, 2000, "to the second")
    msg = second.recv(LIMIT)  # the head carries the pair the host named
    assert (msg.dev, msg.item, msg.body) == ("phone", 12, b"to the second")
    assert second.close() is True
    assert server.expect() == ("phone1", 2, CLOSED, 0)

    # Broken registered connections: dropped, and cut by a refused length.
    dropped = Client.connect(address, "dropped", 1)
    assert server.expect()[2] == CONFIG
    dropped._sock.close()
    assert server.expect() == ("dropped", 1, OFFLINE, 0)
    raw = socket.create_connection(("127.0.0.1", int(address.rsplit(":", 1)[1])))
    raw.sendall(raw_head(b"raw", 3, CONFIG, 4) + struct.pack("=i", 7))
    assert server.expect() == ("raw", 3, CONFIG, 4)
    raw.sendall(raw_head(b"raw", 3, 2000, 512000))
    assert server.expect() == ("raw", 3, OFFLINE, 0)
    raw.close()

    last = Client.connect(address, "last", 4)
    assert server.expect()[2] == CONFIG
    server.stop()
    with pytest.raises(ServerGone):
        last.recv(LIMIT)


def test_c_example_program_against_python_host(c_env, address):
    with Host.listen(address) as host:
        test = subprocess.Popen([build_path("EXAMPLE_TEST"), "-t", address, "-d", "unit"],
                                env=c_env)
        seen = []
        while not seen or seen[-1].event != CLOSED:
            msg = host.recv(LIMIT)
            assert msg is not None, seen
            seen.append(msg)
            if msg.event == CONFIG:
                assert msg.pid == test.pid
                host.send("unit", 1, 2000, b"ping from host")
            elif msg.event == 2001:
                host.send("unit", 1, 2099)
        assert test.wait(LIMIT) == 0
    # The greeting comes from the test's main thread, the echo from its
    # library's thread: their order is not fixed.
    assert sorted((m.event, m.body) for m in seen if m.event != CONFIG) == [
        (1000, b"hello from unit"), (2001, b"ping from host"), (2098, b"bye"), (CLOSED, b"")]


def test_client_leaves_a_host_that_sends_a_refused_length():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        client = Client.connect("tcp://:%d" % listener.getsockname()[1], "d", 1)
        conn, _ = listener.accept()
        conn.sendall(raw_head(b"d", 1, 2000, 512000))
        with pytest.raises(ServerGone, match="outside"):
            client.recv(LIMIT)
        conn.close()


def test_installs_with_pip_offline(tmp_path):
    # A copy: setuptools builds inside the source folder.
    source = shutil.copytree(os.path.join(os.path.dirname(__file__), "..", "..", "python"),
                             tmp_path / "python")
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", str(venv)], check=True)
    subprocess.run([str(venv / "bin/pip"), "install", "-q", "--no-index", "--no-build-isolation",
                    str(source)], check=True, cwd=tmp_path)
    out = subprocess.run([str(venv / "bin/vexawire"), "--help"], check=True, cwd=tmp_path,
                         capture_output=True, text=True).stdout
    assert "host,send,listen" in out

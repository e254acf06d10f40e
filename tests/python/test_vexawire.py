"""The Python peer against the C library and against itself (the same
scenario must give the same events from the C server and the Python host),
its command line, and how it is shipped: the zipapp and pip, without network."""

import os
import shutil
import socket
import struct
import subprocess
import sys

import pytest

import vexawire
from conftest import LIMIT, build_path
from vexawire import CLOSED, CONFIG, EXIT, OFFLINE, Client, Host, ServerGone
from vexawire.wire import FrameBuffer, encode, pid_body

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")

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


def read_message(conn):
    frames = FrameBuffer()
    msg = frames.next_message()
    while msg is None:
        frames.feed(conn.recv(4096))
        msg = frames.next_message()
    return msg


def test_client_sends_its_launch_token_and_leaves_a_host_that_sends_a_refused_length(
        monkeypatch):
    token = "0123456789abcdef" * 2
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(4)
        address = "tcp://:%d" % listener.getsockname()[1]
        # Exactly 32 hex characters travel, after the pid; anything else stays home.
        for value, tail in ((token, token.encode()), (token[1:], b""), (token + "0", b""),
                            ("g" + token[1:], b"")):
            monkeypatch.setenv("VEXA_LAUNCH_TOKEN", value)
            client = Client.connect(address, "d", 1)
            conn, _ = listener.accept()
            assert read_message(conn).body == pid_body(os.getpid()) + tail
        conn.sendall(raw_head(b"d", 1, 2000, 512000))
        with pytest.raises(ServerGone, match="outside"):
            client.recv(LIMIT)
        conn.close()


def test_python_host_acts_only_on_pairs_of_the_arriving_connection(address):
    with Host.listen(address) as host:
        owner = Client.connect(address, "owner", 1)
        assert host.recv(LIMIT).event == CONFIG
        raw = socket.create_connection(("127.0.0.1", int(address.rsplit(":", 1)[1])))
        # A launched test's registration: the token is stripped, the pid stays.
        raw.sendall(encode("intruder", 2, CONFIG, pid_body(77) + b"f" * 32))
        msg = host.recv(LIMIT)
        assert (msg.dev, msg.event, msg.body) == ("intruder", CONFIG, pid_body(77))
        # The owner's pair on the intruder's connection: neither delivered nor
        # closing anything; the intruder's own message after them comes next.
        raw.sendall(encode("owner", 1, 2000, b"forged") + encode("owner", 1, EXIT) +
                    encode("intruder", 2, 3000))
        assert host.recv(LIMIT)[:3] == ("intruder", 2, 3000)
        assert host.send("owner", 1, 2001, b"still yours")
        assert owner.recv(LIMIT).body == b"still yours"
        assert owner.close() is True
        assert host.recv(LIMIT)[:3] == ("owner", 1, CLOSED)
        raw.close()


def test_host_command_line_echoes_sends_and_stops_at_the_end_of_input(line_tool, address):
    tool = line_tool(build_path("VEXAWIRE_PYZ"), "host", "-a", address)
    tool.wait_for("listening on")
    client = Client.connect(address, "phone", 3)
    tool.wait_for(r"recv dev=phone item=3 event=CONFIG\(9001\) len=4 pid=%d$" % os.getpid())
    tool.type("nobody 1 2000 hi\nphone 3 2000 hello there\n")
    tool.wait_for(r'^\d\d:\d\d:\d\d\.\d{3} sent dev=phone item=3 event=2000 len=11 "hello there"$')
    assert client.recv(LIMIT).body == b"hello there"
    assert tool.finish() == 0
    assert [line for line in tool.lines if "nobody" in line] == [
        "vexawire: dev=nobody item=1 is not registered; nothing was sent\n"]
    assert tool.lines[-1] == "vexawire: stopping (end of input)\n"
    with pytest.raises(ServerGone):
        client.recv(LIMIT)


def run(argv, **options):
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}  # never the source tree
    return subprocess.run(argv, check=True, capture_output=True, text=True, env=env,
                          **options).stdout


def test_zipapp_installed_by_cmake_runs_on_python_3_9_or_later(tmp_path):
    version = os.environ["VEXA_VERSION"]
    assert vexawire.__version__ == version  # the source tree reads the CMake project
    script = os.path.join(os.path.dirname(build_path("VEXAWIRE_PYZ")), "cmake_install.cmake")
    run([os.environ["VEXA_CMAKE"], "-DCMAKE_INSTALL_PREFIX=%s" % tmp_path,
         "-DCMAKE_INSTALL_COMPONENT=tool", "-P", script])
    pythons = [[]]  # first through its own #! line
    oldest = shutil.which("python3.9")
    if oldest and subprocess.run([oldest, "-c", ""], capture_output=True).returncode == 0:
        pythons.append([oldest])
    for python in pythons:
        assert run(python + [str(tmp_path / "bin/vexawire"), "--version"]) == (
            "vexawire %s\n" % version)


@pytest.mark.parametrize("wheel_visible", [False, True], ids=["without-wheel", "with-wheel"])
def test_pip_installs_offline_with_the_project_version_and_license(tmp_path, wheel_visible):
    # A copy of what the build reads: pip builds in the source folder.
    root = tmp_path / "src"
    shutil.copytree(os.path.join(SOURCE, "python"), root / "python",
                    ignore=shutil.ignore_patterns("__pycache__"))
    for name in ("CMakeLists.txt", "LICENSE"):
        shutil.copy(os.path.join(SOURCE, name), root)
    venv = tmp_path / "venv"
    run([sys.executable, "-m", "venv", str(venv)] + ["--system-site-packages"] * wheel_visible)
    python = str(venv / "bin/python")
    assert subprocess.run([python, "-c", "import wheel"]).returncode == (0 if wheel_visible else 1)
    pip = [python, "-m", "pip", "install", "-q", "--no-index", "--no-build-isolation"]
    packages = [str(root / "python")]
    if not wheel_visible:  # and from an sdist, away from the CMake project
        packages.append(run([python, "-c", "import build_backend as b; print(b.build_sdist('..'))"],
                            cwd=root / "python").strip())
    for package in packages:
        run(pip + ["--force-reinstall", package], cwd=root)
        assert run([str(venv / "bin/vexawire"), "--version"], cwd=tmp_path) == (
            "vexawire %s\n" % os.environ["VEXA_VERSION"])
        meta = run([python, "-c", "import importlib.metadata as m, vexawire; d = m.distribution("
                    "'vexawire'); print(vexawire.__version__, d.version, d.metadata['License'], "
                    "[f.name for f in d.files if f.name == 'LICENSE'])"], cwd=tmp_path)
        assert meta.split() == [os.environ["VEXA_VERSION"]] * 2 + ["Apache-2.0", "['LICENSE']"]

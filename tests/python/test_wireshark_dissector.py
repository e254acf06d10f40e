"""tools/wireshark/vexatool.lua under tshark, on a capture written here: one
stream on the default port with a message split over three segments and
segments holding several messages, one on another port for the heuristic,
where the direction is learned from the library's own events."""

import os
import shutil
import struct
import subprocess

import pytest

from conftest import build_path
from vexawire.wire import encode, pid_body

OTHER_PORT = 45123


def ip_packet(src_port, dst_port, seq, payload):
    tcp = struct.pack(">HHIIBBHHH", src_port, dst_port, seq, 1, 5 << 4, 0x18, 65535, 0, 0)
    length = 20 + len(tcp) + len(payload)
    # Checksums stay 0: tshark does not check them unless asked to.
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, length, 0, 0x4000, 64, 6, 0,
                     bytes([127, 0, 0, 1]), bytes([127, 0, 0, 1]))
    return b"\0" * 12 + b"\x08\x00" + ip + tcp + payload


def write_pcap(path, streams):
    """streams: (client port, server port, [(to_server, payload), ...])."""
    records = []
    for client, server, segments in streams:
        seq = {True: 1000, False: 5000}
        for to_server, payload in segments:
            ports = (client, server) if to_server else (server, client)
            records.append(ip_packet(*ports, seq[to_server], payload))
            seq[to_server] += len(payload)
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for n, frame in enumerate(records):
            out.write(struct.pack("<IIII", 1700000000, n, len(frame), len(frame)) + frame)


def tshark(capture, *options, fields=("direction", "event", "len", "pid", "text"), env=None):
    """One row per dissected frame (its Info column last), or the verbose tree
    when fields=()."""
    table = ["-T", "fields", "-E", "occurrence=a"] if fields else ["-V"]
    for field in fields:
        table += ["-e", "vexatool." + field]
    if fields:
        table += ["-e", "_ws.col.Info", "-Y", "vexatool"]
    plugin = [] if env else ["-X", "lua_script:" + build_path("VEXA_DISSECTOR")]
    out = subprocess.run(["tshark", "-n"] + plugin + ["-r", str(capture)] + table + list(options),
                         check=True, capture_output=True, text=True, env=env).stdout
    if not fields:
        return out
    return [line.split("\t") for line in out.splitlines()]


TOKEN = "0123456789abcdef" * 2


@pytest.fixture
def capture(tmp_path):
    if shutil.which("tshark") is None:
        pytest.skip("tshark is not installed")
    hello = encode("phone", 12, 1000, b"h" * 300, now=1700000000.25)
    register = encode("phone", 12, 9001, pid_body(4242) + TOKEN.encode())
    server_to_test = encode("phone", 12, 2000, b"ping\0") + encode("phone", 12, 9003)
    path = tmp_path / "vexatool.pcap"
    write_pcap(path, [
        (40000, 6000, [(True, register + hello[:40]), (True, hello[40:150]),
                       (True, hello[150:]), (False, server_to_test)]),
        (40001, OTHER_PORT, [(False, encode("so-test", 2, 2001, b"\1\2bin")),
                             (True, encode("so-test", 2, 9002)),
                             (False, encode("so-test", 2, 9003))]),
    ])
    return path


def test_dissects_split_and_combined_messages_with_direction_text_and_time(capture):
    # Two passes: a frame's direction must not change once the stream is known.
    rows = tshark(capture, "-2", fields=("direction", "event", "len", "pid", "text", "time"))
    assert [r[:5] for r in rows] == [
        ["to host", "9001", "36", "4242", ""],
        ["to host", "1000", "300", "", "h" * 300],
        ["to test,to test", "2000,9003", "5,0", "", "ping"],
        ["", "2001", "5", "", ""],  # before the stream's first library event
        ["to host", "9002", "0", "", ""],
        ["to test", "9003", "0", "", ""],
    ]
    assert rows[1][5] == "Nov 14, 2023 22:13:20.250000000 UTC"
    assert [r[-1] for r in rows[:4]] == [
        "VEXATOOL: to host dev=phone item=12 event=CONFIG(9001) len=36 pid=4242 with launch token",
        'VEXATOOL: to host dev=phone item=12 event=1000 len=300 "%s"...' % ("h" * 40),
        'VEXATOOL: to test dev=phone item=12 event=2000 len=5 "ping."; '
        "to test dev=phone item=12 event=EXIT_ACK(9003) len=0",
        'VEXATOOL: dev=so-test item=2 event=2001 len=5 "..bin"']
    tree = tshark(capture, "-O", "vexatool", fields=())
    assert "Event: 9001 (CONFIG)" in tree and "Event: 2000\n" in tree and "Unknown" not in tree
    assert "Launch token: present" in tree and TOKEN not in tree


def test_port_preference_and_the_personal_plugins_folder(capture, tmp_path):
    off = ["--disable-heuristic", "vexatool_tcp"]
    assert [r[1] for r in tshark(capture, *off)] == ["9001", "1000", "2000,9003"]
    # The folder the README names, as tshark -G folders shows it.
    plugins = tmp_path / "home/.local/lib/wireshark/plugins"
    plugins.mkdir(parents=True)
    shutil.copy(build_path("VEXA_DISSECTOR"), plugins)
    env = dict(os.environ, HOME=str(tmp_path / "home"))
    moved = tshark(capture, "-o", "vexatool.port:%d" % OTHER_PORT, *off, env=env)
    assert [r[:2] for r in moved] == [["to test", "2001"], ["to host", "9002"], ["to test", "9003"]]

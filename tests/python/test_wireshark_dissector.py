"""tools/wireshark/vexatool.lua under tshark, on a capture written here: one
stream on the default port with a message split over three segments and
segments holding several messages, one on another port for the heuristic."""

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


def tshark(capture, *options, fields=("dev", "item", "event", "len", "pid", "body")):
    """One row per dissected frame, or the summary lines when fields=()."""
    table = ["-T", "fields", "-E", "occurrence=a"] if fields else []
    for field in fields:
        table += ["-e", "vexatool." + field]
    out = subprocess.run(["tshark", "-n", "-X", "lua_script:" + build_path("VEXA_DISSECTOR"),
                          "-r", str(capture)] + table + list(options),
                         check=True, capture_output=True, text=True).stdout
    return [line.split("\t") if fields else line for line in out.splitlines() if line.strip()]


@pytest.fixture
def capture(tmp_path):
    if shutil.which("tshark") is None:
        pytest.skip("tshark is not installed")
    hello = encode("phone", 12, 1000, b"h" * 300)
    register = encode("phone", 12, 9001, pid_body(4242))
    server_to_test = encode("phone", 12, 2000, b"ping") + encode("phone", 12, 9003)
    other = encode("so-test", 2, 9001, pid_body(7)) + encode("so-test", 2, 9002)
    path = tmp_path / "vexatool.pcap"
    write_pcap(path, [
        (40000, 6000, [(True, register + hello[:40]), (True, hello[40:150]),
                       (True, hello[150:]), (False, server_to_test)]),
        (40001, OTHER_PORT, [(True, other)]),
    ])
    return path


def test_dissects_split_and_combined_messages(capture):
    rows = tshark(capture)
    assert [r[:5] for r in rows] == [
        ["phone", "12", "9001", "4", "4242"],
        ["phone", "12", "1000", "300", ""],
        ["phone,phone", "12,12", "2000,9003", "4,0", ""],
        ["so-test,so-test", "2,2", "9001,9002", "4,0", "7"],
    ]
    assert rows[1][5].replace(":", "") == "68" * 300
    summary = "\n".join(tshark(capture, fields=()))
    assert "VEXATOOL: CONFIG(9001) dev=phone item=12 len=4" in summary
    assert "2000 dev=phone item=12 len=4; EXIT_ACK(9003) dev=phone item=12 len=0" in summary


def test_port_preference_without_the_heuristic(capture):
    off = ["--disable-heuristic", "vexatool_tcp"]
    assert [r[2] for r in tshark(capture, *off)] == ["9001", "1000", "2000,9003"]
    moved = tshark(capture, "-o", "vexatool.port:%d" % OTHER_PORT, *off)
    assert [r[2] for r in moved] == ["9001,9002"]

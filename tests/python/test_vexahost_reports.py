"""vexahost's verdict, --json and --junit-xml, read with real parsers; the
time limit, exit statuses through a su prefix, and the status line."""

import json
import os
import pty
import re
import select
import socket
import subprocess
import time
import xml.etree.ElementTree as ElementTree

from conftest import LIMIT, build_path
from vexawire import Client


def script(tmp_path, name, body):
    path = tmp_path / name
    path.write_text("#!/bin/sh\n" + body + "\n")
    path.chmod(0o755)
    return str(path)


def test_demo_json_events_and_junit_report(vexahost, address, tmp_path):
    failing = script(tmp_path, "fails.sh", "exit 3")
    report = tmp_path / "report.xml"
    program, library = build_path("EXAMPLE_TEST"), build_path("EXAMPLE_TEST_SO")
    before = time.time()
    tool = vexahost("--demo", "--json", "--junit-xml", str(report), "-a", address, program,
                    library, failing)
    assert tool.finish() == 4, "".join(tool.lines)

    notes = [line for line in tool.lines if line.startswith("vexahost: ")]
    assert re.fullmatch(r"vexahost: 2 passed, 1 failed in \d+\.\d\d s\n", notes[-1])
    lines = [line for line in tool.lines if line not in notes]
    assert all(re.search(r'"sent_at":\d{10}\.\d{6},', line) for line in lines)
    events = [json.loads(line) for line in lines]
    assert all(before - 1 < e["sent_at"] < time.time() + 1 for e in events)
    for dev, item, path in (("example", 1, program), ("so-test", 2, library)):
        mine = [(e["dir"], e["event"], e.get("body")) for e in events if e["dev"] == dev]
        assert ("recv", 2001, "ping from host") in mine
        assert ("sent", 2099, None) in mine
        assert mine[-2:] == [("recv", 2098, "bye"), ("recv", 9005, None)]
        config = next(e for e in events if e["dev"] == dev and e["event"] == 9001)
        assert (config["name"], config["item"], config["len"]) == ("CONFIG", item, 4)
        assert isinstance(config["pid"], int) and config["launched"] is True
        assert {e["program"] for e in events if e["dev"] == dev} == {path}

    suite = ElementTree.parse(report).getroot()
    assert (suite.tag, suite.get("tests"), suite.get("failures")) == ("testsuite", "3", "1")
    assert suite.get("hostname") == socket.gethostname()
    started = time.mktime(time.strptime(suite.get("timestamp"), "%Y-%m-%dT%H:%M:%S"))
    assert abs(started - before) < 2 * 86400  # local time, in the tool's zone
    cases = {case.get("name"): case for case in suite.iter("testcase")}
    named = program + " dev=example item=1"
    assert set(cases) == {named, library + " dev=so-test item=2", failing}
    for case in cases.values():
        assert float(case.get("time")) >= 0
    assert cases[named].find("failure") is None
    out = cases[named].findtext("system-out")
    assert "recv dev=example item=1 event=CONFIG(9001) len=4 pid=" in out
    assert out.endswith("event=CLOSED(9005) len=0\nprogram exited with status 0\n")
    failure = cases[failing].find("failure")
    assert failure.get("message") == failure.text == "never registered; exited with status 3"


def test_json_keeps_every_byte_and_reports_offline(vexahost, address, tmp_path):
    report = tmp_path / "report.xml"
    tool = vexahost("--json", "--junit-xml", str(report), "-a", address)
    tool.wait_for("listening on")
    body = bytes(range(256)) + b'"\\'
    client = Client.connect(address, 'q"\x01', 7)
    client.send(3000, body)
    tool.wait_for('"event":3000')
    client._sock.close()  # a broken registered connection: 9006
    tool.wait_for('"event":9006')
    assert tool.finish() == 0  # no test of this run failed: none was launched
    events = [json.loads(line) for line in tool.lines if line.startswith("{")]
    assert events[0]["dev"] == 'q"\x01'
    assert events[0]["launched"] is False and "program" not in events[0]
    assert events[1]["body"].encode("latin-1") == body
    suite = ElementTree.parse(report).getroot()
    assert (suite.get("failures"), suite.get("skipped")) == ("0", "1")
    case = suite.find("testcase")
    assert case.get("name") == 'dev=q". item=7'
    assert case.find("skipped").get("message") == (
        "registered without a launch of this run; dev=q\". item=7 went offline (9006) without closing")


def test_su_prefix_passes_exit_statuses_back(vexahost, address, tmp_path):
    # Like a device's su: the command runs as its child, its status comes back.
    fake_su = script(tmp_path, "su", 'shift\n"$@"')
    exits5 = script(tmp_path, "exits5.sh", "exit 5")
    report = tmp_path / "report.xml"
    program = build_path("EXAMPLE_TEST")
    tool = vexahost("--demo", "--su-prefix", fake_su + " -c", "--junit-xml", str(report), "-a",
                    address, program, exits5)
    tool.wait_for(r"recv dev=example item=1 event=CONFIG\(9001\) len=4 pid=\d+ launched$")
    assert tool.finish() == 4, "".join(tool.lines)
    cases = {case.get("name"): case for case in ElementTree.parse(report).iter("testcase")}
    passed = cases[program + " dev=example item=1"]
    assert passed.find("failure") is None
    assert passed.findtext("system-out").endswith("program exited with status 0\n")
    assert cases[exits5].find("failure").text == "never registered; exited with status 5"


def test_timeout_kills_a_silent_test_and_the_terminal_sees_progress(c_env, address, tmp_path):
    pid_file = tmp_path / "pid"
    hangs = script(tmp_path, "hangs.sh", "echo $$ > %s\nexec sleep 60" % pid_file)
    report = tmp_path / "report.xml"
    master, slave = pty.openpty()
    tool = subprocess.Popen([build_path("VEXAHOST"), "--timeout", "1", "--junit-xml", str(report),
                             "-a", address, hangs], env=c_env, stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=slave)
    os.close(slave)
    err, end = b"", time.monotonic() + LIMIT
    # Until the tool has ended and all it wrote is read: EIO once nobody holds
    # the terminal, but a test left alive would hold it.
    while time.monotonic() < end:
        if select.select([master], [], [], 0.1)[0]:
            try:
                err += os.read(master, 4096)
            except OSError:
                break
        elif tool.poll() is not None:
            break
    os.close(master)
    assert tool.wait(LIMIT) == 4
    text = err.decode()
    assert "\r\x1b[Kvexahost: 1 launched, 0 registered, 0 closed, 0 failed" in text
    assert "vexahost: %s timed out after 1 s\r\n" % hangs in text
    assert re.search(r"vexahost: 0 passed, 1 failed in \d+\.\d\d s", text)
    failure = ElementTree.parse(report).getroot().find("testcase/failure")
    assert failure.get("message") == "timed out after 1 s; never registered"
    # The test's process was killed (and reaped by the tool's wrapper).
    stat = "/proc/%d/stat" % int(pid_file.read_text())
    end = time.monotonic() + 5
    while os.path.exists(stat) and ") Z " not in open(stat).read() and time.monotonic() < end:
        time.sleep(0.05)
    assert not os.path.exists(stat) or ") Z " in open(stat).read()

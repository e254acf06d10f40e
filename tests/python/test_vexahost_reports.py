"""vexahost --json and --junit-xml, read with real parsers."""

import json
import xml.etree.ElementTree as ElementTree

from conftest import build_path
from vexawire import Client


def test_demo_json_events_and_junit_report(vexahost, address, tmp_path):
    failing = tmp_path / "fails.sh"
    failing.write_text("#!/bin/sh\nexit 3\n")
    failing.chmod(0o755)
    report = tmp_path / "report.xml"
    program, library = build_path("EXAMPLE_TEST"), build_path("EXAMPLE_TEST_SO")
    tool = vexahost("--demo", "--json", "--junit-xml", str(report), "-a", address, program,
                    library, str(failing))
    assert tool.finish() == 0, "".join(tool.lines)

    notes = [line for line in tool.lines if line.startswith("vexahost: ")]
    events = [json.loads(line) for line in tool.lines if line not in notes]
    for dev, item in (("example", 1), ("so-test", 2)):
        mine = [(e["dir"], e["event"], e.get("body")) for e in events if e["dev"] == dev]
        assert ("recv", 2001, "ping from host") in mine
        assert ("sent", 2099, None) in mine
        assert mine[-2:] == [("recv", 2098, "bye"), ("recv", 9005, None)]
        config = next(e for e in events if e["dev"] == dev and e["event"] == 9001)
        assert (config["name"], config["item"], config["len"]) == ("CONFIG", item, 4)
        assert isinstance(config["pid"], int)

    suite = ElementTree.parse(report).getroot()
    assert (suite.tag, suite.get("tests"), suite.get("failures")) == ("testsuite", "3", "1")
    cases = {case.get("name"): case for case in suite.iter("testcase")}
    assert set(cases) == {program, library, str(failing)}
    for case in cases.values():
        assert float(case.get("time")) >= 0
    assert cases[program].find("failure") is None
    assert "dev=example item=1" in cases[program].findtext("system-out")
    assert cases[library].find("failure") is None
    failure = cases[str(failing)].find("failure").get("message")
    assert "never registered" in failure and "exited with status 3" in failure


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
    assert tool.finish() == 0
    events = [json.loads(line) for line in tool.lines if line.startswith("{")]
    assert events[0]["dev"] == 'q"\x01'
    assert events[1]["body"].encode("latin-1") == body
    case = ElementTree.parse(report).getroot().find("testcase")
    assert "went offline" in case.find("failure").get("message")
    assert case.get("name") == 'dev=q"? item=7'  # control characters have no place in XML

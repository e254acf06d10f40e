"""Shared fixtures: free loopback addresses, the environment that keeps the C
programs' logs in the test's own directory, and the tools (vexahost, the
vexawire zipapp) run as children whose output is read line by line."""

import os
import re
import socket
import subprocess
import threading
import time

import pytest

LIMIT = 30  # seconds; generous, the machines are shared


def build_path(name):
    path = os.environ.get(name)
    if not path:
        pytest.skip("%s is not set (run through ctest)" % name)
    return path


@pytest.fixture
def address():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return "tcp://:%d" % s.getsockname()[1]


@pytest.fixture
def c_env(tmp_path):
    env = dict(os.environ, VEXA_LOG_DIR=str(tmp_path / "logs") + "/",
               QZ_LOGPATH=str(tmp_path / "logs") + "/")
    env.setdefault("TZ", "UTC0")
    return env


class LineTool:
    """A program with standard output and error merged; a thread collects the
    lines in `lines`."""

    def __init__(self, argv, env):
        self.proc = subprocess.Popen(argv, env=env, text=True,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)
        self.lines, self.looked_at = [], 0
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.append(line)

    def wait_for(self, pattern):
        """The first match of `pattern` in a line not yet looked at."""
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            while self.looked_at < len(self.lines):
                self.looked_at += 1
                match = re.search(pattern, self.lines[self.looked_at - 1])
                if match:
                    return match
            time.sleep(0.02)
        raise AssertionError("no line matching %r in:\n%s" % (pattern, "".join(self.lines)))

    def type(self, text):
        self.proc.stdin.write(text)
        self.proc.stdin.flush()

    def finish(self):
        """Closes standard input and waits for the end and the last line.
        Returns the exit status."""
        self.proc.stdin.close()
        status = self.proc.wait(LIMIT)
        self.reader.join(LIMIT)
        return status

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


@pytest.fixture
def line_tool(c_env):
    started = []

    def start(*argv):
        started.append(LineTool(list(argv), c_env))
        return started[-1]

    yield start
    for tool in started:
        tool.kill()


@pytest.fixture
def vexahost(line_tool):
    return lambda *args: line_tool(build_path("VEXAHOST"), *args)

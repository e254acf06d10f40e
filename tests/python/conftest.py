"""Shared fixtures: free loopback addresses, the environment that makes the C
programs use the test copy of the library (logs in the test's own directory),
and vexahost run as a child whose output is read line by line."""

import os
import queue
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
    env = dict(os.environ, LD_LIBRARY_PATH=build_path("VEXA_TESTING_LIB_DIR"),
               VEXA_TEST_ENDPOINT_LOG_DIR=str(tmp_path / "logs") + "/",
               QZ_LOGPATH=str(tmp_path / "logs") + "/")
    env.setdefault("TZ", "UTC0")
    return env


class Vexahost:
    """vexahost with standard output and error merged and read by a thread."""

    def __init__(self, args, env):
        self.proc = subprocess.Popen([build_path("VEXAHOST")] + args, env=env, text=True,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)
        self.lines = queue.Queue()
        self.seen = []
        self.reader = threading.Thread(target=lambda: [self.lines.put(l) for l in self.proc.stdout],
                                       daemon=True)
        self.reader.start()

    def wait_for(self, pattern):
        """The first match of `pattern` in a line not yet looked at."""
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            try:
                line = self.lines.get(timeout=0.1)
            except queue.Empty:
                continue
            self.seen.append(line)
            match = re.search(pattern, line)
            if match:
                return match
        raise AssertionError("no line matching %r in:\n%s" % (pattern, "".join(self.seen)))

    def type(self, text):
        self.proc.stdin.write(text)
        self.proc.stdin.flush()

    def finish(self):
        """Closes standard input and waits for the end; every line is then in
        `seen`. Returns the exit status."""
        self.proc.stdin.close()
        status = self.proc.wait(LIMIT)
        self.reader.join(LIMIT)
        while not self.lines.empty():
            self.seen.append(self.lines.get())
        return status

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


@pytest.fixture
def vexahost(c_env):
    started = []

    def start(*args):
        started.append(Vexahost(list(args), c_env))
        return started[-1]

    yield start
    for host in started:
        host.kill()

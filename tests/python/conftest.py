"""Shared fixtures of the Python module's tests: the module itself and a
C++ process that owns a shared-memory table."""

import os
import subprocess

import pytest

import routinglib


def bin_path(name):
    return os.path.join(os.environ.get("ROUTINGLIB_BIN", ""), name)


class TableWriter:
    """PyTableWriter in a child process: one command per line, each answered
    once its change is published."""

    def __init__(self, name):
        self.name = name
        self.proc = subprocess.Popen([bin_path("PyTableWriter"), name], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, text=True, bufsize=1)
        assert self.proc.stdout.readline().strip() == "ready"

    def cmd(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        answer = self.proc.stdout.readline().strip()
        assert answer == "ok", answer

    def close(self):
        if self.proc.poll() is None:
            self.cmd("quit")
            self.proc.wait(timeout=60)


@pytest.fixture
def table_name(request):
    name = "pytest%d%s" % (os.getpid(), request.node.name.replace("_", "")[:40])
    yield name
    try:
        os.unlink("/dev/shm/memtab." + name)
    except FileNotFoundError:
        pass


@pytest.fixture
def table_writer(table_name):
    writers = []

    def start():
        w = TableWriter(table_name)
        writers.append(w)
        return w

    yield start
    for w in writers:
        w.close()


@pytest.fixture
def rl():
    return routinglib

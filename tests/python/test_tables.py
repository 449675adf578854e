"""A shared-memory table written by a C++ process and read from Python, with
notifications through selectors."""

import selectors
import time

import pytest

import routinglib as rl

ERROR = "Memtab::KernelUnprogrammedRoute::Error"


class Watcher:
    """Collects a reader's notifications, waiting on its descriptor."""

    def __init__(self, reader):
        self.reader = reader
        self.keys = []
        self.tables = 0
        self.statuses = []
        self.sel = selectors.DefaultSelector()
        self.sel.register(reader, selectors.EVENT_READ)

    def process(self):
        self.reader.process_notifications(self.keys.append, self.on_table, self.statuses.append)

    def on_table(self):
        self.tables += 1

    def wait(self, done):
        deadline = time.monotonic() + 60  # only catches a hang
        while not done():
            left = deadline - time.monotonic()
            assert left > 0, "no notification came"
            if self.sel.select(timeout=left):
                self.process()


def codes(reader):
    return {repr(v.key): v.errorCode for v in reader}


def test_lookup_iteration_and_notifications(table_writer, table_name):
    w = table_writer()
    w.cmd("set 10.0.0.0/8 red 7")
    w.cmd("set 10.1.0.0/16 blue 8")
    r = rl.TableReader(table_name)
    assert (r.name, r.value_type.name) == (table_name, ERROR)
    assert r.key_type.name == "Memtab::KernelUnprogrammedRoute::ErrorKey"
    assert isinstance(r.fileno(), int) and r.fileno() >= 0
    assert len(r) == 2
    values = list(r)
    assert sorted(v.errorCode for v in values) == [7, 8]
    key = next(v.key for v in values if v.errorCode == 7)
    assert r.lookup(key).errorCode == 7 and r[key] == r.lookup(key) and key in r

    watch = Watcher(r)
    watch.wait(lambda: watch.tables == 1)  # the first mapping stands for every key
    assert watch.statuses and watch.statuses[-1] != "unmounted"

    w.cmd("set 10.0.0.0/8 red 9")
    watch.wait(lambda: watch.keys)
    assert watch.keys == [key]
    assert r.lookup(key).errorCode == 9

    w.cmd("del 10.0.0.0/8 red")
    watch.keys.clear()
    watch.wait(lambda: watch.keys)
    assert watch.keys == [key] and r.lookup(key) is None and key not in r
    with pytest.raises(KeyError):
        r[key]
    assert r.get(key, "absent") == "absent"

    replayed = []
    r.replay(replayed.append)
    assert [str(k) for k in replayed] == [repr(v.key) for v in r]


def test_a_reader_named_before_its_table_mounts_it(table_writer, table_name):
    r = rl.TableReader(table_name, value_type=ERROR)
    assert r.mount_status == "unmounted" and len(r) == 0
    watch = Watcher(r)
    w = table_writer()
    w.cmd("fill 100")
    watch.wait(lambda: r.mount_status != "unmounted" and len(r) == 100)
    assert len(codes(r)) == 100


def test_a_callback_error_reaches_the_caller_after_the_rest_are_delivered(table_writer, table_name):
    w = table_writer()
    r = rl.TableReader(table_name)
    r.process_notifications(None)
    w.cmd("set 10.0.0.0/8 red 1")
    w.cmd("set 10.0.0.1/32 red 2")
    got = []

    def on_key(k):
        got.append(k)
        raise RuntimeError("boom")

    sel = selectors.DefaultSelector()
    sel.register(r, selectors.EVENT_READ)
    assert sel.select(timeout=60)
    with pytest.raises(RuntimeError, match="boom"):
        r.process_notifications(on_key)
    assert len(got) == 2


def test_tables_refuse_what_they_cannot_open(table_writer, table_name):
    with pytest.raises(ValueError):
        rl.TableReader(table_name)  # no such table, no type to wait for
    with pytest.raises(NotImplementedError):
        rl.TableReader(table_name, value_type="Routing::MetricPref")
    with pytest.raises(ValueError):
        rl.TableReader("bad/name")
    w = table_writer()
    with pytest.raises(ValueError):
        rl.TableReader(table_name, value_type="Memtab::KernelUnprogrammedRoute::Error6")
    r = rl.TableReader(table_name)
    with pytest.raises(ValueError):
        r.lookup("10.0.0.0/8")  # the key type has no text form
    r.close()
    with pytest.raises(ValueError):
        len(r)


def test_iterators_and_callbacks_outlive_close(table_writer, table_name):
    w = table_writer()
    w.cmd("fill 10")
    r = rl.TableReader(table_name)
    it = iter(r)
    first = next(it)
    r.close()
    assert len([first] + list(it)) == 10
    r2 = rl.TableReader(table_name)
    r2.process_notifications(lambda k: r2.close(), lambda: r2.close())
    with pytest.raises(ValueError):
        r2.fileno()

#!/usr/bin/env python3
"""Table lookups per second from Python through the routinglib module,
against the same lookups from C++ (TableLookupPeerBench) and against a
Python dict of the same values.

A PyTableWriter process writes N unprogrammed-route errors (10.x.y.z/32 in
VRF "default"); this process opens the table by name and looks every key up
in key order, round after round, for about a second, three times, keeping
the best rate. The dict holds the same values under the keys' text forms
(a plain str key, the cheapest a script could hold them by).

    bench/python_table_lookups.py [--build build/default]

N is 10000, as in TableLookupPeerBench.
"""

import argparse
import json
import os
import subprocess
import sys
import time

ENTRIES = 10000  # TableLookupPeerBench's argument


def best_rate(fn, keys, rounds=3, seconds=1.0):
    best = 0.0
    for _ in range(rounds):
        n = 0
        start = time.perf_counter()
        while True:
            for k in keys:
                fn(k)
            n += len(keys)
            elapsed = time.perf_counter() - start
            if elapsed >= seconds:
                break
        best = max(best, n / elapsed)
    return best


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default=os.path.join(root, "build", "default"))
    args = p.parse_args()
    args.entries = ENTRIES
    sys.path.insert(0, os.path.join(args.build, "python"))
    import routinglib

    name = "pybench%d" % os.getpid()
    writer = subprocess.Popen([os.path.join(args.build, "bin", "PyTableWriter"), name],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert writer.stdout.readline().strip() == "ready"
        writer.stdin.write("fill %d\n" % args.entries)
        writer.stdin.flush()
        assert writer.stdout.readline().strip() == "ok"

        reader = routinglib.TableReader(name)
        values = list(reader)
        assert len(values) == args.entries
        keys = [v.key for v in values]
        by_text = {repr(v.key): v for v in values}
        text_keys = list(by_text)

        module = best_rate(reader.lookup, keys)
        plain = best_rate(by_text.__getitem__, text_keys)
    finally:
        writer.stdin.write("quit\n")
        writer.stdin.flush()
        writer.wait()
        try:
            os.unlink("/dev/shm/memtab." + name)
        except FileNotFoundError:
            pass

    out = subprocess.run([os.path.join(args.build, "bin", "TableLookupPeerBench"),
                          "--benchmark_format=json"], check=True, capture_output=True,
                         text=True).stdout
    peer = {b["name"].split("/")[0]: b["items_per_second"] for b in json.loads(out)["benchmarks"]}
    cpp = peer["ReaderLookup"]
    generic = peer["GenericLookup"]

    print("table of %d errors, lookups of every key in key order (best of 3 x ~1 s)" % args.entries)
    rows = [("C++ Memtab::Reader::lookup", cpp),
            ("C++ generic reader (reflected key/value)", generic),
            ("Python routinglib.TableReader.lookup", module),
            ("Python dict[str] of the same values", plain)]
    for label, rate in rows:
        print("  %-42s %12.0f lookups/s" % (label, rate))
    print("ratios: C++ / module %.1f, generic C++ / module %.1f, dict / module %.1f"
          % (cpp / module, generic / module, plain / module))


if __name__ == "__main__":
    main()

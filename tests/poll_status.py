#!/usr/bin/env python3
"""Reads a status file as fast as it can until STOP_FILE appears, parsing each
read with a strict JSON parser, and prints the counts as one JSON line.

Usage: poll_status.py STATUS_FILE STOP_FILE [READS DISTINCT]
With READS and DISTINCT it also stops by itself once it has made that many
reads and seen that many different records.
A read is good when it parses to an object with the 20 members; partial when
it does not parse or is incomplete; missing when the file is not there, and
missing_after when that happens after a good read.
"""
import json
import os
import sys


def reject(constant):
    raise ValueError(constant)


def main():
    path, stop = sys.argv[1], sys.argv[2]
    want_reads = int(sys.argv[3]) if len(sys.argv) > 3 else None
    want_distinct = int(sys.argv[4]) if len(sys.argv) > 4 else None
    counts = {"reads": 0, "good": 0, "partial": 0, "missing": 0, "missing_after": 0, "distinct": 0}
    last = None
    while not os.path.exists(stop):
        if want_reads is not None and counts["reads"] >= want_reads and counts["distinct"] >= want_distinct:
            break
        try:
            with open(path, "rb") as f:
                data = f.read()
        except FileNotFoundError:
            counts["reads"] += 1
            counts["missing"] += 1
            counts["missing_after"] += counts["good"] > 0
            continue
        counts["reads"] += 1
        try:
            record = json.loads(data, parse_constant=reject)
            if not isinstance(record, dict) or len(record) != 20:
                raise ValueError("incomplete")
            counts["good"] += 1
            if data != last:
                counts["distinct"] += 1
                last = data
        except ValueError:
            counts["partial"] += 1
    print(json.dumps(counts))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Reliability tests of zelipsconfig's configuration files, on the real
program and real processes:

  crash       a modifying run killed with SIGKILL at random moments; after
              each kill the configuration is the old or the new one, whole,
              and the next runs repair and write it (crash_injection.py)
  concurrent  eight writers changing their own keys at the same time, with
              readers beside them (concurrent_writers.py)
  failures    writes that fail: a file size limit, an unwritable folder, an
              unusable lock file (write_failures.py)

The program must be a test build (the preset "linux"): crash injection
relies on its ZELIPS_TEST_REPLACE_DELAY_MS pause. Unix only: the tests use
SIGKILL, RLIMIT_FSIZE and POSIX record locks.

Usage: run.py --exe build/linux/bin/zelipsconfig [--ci] [--only PART[,PART]]
              [--kills N] [--seconds S] [--writers N] [--changes N] [--seed N]
  --ci       the short run for continuous integration: 200 kills in at most
             60 s instead of 1000 in at most 180 s; the rest as in a full run
             (8 writers of 100 changes, every write failure). About 70 s.
Prints its counts and ends with "N passed, N failed"; exits 1 when a check
failed.
"""
import argparse
import os
import sys
import time

sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from common import Tally  # noqa: E402
from concurrent_writers import ConcurrentWriters  # noqa: E402
from crash_injection import CrashInjection  # noqa: E402
from write_failures import WriteFailures  # noqa: E402

PARTS = ("crash", "concurrent", "failures")


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--exe", required=True, help="the zelipsconfig program of a test build")
    ap.add_argument("--ci", action="store_true", help="the short run for continuous integration")
    ap.add_argument("--only", default=",".join(PARTS), help="parts to run: " + ", ".join(PARTS))
    ap.add_argument("--kills", type=int, help="crash injection: kills to make (default 1000, CI 200)")
    ap.add_argument("--seconds", type=float, help="crash injection: time bound (default 180, CI 60)")
    ap.add_argument("--delay-ms", type=int, default=12, help="pause before each rename in killed runs")
    ap.add_argument("--writers", type=int, default=8, help="concurrent writers (at most 8)")
    ap.add_argument("--changes", type=int, help="changes per writer (default 100)")
    ap.add_argument("--seed", type=int, help="random seed of the kill moments (default: from the clock)")
    args = ap.parse_args()

    exe = os.path.abspath(args.exe)
    if not os.access(exe, os.X_OK):
        print(f"run.py: {args.exe} is not an executable program", file=sys.stderr)
        return 2
    parts = [p for p in args.only.split(",") if p]
    for p in parts:
        if p not in PARTS:
            print(f"run.py: unknown part {p!r} ({', '.join(PARTS)})", file=sys.stderr)
            return 2
    kills = args.kills or (200 if args.ci else 1000)
    seconds = args.seconds or (60 if args.ci else 180)
    changes = args.changes or 100
    seed = args.seed if args.seed is not None else int(time.time())

    tally = Tally()
    timings = []
    for part in parts:
        print(f"\n==== {part} ====", flush=True)
        if part == "crash":
            took = CrashInjection(exe, tally, kills, seconds, args.delay_ms, seed).run()
        elif part == "concurrent":
            took = ConcurrentWriters(exe, tally, min(args.writers, 8), changes).run()
        else:
            took = WriteFailures(exe, tally).run()
        timings.append(f"{part} {took:.0f} s")
    print("\n" + ", ".join(timings))
    print(f"{tally.passed} passed, {tally.failed} failed")
    return 1 if tally.failed else 0


if __name__ == "__main__":
    sys.exit(main())

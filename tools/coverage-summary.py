#!/usr/bin/env python3
"""Line and branch coverage of each subsystem, from the counters an instrumented build left.

Usage: tools/coverage-summary.py BUILD_DIR
Tests, benchmarks and generated code are left out: only the subsystems' own sources count.
"""
import collections
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SUBSYSTEMS = ("log", "value", "thread", "module", "broker", "network", "memory", "proxies",
              "behavior", "python", "brokerprogram")


def prune_stale_notes(build):
    """Drops the coverage notes of objects whose sources are gone: gcovr cannot read them."""
    if (build / "build.ninja").exists():
        subprocess.run(["ninja", "-C", str(build), "-t", "cleandead"], check=True,
                       capture_output=True)
    for notes in build.rglob("*.gcno"):
        if not notes.with_suffix(".o").exists():
            notes.unlink()
            notes.with_suffix(".gcda").unlink(missing_ok=True)


def file_summaries(build):
    own = "^(" + "|".join(SUBSYSTEMS) + ")/"
    command = ["gcovr", "--root", str(ROOT), "--object-directory", str(build),
               "--filter", own, "--exclude", r".*/tests/.*", "--exclude", r"^bench/",
               "--gcov-ignore-parse-errors", "--json-summary", "-"]
    # gcovr also fails on counters that objects of deleted sources left in the build; what
    # it read of the rest is still right.
    result = subprocess.run(command, capture_output=True, text=True)
    try:
        return json.loads(result.stdout)["files"]
    except (json.JSONDecodeError, KeyError):
        sys.exit("gcovr failed:\n" + result.stderr)


def percent(covered, total):
    return f"{100.0 * covered / total:5.1f}%" if total else "    -"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1]).resolve()
    prune_stale_notes(build)
    totals = collections.defaultdict(lambda: [0, 0, 0, 0])
    for entry in file_summaries(build):
        row = totals[entry["filename"].split("/", 1)[0]]
        for i, key in enumerate(("line_covered", "line_total", "branch_covered", "branch_total")):
            row[i] += entry[key]
    print(f"{'subsystem':<14}{'lines':>16}{'':>8}{'branches':>16}")
    everything = [0, 0, 0, 0]
    for name in SUBSYSTEMS:
        row = totals.get(name)
        if not row:
            continue
        everything = [a + b for a, b in zip(everything, row)]
        print(f"{name:<14}{row[0]:>7}/{row[1]:<7}{percent(row[0], row[1])}"
              f"{row[2]:>9}/{row[3]:<7}{percent(row[2], row[3])}")
    print(f"{'all':<14}{everything[0]:>7}/{everything[1]:<7}{percent(everything[0], everything[1])}"
          f"{everything[2]:>9}/{everything[3]:<7}{percent(everything[2], everything[3])}")


if __name__ == "__main__":
    main()

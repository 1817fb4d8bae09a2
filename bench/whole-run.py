#!/usr/bin/env python3
"""Measures a whole run on the demo machine: whole-run.py PREFIX PROGRAM FOLDER ROUNDS

Prints one table: the wall time, the part of it that the rows which run commands took, and the rest, which has a limit:
the exit status is 1 when it is broken.
"""
import json
import pathlib
import shutil
import statistics
import sys
import time
import zipfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "demo"))

import limits  # noqa: E402
import machine  # noqa: E402


def run(demo, program, folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    start = time.monotonic()
    done = demo.run(program, "agent", "collect-diagnostics", cwd=folder)
    wall = time.monotonic() - start
    if done.returncode != 0:
        sys.exit(f"the run failed: {done.stdout.decode(errors='replace')}")
    with zipfile.ZipFile(folder / "diagnostics.zip") as archive:
        rows = json.loads(archive.read("manifest.json"))["diagnostics"]
        size = sum(entry.file_size for entry in archive.infolist())
    children = sum(row.get("durationMs", 0) for row in rows
                   if row["type"] == "DIAGNOSTIC_TYPE_SAMPLE_ALL" and not row["name"].startswith("HKLM")) / 1000
    return wall, children, wall - children, len(rows), size


def main():
    demo = machine.Machine(sys.argv[1])
    demo.boot()
    runs = [run(demo, sys.argv[2], pathlib.Path(sys.argv[3])) for _ in range(int(sys.argv[4]))]
    wall, children, rest, rows, size = (statistics.median(values) for values in zip(*runs))
    print("| whole run on the demo machine | wall s | rows that run commands s | the rest s |")
    print("|---|---:|---:|---:|")
    print(f"| {rows} rows, {size / (1 << 20):.1f} MB collected | {wall:.2f} | {children:.2f} | {rest:.2f} |")
    print(f"\nThe wall time includes the start of the program under Wine. Medians of {len(runs)} rounds.")
    report = limits.Report()
    report.check("whole run without its commands, s", rest, 0.5)
    sys.exit(report.finish())


main()

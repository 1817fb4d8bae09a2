"""Prints what a support engineer asks first of a diagnostics archive: summary.py ZIP [DRIVE]

DRIVE is the folder of the machine's drive C. With it the refused paths that are folders are told from links.
"""

import collections
import datetime
import json
import pathlib
import re
import sys
import zipfile


def moment(text):
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))


def head(run, rows):
    yield "machine", f"{run.get('computerName')}, Windows {run.get('windowsVersion')}, as {run.get('user')}, " \
                     f"{'' if run.get('elevated') else 'not '}elevated"
    yield "program", f"AgentCLI {run.get('programVersion')}: {run.get('commandLine')}"
    offset = run.get("utcOffsetMinutes", 0)
    yield "began", f"{run['beganAt']}, {abs(offset)} minutes {'behind' if offset < 0 else 'ahead of'} UTC there " \
                   f"({run.get('timeZone')})"
    ends = [moment(row["startedAt"]) + datetime.timedelta(milliseconds=row.get("durationMs", 0))
            for row in rows if "startedAt" in row]
    yield "took", f"{(max(ends, default=moment(run['beganAt'])) - moment(run['beganAt'])).total_seconds():.1f} s"
    yield "ended", "interrupted" if run.get("interrupted") else "complete"
    yield "dumps", f"{sum(len(row.get('files', [])) for row in rows if 'CRASH' in row['type'])} files"


def kind_of(message, drive):
    """What is at the path of a message that refuses it as no regular file, in parentheses; empty where unknown."""
    refused = re.match(r"The file 'C:\\(.*)' is not a regular file\.$", message)
    path = drive / refused[1].replace("\\", "/") if refused and drive else None
    if path is None or not (path.is_symlink() or path.exists()):
        return ""
    return " (a link)" if path.is_symlink() else " (a folder)" if path.is_dir() else " (a hard link)"


def print_rows(rows, drive):
    print("\nrows per type:")
    for kind, total in collections.Counter(row["type"] for row in rows).items():
        good = sum(bool(row.get("success")) for row in rows if row["type"] == kind)
        print(f"  {kind:36} {total:3} rows, {good:3} succeeded")
    print("\nexit codes other than 0:")
    for row in rows:
        if code := row.get("rawProcessExitCode"):
            print(f"  {code:10}  {row['name']}")
    print("\nwhat could not be had:")
    for row in rows:
        errors = row.get("errors", [])
        if errors or not row.get("success"):
            print(f"  {row['name']}, from {row.get('origin', 'nowhere')}")
            for line in errors or ["(nothing there to collect)"]:
                print(f"      {line.splitlines()[0]}{kind_of(line, drive)}")


def main():
    path, drive = sys.argv[1], pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else None
    with zipfile.ZipFile(path) as archive:
        files = [entry for entry in archive.infolist() if not entry.is_dir()]
        manifest = json.loads(archive.read("manifest.json")) if "manifest.json" in archive.namelist() else None
    print()
    if manifest:
        rows = manifest["diagnostics"]
        for name, text in head(manifest["run"], rows):
            print(f"{name:9}{text}")
        print_rows(rows, drive)
    else:
        print("no manifest.json: the run did not reach its end")
    print(f"\n{len(files)} files, {sum(entry.file_size for entry in files) / 1e6:.1f} MB, in {path}")


if __name__ == "__main__":
    main()

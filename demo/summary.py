"""Prints a short summary of a diagnostics archive from its manifest: summary.py ZIP"""

import collections
import json
import sys
import zipfile


def main():
    path = sys.argv[1]
    with zipfile.ZipFile(path) as archive:
        rows = json.loads(archive.read("manifest.json"))["diagnostics"]
        files = [entry for entry in archive.infolist() if not entry.is_dir()]
    counts = collections.OrderedDict()
    for row in rows:
        total, good = counts.get(row["type"], (0, 0))
        counts[row["type"]] = (total + 1, good + bool(row.get("success")))
    print("\nrows per type:")
    for kind, (total, good) in counts.items():
        print(f"  {kind:36} {total:3} rows, {good:3} succeeded")
    print("\nwhat could not be had:")
    for row in rows:
        errors = row.get("errors", [])
        if errors or not row.get("success"):
            print(f"  {row['archivePath']}: {row['name']}")
            for line in errors or ["(nothing there to collect)"]:
                print(f"      {line.splitlines()[0]}")
    size = sum(entry.file_size for entry in files)
    print(f"\n{len(files)} files, {size / 1e6:.1f} MB, in {path}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Measures how fast files get into a zip: archives.py FOLDER ROUNDS WINDOWS_PROGRAM

Makes the data sets in FOLDER (always the same ones), runs every tool on each of them in every round, the tools in
turn, and prints the medians as one table, then the limits and whether they are kept. The exit status is 1 when one is
not. Wine must be set up in the environment.
"""
import os
import shutil
import sys

sys.dont_write_bytecode = True

from measure import ARCHIVE, HEAD, KB, MB, OURS, ZIP, Limits, compare, make_set  # noqa: E402

ONCE, REOPENED, SEVEN = "libzip, closed once", "libzip, re-opened", "7z -mx=5, all cores"
#       title                            logs  size      dumps  user / zip, to disk / archive: at most
SETS = [("(a) 100 logs of 200 kB",        100, 200 * KB,  0,    None, 1.5),
        ("(a) 400 logs of 200 kB",        400, 200 * KB,  0,    1.00, 1.5),
        ("(b) 30 logs of 10 MB",           30, 10 * MB,   0,    0.90, 1.05),
        ("(c) 10 dumps of 20 MB, 150 logs", 150, 200 * KB, 10,  1.10, 1.05)]


def main():
    folder, rounds, program = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    place = os.path.join(folder, "set")
    ours = {OURS: ["wine", program, "wrapper", ARCHIVE, "list.txt"]}
    tools = {**ours,
             ONCE: ["wine", program, "once", ARCHIVE, "list.txt"],
             ZIP: ["sh", "-c", f"zip -6 -q {ARCHIVE} -@ <list.txt"],
             SEVEN: ["7z", "a", "-tzip", "-mx=5", "-bso0", "-bsp0", ARCHIVE, "@list.txt"]}
    limits = Limits()
    print(HEAD)
    user = {}
    for title, logs, log_size, dumps, user_limit, disk_limit in SETS:
        names = make_set(place, logs, log_size, dumps)
        extra = {REOPENED: ["wine", program, "reopened", ARCHIVE, "list.txt"]} if logs == 100 else {}
        results = compare({**tools, **extra}, place, names, rounds, [SEVEN, REOPENED])
        for tool, result in results.items():
            print(result.row(title, tool, results[ZIP]), flush=True)
        own, zip6 = results[OURS], results[ZIP]
        user[logs] = own.user
        if user_limit:
            limits.check("%s: user CPU / zip -6" % title, own.user_against(zip6), user_limit)
        limits.check("%s: archive / zip -6" % title, own.size / zip6.size, 1.03)
        limits.check("%s: to disk / archive" % title, own.on_disk / own.size, disk_limit)
        limits.check("%s: peak MB" % title, own.peak / MB, 64)
    limits.check("(a) user CPU for 400 logs / for 100 logs", user[400] / user[100], 4.8)
    print("\nTo disk: write_bytes - cancelled_write_bytes of /proc/PID/io (pages made dirty, less those cut off before "
          "they were written out). Medians of %d rounds; 7z and the re-opened archive run once. Time and memory are "
          "those of the process (memory from 10 MB up); Wine's server process is not in them.\n" % rounds)

    start = compare(ours, place, make_set(place, 1, KB, 0), rounds)[OURS].wall
    print("| files of 1 kB | ms per add |")
    print("|---:|---:|")
    for count in (250, 500, 1000):
        result = compare(ours, place, make_set(place, count, KB, 0), rounds)[OURS]
        print("| %d | %.2f |" % (count, (result.wall - start) / count * 1000), flush=True)
    shutil.rmtree(place)
    sys.exit(limits.finish())


main()

#!/usr/bin/env python3
"""Measures how fast files get into a zip: compare-archivers.py FOLDER ROUNDS WINDOWS_PROGRAM

Makes the data sets in FOLDER (always the same ones), runs every tool on each of them in every round, the tools in
turn, and prints the medians as one table, then the limits and whether they are kept. The exit status is 1 when one is
not. Wine must be set up in the environment.
"""
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import zipfile

sys.dont_write_bytecode = True

import limits  # noqa: E402

KB, MB = 1 << 10, 1 << 20


def log_text(rng, size):
    """Log lines of a service: they repeat themselves, and deflate to about a fifth."""
    words = ["connect", "tunnel", "policy", "profile", "adapter", "session", "refresh", "timeout", "gateway", "probe"]
    lines, total = [], 0
    while total < size:
        line = "2024-05-%02d %02d:%02d:%02d.%03d [%d] %s %s %s id=%08x latency=%d ms result=%d\n" % (
            rng.randint(1, 28), rng.randint(0, 23), rng.randint(0, 59), rng.randint(0, 59), rng.randint(0, 999),
            rng.randint(1000, 9999), rng.choice(["INFO", "WARN", "DEBUG"]), rng.choice(words), rng.choice(words),
            rng.getrandbits(32), rng.randint(1, 500), rng.choice([0, 0, 0, 5, 1460]))
        lines.append(line)
        total += len(line)
    return "".join(lines).encode()[:size]


def dump(rng, size):
    """Memory of a process: mostly hard to deflate, with pages of zeros."""
    page = 4 * KB
    return b"".join(bytes(page) if rng.random() < 0.14 else rng.randbytes(page) for _ in range(size // page))


def make_set(folder, logs, log_size, dumps):
    """Writes the files and the list of their names."""
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    rng = random.Random(20240501)
    text = log_text(rng, max(log_size, 2 * MB)) * 2
    names = []
    for number in range(logs):
        start = rng.randrange(len(text) // 2)
        names.append("service-%04d.log" % number)
        with open(os.path.join(folder, names[-1]), "wb") as file:
            file.write(text[start:start + log_size])
        if dumps and number % (logs // dumps) == 0:
            names.append("crash-%03d.dmp" % number)
            with open(os.path.join(folder, names[-1]), "wb") as file:
                file.write(dump(rng, 20 * MB))
    with open(os.path.join(folder, "list.txt"), "w", newline="\n") as file:
        file.write("\n".join(names) + "\n")
    os.sync()


def make_set_apart(folder, *what):
    """As make_set, in a child process: the memory of the process that starts a tool counts as the tool's peak."""
    child = os.fork()
    if child == 0:
        make_set(folder, *what)
        os._exit(0)
    if os.waitpid(child, 0)[1] != 0:
        sys.exit("cannot make the data set in %s" % folder)
    with open(os.path.join(folder, "list.txt")) as file:
        return file.read().split()


def io_counters():
    with open("/proc/self/io") as file:
        return {key: int(value) for key, value in (line.split(": ") for line in file)}


def measured(command, folder):
    """Runs the command from a child process, so that the usage of children is that of this command alone."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        import resource
        import time
        start = time.monotonic()
        status = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL).returncode
        wall = time.monotonic() - start
        usage = resource.getrusage(resource.RUSAGE_CHILDREN)
        io = io_counters()
        on_disk = io["write_bytes"] - io["cancelled_write_bytes"]
        os.write(writing, json.dumps([status, wall, usage.ru_utime, on_disk, usage.ru_maxrss * KB]).encode())
        os._exit(0)
    os.close(writing)
    with os.fdopen(reading) as file:
        result = json.load(file)
    os.waitpid(child, 0)
    if result[0] != 0:
        sys.exit("failed: %s" % " ".join(command))
    return result[1:]


class Result:
    """The medians of one tool on one data set."""

    def __init__(self, runs, size):
        self.wall, self.user, self.on_disk, self.peak = (statistics.median(values) for values in zip(*runs))
        self.size = size


def compare(tools, place, names, rounds):
    """Runs the tools on the set in turn; the result of each."""
    archive = os.path.join(place, "out.zip")
    runs = {tool: [] for tool in tools}
    sizes = {}
    for _ in range(rounds):
        for tool, command in tools.items():
            if os.path.exists(archive):
                os.remove(archive)
            os.sync()
            runs[tool].append(measured(command, place))
            sizes[tool] = os.path.getsize(archive)
            with zipfile.ZipFile(archive) as made:
                if len([name for name in made.namelist() if not name.endswith("/")]) != len(names):
                    sys.exit("%s left out files" % tool)
    return {tool: Result(runs[tool], sizes[tool]) for tool in tools}


OURS, ONCE, REOPENED, ZIP, SEVEN = "AgentCLI's archive", "libzip, closed once", "libzip, re-opened", "zip -6", "7z -mx=5, all cores"
#       title                            logs  size      dumps  wall / zip, at most  bytes to disk / archive, at most
SETS = [("(a) 100 logs of 200 kB",        100, 200 * KB,  0,    None,                1.5),
        ("(a) 400 logs of 200 kB",        400, 200 * KB,  0,    1.15,                1.5),
        ("(b) 30 logs of 10 MB",           30, 10 * MB,   0,    0.95,                1.05),
        ("(c) 10 dumps of 20 MB, 150 logs", 150, 200 * KB, 10,  1.05,                1.05)]


def main():
    folder, rounds, program = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    place = os.path.join(folder, "set")
    own = {OURS: ["wine", program, "wrapper", "out.zip", "list.txt"]}
    tools = {**own,
             ONCE: ["wine", program, "once", "out.zip", "list.txt"],
             ZIP: ["sh", "-c", "zip -6 -q out.zip -@ <list.txt"],
             SEVEN: ["7z", "a", "-tzip", "-mx=5", "-bso0", "-bsp0", "out.zip", "@list.txt"]}
    report = limits.Report()
    print("| data set | tool | wall s | user s | to disk MB | peak MB | zip MB | wall / zip -6 |")
    print("|---|---|---:|---:|---:|---:|---:|---:|")
    walls = {}
    for title, logs, log_size, dumps, wall_limit, disk_limit in SETS:
        names = make_set_apart(place, logs, log_size, dumps)
        extra = {REOPENED: ["wine", program, "reopened", "out.zip", "list.txt"]} if logs == 100 else {}
        results = compare({**tools, **extra}, place, names, rounds)
        for tool, result in results.items():
            print("| %s | %s | %.2f | %.2f | %.1f | %.0f | %.1f | %.2f |" % (
                title, tool, result.wall, result.user, result.on_disk / MB, result.peak / MB, result.size / MB,
                result.wall / results[ZIP].wall), flush=True)
        ours, zip6 = results[OURS], results[ZIP]
        walls[logs] = ours.wall
        if wall_limit:
            report.check("%s: time / zip -6" % title, ours.wall / zip6.wall, wall_limit)
        report.check("%s: archive / zip -6" % title, ours.size / zip6.size, 1.03)
        report.check("%s: to disk / archive" % title, ours.on_disk / ours.size, disk_limit)
        report.check("%s: peak MB" % title, ours.peak / MB, 64)
    report.check("(a) T(400 logs) / T(100 logs)", walls[400] / walls[100], 4.8)
    print("\nTo disk: write_bytes - cancelled_write_bytes of /proc/PID/io (pages made dirty, less those cut off before "
          "they were written out). Medians of %d rounds. Time and memory are those of the process (memory from 10 MB "
          "up); Wine's server process is not in them.\n" % rounds)

    start = compare(own, place, make_set_apart(place, 1, KB, 0), rounds)[OURS].wall
    print("| files of 1 kB | ms per add |")
    print("|---:|---:|")
    for count in (250, 500, 1000):
        result = compare(own, place, make_set_apart(place, count, KB, 0), rounds)[OURS]
        print("| %d | %.2f |" % (count, (result.wall - start) / count * 1000), flush=True)
    shutil.rmtree(place)
    sys.exit(report.finish())


main()

#!/usr/bin/env python3
"""Measures how fast files get into a zip: compare-archivers.py FOLDER ROUNDS WINDOWS_PROGRAM

Makes the data sets in FOLDER (always the same ones), runs every tool on each of them in every round, the tools in
turn, and prints the medians as one table. Wine must be set up in the environment.
"""
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import zipfile

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
        names.append("service-%03d.log" % number)
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
    """As make_set, in a process of its own: what a tool is started from counts as its peak memory."""
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
    """Runs in a process of its own, to which the system then adds up what the command and its children did."""
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
        os.write(writing, json.dumps([status, wall, usage.ru_utime, on_disk, io["wchar"], usage.ru_maxrss * KB]).encode())
        os._exit(0)
    os.close(writing)
    with os.fdopen(reading) as file:
        result = json.load(file)
    os.waitpid(child, 0)
    if result[0] != 0:
        sys.exit("failed: %s" % " ".join(command))
    return result[1:]


def main():
    folder, rounds, program = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    sets = [("(a) %d logs of 200 kB" % count, count, 200 * KB, 0) for count in (50, 100, 200, 400)]
    sets += [("(b) 60 logs of 10 MB", 60, 10 * MB, 0), ("(c) 20 dumps of 20 MB, 300 logs", 300, 200 * KB, 20)]
    tools = [
        ("AgentCLI's archive", ["wine", program, "wrapper", "out.zip", "list.txt"]),
        ("libzip, closed once", ["wine", program, "once", "out.zip", "list.txt"]),
        ("libzip, re-opened", ["wine", program, "reopened", "out.zip", "list.txt"]),
        ("zip -6", ["sh", "-c", "zip -6 -q out.zip -@ <list.txt"]),
        ("7z -mx=5", ["7z", "a", "-tzip", "-mx=5", "-mmt=1", "-bso0", "-bsp0", "out.zip", "@list.txt"]),
    ]
    print("| data set | tool | wall s | user s | to disk MB | by calls MB | peak MB | zip MB | wall / zip -6 |")
    print("|---|---|---:|---:|---:|---:|---:|---:|---:|")
    wall = {}
    for title, logs, log_size, dumps in sets:
        place = os.path.join(folder, "set")
        names = make_set_apart(place, logs, log_size, dumps)
        archive = os.path.join(place, "out.zip")
        results = {tool: [] for tool, _ in tools}
        sizes = {}
        for _ in range(rounds):
            for tool, command in tools:
                if os.path.exists(archive):
                    os.remove(archive)
                os.sync()
                results[tool].append(measured(command, place))
                sizes[tool] = os.path.getsize(archive)
                with zipfile.ZipFile(archive) as made:
                    if len([name for name in made.namelist() if not name.endswith("/")]) != len(names):
                        sys.exit("%s left out files" % tool)
        medians = {tool: [statistics.median(values) for values in zip(*runs)] for tool, runs in results.items()}
        for tool, _ in tools:
            seconds, user, on_disk, by_calls, peak = medians[tool]
            wall[title, tool] = seconds
            print("| %s | %s | %.2f | %.2f | %.1f | %.1f | %.0f | %.1f | %.2f |" % (
                title, tool, seconds, user, on_disk / MB, by_calls / MB, peak / MB, sizes[tool] / MB,
                seconds / medians["zip -6"][0]), flush=True)
        shutil.rmtree(place)
    own = [wall["(a) %d logs of 200 kB" % count, tools[0][0]] for count in (100, 400)]
    print("\n%s: T(400 logs) / T(100 logs) = %.2f" % (tools[0][0], own[1] / own[0]))
    print("to disk: write_bytes - cancelled_write_bytes of /proc/PID/io (pages made dirty, less those cut off before "
          "they were written out); by calls: wchar, the bytes handed to write calls. Medians of %d rounds. Time and "
          "memory are those of the process (memory from 10 MB up); Wine's server process is not in them." % rounds)


main()

"""What the benchmarks share: the data sets, the measuring of a command, the limits.

A limit is a figure that holds on a busy machine as well. User CPU is compared with that of another run in the same
round, so that both meet the same load. Wall time is only printed, but for one ratio of two runs that take turns.
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
ARCHIVE = "diagnostics.zip"
OURS, ZIP = "AgentCLI", "zip -6"


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


def write_set(folder, logs, log_size, dumps):
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
        if number * dumps % logs < dumps:
            names.append("crash-%03d.dmp" % number)
            with open(os.path.join(folder, names[-1]), "wb") as file:
                file.write(dump(rng, 20 * MB))
    with open(os.path.join(folder, "list.txt"), "w", newline="\n") as file:
        file.write("\n".join(names) + "\n")
    os.sync()


def make_set(folder, logs, log_size, dumps):
    """Writes the files, each with a base name of its own, and the list of their names, which is returned.

    In a child process: the memory of the process that starts a tool counts as the tool's peak.
    """
    child = os.fork()
    if child == 0:
        write_set(folder, logs, log_size, dumps)
        os._exit(0)
    if os.waitpid(child, 0)[1] != 0:
        sys.exit("cannot make the data set in %s" % folder)
    with open(os.path.join(folder, "list.txt")) as file:
        return file.read().split()


def io_counters():
    with open("/proc/self/io") as file:
        return {key: int(value) for key, value in (line.split(": ") for line in file)}


def measured(command, folder):
    """Runs the command from a child process, so that the usage of children is that of this command alone.

    Returns wall time and user CPU in seconds, bytes written to disk, and the peak of memory in bytes.
    """
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
    """The runs of one tool on one data set, as medians."""

    def __init__(self, runs, size):
        self.walls, self.users, on_disk, peak = zip(*runs)
        self.wall, self.user, self.on_disk, self.peak = (
            statistics.median(values) for values in (self.walls, self.users, on_disk, peak))
        self.size = size

    def user_against(self, other):
        """User CPU as a part of the other tool's: the median of the rounds' ratios."""
        return statistics.median(ours / theirs for ours, theirs in zip(self.users, other.users))

    def row(self, title, tool, other):
        return "| %s | %s | %.2f | %.2f | %.1f | %.0f | %.1f | %.2f | %.2f |" % (
            title, tool, self.wall, self.user, self.on_disk / MB, self.peak / MB, self.size / MB,
            self.wall / other.wall, self.user_against(other))


HEAD = ("| data set | tool | wall s | user s | to disk MB | peak MB | zip MB | wall / zip -6 | user / zip -6 |\n"
        "|---|---|---:|---:|---:|---:|---:|---:|---:|")


def compare(tools, place, names, rounds, once=()):
    """Runs the tools in `place` in turn, those in `once` in the first round only; the result of each.

    Each makes ARCHIVE there, with all of the names in it.
    """
    archive = os.path.join(place, ARCHIVE)
    runs = {tool: [] for tool in tools}
    sizes = {}
    for number in range(rounds):
        for tool, command in tools.items():
            if number and tool in once:
                continue
            if os.path.exists(archive):
                os.remove(archive)
            os.sync()
            runs[tool].append(measured(command, place))
            sizes[tool] = os.path.getsize(archive)
            with zipfile.ZipFile(archive) as made:
                missing = set(names) - {os.path.basename(name) for name in made.namelist()}
            if missing:
                sys.exit("%s left out %d files" % (tool, len(missing)))
    return {tool: Result(runs[tool], sizes[tool]) for tool in tools}


class Limits:
    def __init__(self):
        self.rows = []

    def check(self, what, figure, at_most):
        self.rows.append((what, figure, at_most))

    def finish(self):
        """Prints a table of the limits; 1 when one of them is broken, else 0."""
        broken = [what for what, figure, at_most in self.rows if figure > at_most]
        print("\n| limit | measured | at most | |")
        print("|---|---:|---:|---|")
        for what, figure, at_most in self.rows:
            print(f"| {what} | {figure:.2f} | {at_most:.2f} | {'broken' if what in broken else 'kept'} |")
        print(flush=True)
        return 1 if broken else 0

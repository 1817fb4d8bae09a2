#!/usr/bin/env python3
"""Measures whole runs: whole-runs.py BARE PRODUCTS DEMO FOLDER ROUNDS PROGRAM

BARE is a Wine prefix without the products, PRODUCTS one for their registry and the data sets, DEMO the demo machine.
Prints the program's runs beside zip's on the same files, the cost of the first stack trace, then the limits. The exit
status is 1 when one of them is broken. Wine must be set up in the environment.
"""
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import zipfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "demo"))

import machine  # noqa: E402
from measure import ARCHIVE, HEAD, KB, OURS, ZIP, Limits, compare, make_set, measured  # noqa: E402

#       title                                         logs  dumps  switches
SETS = [("300 logs of 190 kB, -l",                      300,   0,   ["-l"]),
        ("100 logs of 190 kB, 12 dumps of 20 MB, -l -c", 100, 12,   ["-l", "-c"])]


def use(prefix):
    """Boots the machine, and lets `wine` run on it."""
    os.environ["WINEPREFIX"] = prefix
    booted = machine.Machine(prefix)
    booted.boot()
    return booted


class Runs:
    def __init__(self, program, place, rounds):
        self.program, self.place, self.rounds = program, place, rounds
        self.limits = Limits()

    def command(self, *switches, program=None):
        return ["wine", str(program or self.program), "agent", "collect-diagnostics", *switches]

    def beside_zip(self, title, source, names, rounds, user_limit, *switches):
        run = self.command(*switches)
        zipped = ["sh", "-c", f'cd "$0" && zip -6 -q "$OLDPWD/{ARCHIVE}" -@ <list.txt', str(source)]
        measured(run, self.place)
        results = compare({OURS: run, ZIP: zipped}, self.place, names, rounds)
        for tool, result in results.items():
            print(result.row(title, tool, results[ZIP]), flush=True)
        self.limits.check(f"{title}: user CPU / zip -6", results[OURS].user_against(results[ZIP]), user_limit)

    def of_sets(self, prefix):
        products = use(prefix)
        products.import_registry(machine.HERE / "products.reg")
        source = products.drive / machine.OXM
        for title, logs, dumps, switches in SETS:
            # A run of some seconds varies by a tenth.
            rounds = self.rounds if dumps else self.rounds * 3
            self.beside_zip(title, source, make_set(source, logs, 190 * KB, dumps), rounds, 0.95, *switches)
            if not dumps:
                self.limits.check(f"{title}: requests to Wine's server per file", self.requests(*switches) / logs, 22)
        shutil.rmtree(source)

    def of_demo(self, prefix):
        """The demo machine's run, whose commands are processes of their own and not in its user CPU."""
        use(prefix)
        measured(self.command(), self.place)
        source = self.place / "collected"
        with zipfile.ZipFile(self.place / ARCHIVE) as archive:
            archive.extractall(source)
            names = [name for name in archive.namelist() if not name.endswith("/")]
        (source / "list.txt").write_text("\n".join(names) + "\n")
        self.beside_zip("the demo machine", source, [os.path.basename(name) for name in names], self.rounds, 2.5)

    def requests(self, *switches):
        """The writes of a run: each request to Wine's server is one."""
        summary = self.place / "strace.txt"
        subprocess.run(["strace", "-f", "-c", "-e", "trace=write,writev", "-o", summary, *self.command(*switches)],
                       cwd=self.place, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        return sum(int(calls) for calls in re.findall(r"^ *(?:\S+ +){3}(\d+) .*writev?$", summary.read_text(), re.M))

    def first_trace(self, prefix):
        """A run that finds no product, and so logs failures, with the PDB beside the program and without it."""
        use(prefix)
        alone = self.place / "AgentCLI.exe"
        shutil.copyfile(self.program, alone)
        walls = {self.program: [], alone: []}
        for _ in range(5):
            for program, seconds in walls.items():
                seconds.append(measured(self.command("-l", program=program), self.place)[0])
        with_pdb, without = (statistics.median(seconds) for seconds in walls.values())
        print("\n| run without the products, -l | wall s |\n|---|---:|")
        print(f"| with the PDB | {with_pdb:.2f} |\n| without the PDB | {without:.2f} |")
        self.limits.check("run without the products: with the PDB / without", with_pdb / without, 2.5)


def main():
    bare, products, demo, folder, rounds, program = sys.argv[1:]
    place = pathlib.Path(folder) / "run"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir(parents=True)
    runs = Runs(program, place, int(rounds))
    print(HEAD)
    runs.of_sets(products)
    runs.of_demo(demo)
    runs.first_trace(bare)
    shutil.rmtree(place)
    sys.exit(runs.limits.finish())


main()

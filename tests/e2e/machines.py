"""What the end-to-end tests share: the two machines, runs of the program, and reading what a run left."""

import io
import json
import os
import pathlib
import shutil
import sys
import tempfile
import time
import unittest
import zipfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "demo"))

import machine  # noqa: E402  (beside the demo's summary)

EXE = os.environ["AGENTCLI_EXE"]
TOOL = os.environ["AGENTCLI_TOOL"]
FULL = machine.Machine(os.environ["AGENTCLI_FULL_PREFIX"])
BARE = machine.Machine(os.environ["AGENTCLI_BARE_PREFIX"])



def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def running_in(folder):
    """The command lines of the processes that were started in the folder: a run's own, and its children's."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if (process / "cwd").readlink() == pathlib.Path(folder):
                found.append((process / "cmdline").read_bytes().replace(b"\0", b" ").decode().strip())
        except OSError:
            pass  # has ended meanwhile
    return found


class Archive:
    """A zip that has been read from its first to its last byte."""

    def __init__(self, path):
        with zipfile.ZipFile(io.BytesIO(pathlib.Path(path).read_bytes())) as archive:
            self.entries = {entry.filename: (entry, archive.read(entry)) for entry in archive.infolist()}
        self.names = [name for name in self.entries if not name.endswith("/")]
        self.rows = json.loads(self.entries["manifest.json"][1])["diagnostics"] if "manifest.json" in self.names else []

    def types(self):
        """The types of the manifest's rows in order, with how many follow each other."""
        counts = []
        for row in self.rows:
            if counts and counts[-1][0] == row["type"]:
                counts[-1][1] += 1
            else:
                counts.append([row["type"], 1])
        return [tuple(count) for count in counts]

    def row(self, name):
        return next(row for row in self.rows if row["name"] == name)

    def texts(self):
        """The texts that the tool's rows have left."""
        return [self.text(name) for name in self.names if "/lacli_" in name]

    def text(self, name):
        return self.entries[name][1].decode("utf-8")


class Case(unittest.TestCase):
    """A test in a new current directory."""

    folder_name = "run"

    def setUp(self):
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="agentcli-e2e-"))
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.folder = self.scratch / self.folder_name
        self.folder.mkdir()
        self.zip = self.folder / "diagnostics.zip"

    def collect(self, *arguments, **how):
        """Runs the command; returns what it printed."""
        return self.agentcli("agent", "collect-diagnostics", *arguments, **how)

    def agentcli(self, *arguments, on=BARE, status=0, folder=None, **environment):
        """Runs the program to its end; returns what it printed on standard output, the only place it prints to."""
        folder = folder or self.folder
        done = on.run(EXE, *arguments, cwd=folder, **environment)
        printed = done.stdout.decode("utf-8")
        self.assertEqual((done.returncode, done.stderr), (status, b""), printed)
        self.assert_nothing_runs_in(folder)
        return printed

    def assert_nothing_runs_in(self, folder):
        # Wine takes a moment to clear away a process that has ended.
        for _ in range(20):
            if not (left := running_in(folder)):
                break
            time.sleep(0.1)
        self.assertEqual(left, [])

    def assert_folder_holds(self, *names):
        """Nothing but these and the log with its one rotated file."""
        found = {path.name for path in self.folder.iterdir()} - {"agent-cli.1.log"}
        self.assertEqual(found, {"agent-cli.log", *names})

    def assert_located(self, printed, path):
        self.assertEqual(printed, f"Diagnostics zip located at: {windows_path(path)}\r\n")

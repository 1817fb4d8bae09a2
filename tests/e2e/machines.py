"""What the end-to-end tests share: the two machines, runs of the program, and reading what a run left."""

import contextlib
import fcntl
import io
import itertools
import json
import os
import pathlib
import pty
import shutil
import subprocess
import sys
import tempfile
import termios
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


class Console:
    """A run of the program in a console of its own, as a context manager.

    Its standard output is the file `printed`. Wine passes on no control event but Ctrl+C; that reaches
    the program and its children, as on Windows.
    """

    def __init__(self, on, folder, *arguments, **environment):
        self.folder, self.printed = folder, folder.parent / "printed"
        self.terminal, console = pty.openpty()
        with open(self.printed, "wb") as printed:
            self.process = subprocess.Popen(
                [machine.UNDER_WINE, EXE, "agent", "collect-diagnostics", *arguments], cwd=folder, stdin=console,
                stdout=printed, stderr=printed, env=on.environment(**environment), start_new_session=True,
                preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(console)
        os.set_blocking(self.terminal, False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.terminal)

    def press_ctrl_c(self):
        os.write(self.terminal, b"\x03")

    def wait_until(self, condition, seconds=60):
        """Waits for it and returns the seconds that took; fails when the time is up."""
        start = time.monotonic()
        while not condition():
            if time.monotonic() - start > seconds:
                raise AssertionError(f"waited in vain; running: {running_in(self.folder)}; {self.text()}")
            time.sleep(0.02)
            with contextlib.suppress(OSError):  # nothing new, or the other side is closed
                os.read(self.terminal, 1 << 16)
        return time.monotonic() - start

    def wait(self, seconds=60):
        """Waits for the program's end; returns the seconds."""
        return self.wait_until(lambda: self.process.poll() is not None, seconds)

    def still_runs_after(self, seconds):
        with contextlib.suppress(AssertionError):
            self.wait(seconds)
            return False
        return True

    def text(self):
        """What the redirected program has printed."""
        return self.printed.read_bytes().decode()


class Archive:
    """A zip that has been read from its first to its last byte."""

    def __init__(self, path):
        self.zip = zipfile.ZipFile(io.BytesIO(pathlib.Path(path).read_bytes()))
        if broken := self.zip.testzip():
            raise AssertionError(f"{broken} is broken")
        self.names = [name for name in self.zip.namelist() if not name.endswith("/")]
        self.manifest = json.loads(self.data("manifest.json")) if "manifest.json" in self.names else {}
        self.rows = self.manifest.get("diagnostics", [])

    def types(self):
        """The types of the manifest's rows in order, with how many follow each other."""
        return [(kind, len(list(rows))) for kind, rows in itertools.groupby(row["type"] for row in self.rows)]

    def row(self, name):
        return next(row for row in self.rows if row["name"] == name)

    def data(self, name):
        return self.zip.read(name)

    def text(self, name):
        """The text with its line ends as they are on this machine."""
        return self.data(name).decode("utf-8").replace("\r\n", "\n")


class Case(unittest.TestCase):
    """A test in a new current directory."""

    folder_name = "run"

    def setUp(self):
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="agentcli-e2e-"))
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.folder = self.scratch / self.folder_name
        self.folder.mkdir()
        self.zip = self.folder / "diagnostics.zip"

    def import_keys(self, text):
        (self.scratch / "keys.reg").write_text("Windows Registry Editor Version 5.00\n\n" + text)
        BARE.import_registry(self.scratch / "keys.reg")

    def archive(self, *arguments, folder=None, **how):
        """Runs the command; returns the archive that it leaves in the current directory."""
        self.collect(*arguments, folder=folder, **how)
        return Archive((folder or self.folder) / "diagnostics.zip")

    def collect(self, *arguments, on=BARE, status=0, folder=None, **environment):
        """Runs the command to its end; returns what it printed on standard output, the only place it prints to."""
        folder = folder or self.folder
        done = on.run(EXE, "agent", "collect-diagnostics", *arguments, cwd=folder, **environment)
        printed = done.stdout.decode("utf-8")
        self.assertEqual((done.returncode, done.stderr), (status, b""), printed)
        self.assert_nothing_runs_in(folder)
        return printed

    def assert_soon(self, condition, found=lambda: "it does not hold", seconds=20):
        deadline = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), deadline, found())
            time.sleep(0.1)

    def assert_nothing_runs_in(self, folder):
        # Wine takes a moment to clear away a process that has ended.
        self.assert_soon(lambda: not running_in(folder), lambda: running_in(folder))

    def assert_folder_holds(self, *names):
        """Nothing but these and the log with its one rotated file."""
        found = {path.name for path in self.folder.iterdir()} - {"agent-cli.1.log"}
        self.assertEqual(found, {"agent-cli.log", *names})

    def log(self):
        """The program's log, with what has been rotated."""
        return "".join(path.read_text() for name in ("agent-cli.1.log", "agent-cli.log")
                       if (path := self.folder / name).exists())

    def assert_located(self, printed, path):
        self.assertEqual(printed, f"Diagnostics zip located at: {windows_path(path)}\r\n")

    def assert_errors(self, row, patterns):
        errors = row.get("errors", [])
        self.assertEqual(len(errors), len(patterns), errors)
        for error, pattern in zip(errors, patterns):
            self.assertRegex(error, pattern)

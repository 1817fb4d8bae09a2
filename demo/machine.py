"""Makes the machines that demonstrations and end-to-end tests run on: a Wine prefix, with or without the products.

The products' files are generated from the tables below with a fixed seed; nothing of them is kept in the repository.
Some of the evidence is broken on purpose: see BROKEN in install().
"""

import argparse
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import zlib

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
UNDER_WINE = ROOT / "script" / "under-wine"

MIB = 1 << 20
SIZE_LIMIT = 200 * MIB
OXM = "Program Files/Velqor/OXM"
PORTAVO = "Program Files/Velqor/Portavo"
TOOL = "Program Files/Velqor/Lumora Access Agent/lacli.exe"
ACCESS_LOGS = "ProgramData/Velqor/Lumora Access Agent/Logs"
LOCKED = OXM + "/live.log"
PROFILES = ("anna", "Zoë Müller")  # beside the one that Wine makes for the user it runs as

# Path below the drive -> size in bytes.
LOGS = {
    **{f"{OXM}/oxm{suffix}.log": 30_000 for suffix in ["", *(f".{number}" for number in range(1, 12))]},
    f"{OXM}/Service/service.log": 12_000,
    f"{OXM}/Probe/Réseau/probe.log": 4_000,
    f"{PORTAVO}/VqPVS.log": 60_000,
    f"{PORTAVO}/VqPVS.old": 60_000,
    f"{PORTAVO}/vq_pv_hrpt.xml": 2_000,
    f"{ACCESS_LOGS}/access.log": 40_000,
    f"{ACCESS_LOGS}/access.1.log": 40_000,
    **{f"{ACCESS_LOGS}/LumoraAccessAgentLog.etl.00{number}": 65_536 for number in range(4)},
    "ProgramData/Velqor/DLP/logs/dlp.txt": 8_000,
    "ProgramData/Velqor/DLP/logs/audit/audit.txt": 8_000,
    "windows/setupapi.log": 20_000,
    "windows/inf/setupapi.dev.log": 90_000,
    "windows/inf/setupapi.app.log": 10_000,
    "windows/inf/setupapi.offline.log": 1_000,
    "windows/system32/VqPlapApp.log": 5_000,
}
USER_LOGS = {
    "AppData/Local/Velqor/Lumora Access Agent/Logs/ui.log": 9_000,
    "AppData/Local/Velqor/Portavo/VqPVA.log": 15_000,
    "AppData/Local/Velqor/Portavo/VqPVA.log.old": 15_000,
    "AppData/Local/Velqor/OXM/ViewpaneUI/viewpane-ui.log": 6_000,
    "AppData/Local/Velqor/OXM/Viewpane/viewpane.log": 6_000,
    "AppData/Local/Velqor/OXM/Viewpane/cache/skipped.log": 100,
}
DUMPS = {f"{PORTAVO}/VqPVS.dmp": 3 * MIB, f"{OXM}/oxm.dmp": 2 * MIB, f"{OXM}/crashes/service.dmp": MIB}
USER_DUMPS = {"VqPVA.dmp": 300_000, "AppData/Local/Velqor/Portavo/VqPVA.dmp": 200_000}

MESSAGES = (
    "INFO  heartbeat sent in {} ms",
    "INFO  probe {} finished",
    "WARN  queue holds {} entries",
    "ERROR gateway gw{}.example.com did not answer",
    "DEBUG session {} renewed",
)


def log_text(name, size):
    """Lines as a service writes them, always the same for the same name."""
    numbers = random.Random(zlib.crc32(name.encode()))
    lines, length, second = [], 0, 0
    while length < size:
        second += numbers.randrange(1, 50)
        clock = f"2024-03-01 {second // 3600 % 24:02}:{second // 60 % 60:02}:{second % 60:02}"
        line = f"{clock} [{numbers.randrange(1000, 9999)}] {numbers.choice(MESSAGES).format(numbers.randrange(500))}\r\n"
        lines.append(line)
        length += len(line)
    return "".join(lines).encode()[:size]


def dump_bytes(name, size):
    """A dump's header, then pages that are partly empty and partly noise, as a process's memory is."""
    numbers = random.Random(zlib.crc32(name.encode()))
    data = bytearray(b"MDMP\x93\xa7\x00\x00")
    while len(data) < size:
        data += numbers.randbytes(4096) if numbers.random() < 0.4 else bytes(4096)
    return bytes(data[:size])


def write(path, data):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


class Machine:
    """A Wine prefix and what a user does on it."""

    def __init__(self, prefix):
        self.prefix = pathlib.Path(prefix)
        self.drive = self.prefix / "drive_c"

    def environment(self, **extra):
        return {**os.environ, "AGENTCLI_WINEPREFIX": str(self.prefix), **extra}

    def run(self, program, *arguments, cwd=None, timeout=300, **extra):
        """Runs a Windows program to its end; output as bytes."""
        return subprocess.run([UNDER_WINE, program, *arguments], cwd=cwd or ROOT, env=self.environment(**extra),
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout, check=False)

    def start(self, program, *arguments, cwd=None):
        return subprocess.Popen([UNDER_WINE, program, *arguments], cwd=cwd or ROOT, env=self.environment(),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def boot(self):
        self.run("cmd", "/c", "exit")

    def profiles(self):
        """The profile folders that count, in the order in which the system lists them."""
        return sorted((path for path in (self.drive / "users").iterdir() if path.name not in ("Public", "Default User")),
                      key=lambda path: path.name.lower())

    def import_registry(self, file):
        copy = self.prefix / "import.reg"
        copy.write_bytes(pathlib.Path(file).read_text(encoding="utf-8").replace("\n", "\r\n").encode("utf-16"))
        done = self.run("regedit", "/S", "Z:" + str(copy).replace("/", "\\"))
        copy.unlink()
        if done.returncode != 0:
            sys.exit(f"regedit failed: {done.stderr.decode(errors='replace')}")

    def install(self, tool):
        """Installs the products: registry, files, the stand-in for the access agent's tool."""
        self.import_registry(HERE / "products.reg")
        for name in PROFILES:
            (self.drive / "users" / name).mkdir(parents=True, exist_ok=True)
        for name in ("Public", "Default User"):
            write(self.drive / "users" / name / "VqPVA.dmp", b"never collected")
        for name, size in LOGS.items():
            write(self.drive / name, log_text(name, size))
        for name, size in DUMPS.items():
            write(self.drive / name, dump_bytes(name, size))
        for profile in self.profiles():
            for name, size in USER_LOGS.items():
                write(profile / name, log_text(profile.name + name, size))
            for name, size in USER_DUMPS.items():
                write(profile / name, dump_bytes(profile.name + name, size))
        # The second access log is older, as a rotated log is.
        os.utime(self.drive / ACCESS_LOGS / "access.1.log", (1_700_000_000, 1_700_000_000))
        (self.drive / TOOL).parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(tool, self.drive / TOOL)
        # BROKEN on purpose: a missing file (update_tmp.bat was never written), an oversized one, a program that is
        # called a log, a log that another process holds (see hold_lock), a folder where a dump is expected.
        with open(self.drive / OXM / "history.log", "wb") as history:
            history.truncate(SIZE_LIMIT + 1)
        shutil.copyfile(tool, self.drive / OXM / "hostprobe.log")
        write(self.drive / LOCKED, log_text(LOCKED, 5_000))
        (self.drive / "users" / PROFILES[0] / "VqPVS.dmp").mkdir(exist_ok=True)

    def hold_lock(self):
        """Starts a process that keeps LOCKED open for itself; returns it once the file is locked."""
        holder = self.start(str(self.drive / TOOL), "hold", "C:\\" + LOCKED.replace("/", "\\"))
        if not holder.stdout.readline().startswith(b"held"):
            sys.exit("the log could not be locked")
        return holder


def main():
    arguments = argparse.ArgumentParser(description="Prepares a Wine prefix as a machine to run on.")
    arguments.add_argument("prefix")
    arguments.add_argument("--tool", help="the stand-in for the access agent's tool; without it nothing is installed")
    arguments.add_argument("--hold", action="store_true", help="keep the locked log locked until terminated")
    options = arguments.parse_args()
    machine = Machine(options.prefix)
    if options.hold:
        holder = machine.hold_lock()
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        try:
            print("held", flush=True)
            holder.wait()
        finally:
            holder.kill()
        return
    machine.boot()
    if options.tool:
        machine.install(options.tool)


if __name__ == "__main__":
    main()

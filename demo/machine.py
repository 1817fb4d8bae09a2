"""Makes the machines that demonstrations and end-to-end tests run on: a Wine prefix, with or without the products.

The products' files are generated from the tables below with a fixed seed; nothing of them is kept in the repository.
Some of the evidence is broken on purpose: see BROKEN in install().
"""

import argparse
import contextlib
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
LOCKED = OXM + "/oxm.05.log"  # among the ten of its base name
PROFILES = ("anna", "default", "Zoë Müller")  # beside the one that Wine makes for the user it runs as
NO_PROFILES = ("Public", "All Users", "Default User")  # and "Default", in exactly this spelling

# Path below the drive -> size in bytes.
LOGS = {
    **{f"{OXM}/oxm{suffix}.log": 30_000 for suffix in ["", *(f".{number}" for number in range(1, 12))]},
    f"{OXM}/Service/service.log": 12_000,
    f"{OXM}/Probe/Réseau/probe.log": 4_000,
    f"{PORTAVO}/VqPVS.log": 60_000,
    f"{PORTAVO}/VqPVS.old": 60_000,
    f"{PORTAVO}/vq_pv_hrpt.xml": 2_000,
    f"{ACCESS_LOGS}/access.log": 40_000,
    **{f"{ACCESS_LOGS}/LumoraAccessAgentLog.etl.00{number}": 65_536 for number in range(4)},
    "ProgramData/Velqor/DLP/logs/dlp.txt": 8_000,
    "ProgramData/Velqor/DLP/logs/audit/audit.txt": 8_000,
    "windows/setupapi.log": 20_000,
    "windows/inf/setupapi.dev.log": 90_000,
    "windows/inf/setupapi.app.log": 10_000,
    "windows/system32/VqPlapApp.log": 5_000,
}
# Rotated files beside these: ten of them, one more than is collected together with the file itself.
FAMILIES = (f"{PORTAVO}/VqPVS.log", f"{PORTAVO}/VqPVS.old", f"{ACCESS_LOGS}/access.log", f"{OXM}/oxm.dmp",
            "ProgramData/Velqor/DLP/logs/dlp.txt", "windows/inf/setupapi.dev.log", "windows/inf/setupapi.app.log")
LOGS |= {f"{file[:-4]}.{number}{file[-4:]}": 1_000 for file in FAMILIES for number in range(10)}
USER_LOGS = {
    "AppData/Local/Velqor/Lumora Access Agent/Logs/ui.log": 9_000,
    "AppData/Local/Velqor/Portavo/VqPVA.log": 15_000,
    "AppData/Local/Velqor/Portavo/VqPVA.log.old": 15_000,
    "AppData/Local/Velqor/OXM/ViewpaneUI/viewpane-ui.log": 6_000,
    "AppData/Local/Velqor/OXM/Viewpane/viewpane.log": 6_000,
    "AppData/Local/Velqor/OXM/Viewpane/PANE.TXT": 100,
}
DUMPS = {f"{PORTAVO}/VqPVS.dmp": 3 * MIB, f"{OXM}/oxm.dmp": 2 * MIB, f"{OXM}/crashes/service.dmp": MIB}
USER_DUMPS = {"VqPVA.dmp": 300_000, "AppData/Local/Velqor/Portavo/VqPVA.dmp": 200_000}
ONE_USERS_DUMP = f"users/{PROFILES[-1]}/VqPVS.dmp"

# Files that look much like those above and are never collected.
NEAR_MISSES = (
    *(f"{OXM}/{name}" for name in ("upper.LOG", "oxm.log.bak", "oxm.txt", "oxm.old", ".log", "log", "upper.DMP",
                                   "Service/oxm.mdmp", "Service/upper.LOG", "oxm.dmp.old")),
    *(f"{PORTAVO}/{name}" for name in ("upper.LOG", "upper.OLD", "VqPVS.txt", "sub/deeper.log", "sub/deeper.old",
                                       "sub/vq_pv_hrpt.xml", "sub/update_tmp.bat", "sub/VqPVS.dmp", "my_vq_pv_hrpt.xml",
                                       "vq_pv_hrpt.xml.bak", "VqPVA.dmp", "VqPVS.dmp.bak")),
    *(f"{ACCESS_LOGS}/{name}" for name in ("upper.LOG", "access.old", "access.txt", "sub/deeper.log",
                                           "LumoraAccessAgentLog.etl", "LumoraAccessAgentLog.etl.006",
                                           "LumoraAccessAgentLog.etl.000.bak", "sub/LumoraAccessAgentLog.etl.001")),
    *(f"ProgramData/Velqor/DLP/logs/{name}" for name in ("upper.TXT", "dlp.log", "audit/upper.TXT",
                                                         "audit/audit.txt.1")),
    "ProgramData/Velqor/DLP/outside.txt",
    "ProgramData/Velqor/Lumora Access Agent/outside.log",
    *(f"windows/{name}" for name in ("setupapi.old", "setupapi.log.bak", "my.setupapi.log", "setupapi.dev.log")),
    *(f"windows/inf/{name}" for name in ("setupapi.offline.log", "setupapi.log", "my.setupapi.dev.log",
                                         "my.setupapi.app.log", "SETUPAPI.DEV.upper.log", "setupapi.dev.big.LOG",
                                         "setupapi.app.txt", "sub/setupapi.dev.deeper.log",
                                         "sub/setupapi.app.deeper.log")),
    *(f"windows/system32/{name}" for name in ("VqPlapApp.txt", "VqPlapApp.log.1", "logs/VqPlapApp.log")),
    "users/VqPVA.dmp",
)
USER_NEAR_MISSES = (
    "VqPVB.dmp", "VqPVA.dmp.bak", "VqPVA.log", "Desktop/VqPVA.dmp",
    "AppData/Local/Velqor/Lumora Access Agent/outside.log",
    "AppData/Local/Velqor/Portavo/VqPVS.dmp", "AppData/Local/Velqor/Portavo/VqPVA.log.older",
    "AppData/Local/Velqor/Portavo/VqPVA.1.log", "AppData/Local/Velqor/Portavo/sub/VqPVA.log",
    "AppData/Local/Velqor/OXM/outside.log", "AppData/Local/Velqor/OXM/Viewpane/cache/skipped.log",
    "AppData/Roaming/Velqor/Portavo/VqPVA.log",
)

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

    def start(self, program, *arguments, cwd=None, **environment):
        return subprocess.Popen([UNDER_WINE, program, *arguments], cwd=cwd or ROOT, env=self.environment(**environment),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def boot(self):
        self.run("cmd", "/c", "exit")

    def profiles(self):
        """The profile folders that count, in the order in which the system lists them."""
        found = (path for path in (self.drive / "users").iterdir()
                 if path.is_dir() and path.name not in (*NO_PROFILES, "Default"))
        return sorted(found, key=lambda path: path.name.lower())

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
        for name in PROFILES + NO_PROFILES:
            (self.drive / "users" / name).mkdir(parents=True, exist_ok=True)
        for name, size in LOGS.items():
            write(self.drive / name, log_text(name, size))
        for name, size in {**DUMPS, ONE_USERS_DUMP: 10_000}.items():
            write(self.drive / name, dump_bytes(name, size))
        for profile in self.profiles():
            for name, size in USER_LOGS.items():
                write(profile / name, log_text(profile.name + name, size))
            for name, size in USER_DUMPS.items():
                write(profile / name, dump_bytes(profile.name + name, size))
        for place in [*(self.drive / name for name in NEAR_MISSES),
                      *(profile / name for profile in self.profiles() for name in USER_NEAR_MISSES),
                      *(self.drive / "users" / profile / name for profile in NO_PROFILES
                        for name in (*USER_LOGS, *USER_DUMPS))]:
            write(place, b"never collected")
        # The second access log is older, as a rotated log is.
        os.utime(self.drive / ACCESS_LOGS / "access.1.log", (1_700_000_000, 1_700_000_000))
        (self.drive / TOOL).parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(tool, self.drive / TOOL)
        # BROKEN on purpose: a missing file (update_tmp.bat was never written), oversized ones, programs that are called
        # logs, a log that another process holds (see holding), folders where files are expected, a link that loops.
        for name in (f"{OXM}/history.log", f"{ACCESS_LOGS}/LumoraAccessAgentLog.etl.004",
                     f"users/{PROFILES[0]}/AppData/Local/Velqor/Portavo/VqPVA.log.old",
                     f"users/{PROFILES[0]}/AppData/Local/Velqor/OXM/Viewpane/history.log"):
            with open(self.drive / name, "wb") as oversized:
                oversized.truncate(SIZE_LIMIT + 1)
        for name in (f"{OXM}/hostprobe.log", f"{PORTAVO}/VqPVS.00.log"):
            shutil.copyfile(tool, self.drive / name)
        write(self.drive / LOCKED, log_text(LOCKED, 5_000))
        (self.drive / ACCESS_LOGS / "LumoraAccessAgentLog.etl.005").mkdir(exist_ok=True)
        (self.drive / OXM / "Service/loop").unlink(missing_ok=True)
        (self.drive / OXM / "Service/loop").symlink_to("..")
        (self.drive / "users" / PROFILES[0] / "VqPVS.dmp").mkdir(exist_ok=True)
        shutil.rmtree(self.drive / "users" / PROFILES[1] / "AppData/Local/Velqor/OXM/ViewpaneUI")

    @contextlib.contextmanager
    def holding(self, file, program=None):
        """Meanwhile a process keeps the file, a path below the drive, open for itself."""
        path = "C:\\" + str(file).replace("/", "\\")
        with self.start(program or self.drive / TOOL, "hold", path) as holder:
            try:
                if not holder.stdout.readline().startswith(b"held"):
                    sys.exit("the file could not be locked")
                yield
            finally:
                holder.kill()


def main():
    arguments = argparse.ArgumentParser(description="Prepares a Wine prefix as a machine to run on.")
    arguments.add_argument("prefix")
    arguments.add_argument("--tool", help="the stand-in for the access agent's tool; without it nothing is installed")
    arguments.add_argument("--hold", action="store_true", help="keep the locked log locked until terminated")
    options = arguments.parse_args()
    machine = Machine(options.prefix)
    if options.hold:
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        with machine.holding(LOCKED):
            print("held", flush=True)
            signal.pause()
    machine.boot()
    if options.tool:
        machine.install(options.tool)


if __name__ == "__main__":
    main()

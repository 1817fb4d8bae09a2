"""The program as its user runs it, judged by the zip, the manifest, the log, the console and the exit status."""

import concurrent.futures
import contextlib
import datetime
import os
import pathlib
import random
import re
import shutil
import subprocess
import time

from machines import BARE, CONFIG, CRASH, EXE, FULL, LOG, SAMPLE, TOOL, Archive, Case, machine, windows_path

SAMPLE_FILES = ["RoutePrint", "IpConfig", "NicConfig", "NicDetails", "NetStat", "SystemInfo", "ProcessInfo",
                "ServiceInfo", "DriverInfo", "TcpipBind"]
SAMPLES = [f"{SAMPLE}_{number}/{name}.txt" for number, name in enumerate(SAMPLE_FILES)]


class FullRun(Case):
    def test_collects_everything_that_can_be_had(self):
        with contextlib.ExitStack() as held:
            holder = FULL.hold_lock()
            held.callback(holder.wait)
            held.callback(holder.kill)
            printed = self.collect(on=FULL)
        self.assert_located(printed, self.zip)
        self.assertLessEqual({path.name for path in self.folder.iterdir()},
                             {"diagnostics.zip", "agent-cli.log", "agent-cli.1.log"})
        archive = Archive(self.zip)
        for reader in (["unzip", "-tqq"], ["7z", "t", "-bso0", "-bsp0"]):
            subprocess.run([*reader, self.zip], check=True)
        self.assertEqual(archive.types(), [(LOG, 19), (CONFIG, 4), (SAMPLE, 16), (CRASH, 8)])
        self.assertLessEqual({"manifest.json", "agent-cli.log", *SAMPLES}, set(archive.names))
        self.assertFalse([name for name in archive.names if "\\" in name])
        self.check_rows(archive)
        self.check_files(archive)
        self.check_generated(archive)

    def check_rows(self, archive):
        programs, data, registry = "C:\\Program Files\\Velqor\\", "C:\\ProgramData\\Velqor\\", "HKLM\\SOFTWARE\\Velqor\\"
        access_log = ", ".join(f"LumoraAccessAgentLog.etl.00{number}" for number in range(6))
        filters = "HKLM\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Authentication\\Credential Provider Filters"
        users = [f"C:\\users\\{profile.name}" for profile in FULL.profiles()]
        logs = [("*.log", programs + "OXM"), ("*.log, *.old, vq_pv_hrpt.xml, update_tmp.bat", programs + "Portavo"),
                (f"*.log, {access_log}", data + "Lumora Access Agent\\Logs"), ("*.txt", data + "DLP\\logs"),
                ("setupapi.log", "C:\\WINDOWS"), ("setupapi.dev*.log, setupapi.app*.log", "C:\\WINDOWS\\inf"),
                ("VqPlapApp.log", "C:\\WINDOWS\\system32")]
        for user in users:
            local = user + "\\AppData\\Local\\Velqor\\"
            logs += [("Logs", local + "Lumora Access Agent\\Logs"), ("VqPVA.log, VqPVA.log.old", local + "Portavo"),
                     ("ViewpaneUI", local + "OXM\\ViewpaneUI"), ("Viewpane", local + "OXM\\Viewpane")]
        configuration = [(f"{registry}Portavo and {filters}", registry + "Portavo"),
                         *((f"SOFTWARE\\Velqor\\{key}", registry + key) for key in ("OXM", "OXM\\Config",
                                                                                   "Lumora Access Agent"))]
        dumps = [("VqPVS.dmp", programs + "Portavo"), ("*.dmp", programs + "OXM")]
        for user in users:
            dumps += [("VqPVS.dmp, VqPVA.dmp", user), ("VqPVA.dmp", user + "\\AppData\\Local\\Velqor\\Portavo")]
        rows = [(row["name"], row["origin"]) for row in archive.rows]
        self.assertEqual(rows[:23] + rows[39:], logs + configuration + dumps)
        self.assertEqual([name for name, _ in rows[33:39]],
                         ["epm status", "status", "traffic log", "traffic rdns export", "traffic show", "tunnel"])
        self.assertEqual(rows[38][1], f'"{programs}Lumora Access Agent\\lacli.exe" tunnel')
        # A user's rows hold that user's files.
        for number, profile in enumerate(FULL.profiles()):
            text = archive.text(f"{LOG}_{7 + 4 * number}/ui.log").encode()
            self.assertEqual(text, (profile / "AppData/Local/Velqor/Lumora Access Agent/Logs/ui.log").read_bytes())
            self.assertIn(f"{LOG}_{10 + 4 * number}/viewpane.log", archive.names)
            self.assertIn(f"{CRASH}_{3 + 2 * number}/VqPVA.dmp", archive.names)
        for row in archive.rows:
            archived = [name for name in archive.names if name.startswith(row["archivePath"] + "/")]
            self.assertEqual(bool(archived), row.get("success", False), row)
            self.assertRegex(row["startedAt"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        errors = "\n".join(archive.rows[0]["errors"])
        for wanted in (r"history\.log' \(200 MB\) because", r"hostprobe\.log' is an executable", r"live\.log: ",
                       r"Skipped file .*oxm\.8\.log", r"Skipped file .*oxm\.9\.log"):
            self.assertRegex(errors, wanted)
        self.assertEqual(len(archive.rows[0]["errors"]), 5)
        for wanted in ("Collectors reported the following warnings or errors: \n",
                       "The ProgramData folder path is C:\\ProgramData."):
            self.assertIn(wanted, archive.text("agent-cli.log"))

    def check_files(self, archive):
        """Each archived file is byte for byte one of that name on the machine, with its time."""
        sources = {}
        for folder in ("Program Files/Velqor", "ProgramData/Velqor", "users", "windows/inf"):
            for source in (FULL.drive / folder).rglob("*.*"):
                if source.is_file():
                    sources.setdefault(source.name, []).append(source)
        for name in ("setupapi.log", "system32/VqPlapApp.log"):
            sources[pathlib.Path(name).name] = [FULL.drive / "windows" / name]
        checked = 0
        for name in archive.names:
            if name.startswith((LOG, CRASH)):
                entry, data = archive.entries[name]
                matching = [path for path in sources[name.split("/")[-1]] if path.stat().st_size == len(data)]
                self.assertIn(data, [path.read_bytes() for path in matching], name)
                written = {datetime.datetime.fromtimestamp(path.stat().st_mtime // 2 * 2) for path in matching}
                self.assertTrue(any(abs((datetime.datetime(*entry.date_time) - at).total_seconds()) <= 2
                                    for at in written), name)
                checked += 1
        # 10 + 1 + 1 logs of the agent, 3 + 6 + 2 + 1 + 2 + 1 more, 5 of each user; 1 + 2 dumps, 2 of each user.
        self.assertEqual(checked, 27 + 5 * 3 + 3 + 2 * 3)

    def check_generated(self, archive):
        self.assertEqual(archive.text(f"{SAMPLE}_9/TcpipBind.txt"), "\\Device\\eth0\r\n\\Device\\eth1\r\n\r\n")
        self.assertIn("PreferredIP:10.20.0.7\r\nPrelogon:1\r\n", archive.text(f"{CONFIG}_0/regval.txt").replace("\r\n\r\n", "\r\n"))
        self.assertIn("[String] Tenant = Example GmbH, Zürich\r\n", archive.text(f"{CONFIG}_2/registry-oxm-config.txt"))
        dump = archive.text(f"{CONFIG}_3/lumora-access-agent.txt")
        self.assertIn("Keyname: SOFTWARE\\Velqor\\Lumora Access Agent\\State\r\n", dump)
        self.assertNotIn("hidden", dump)
        self.assertEqual(archive.text(f"{SAMPLE}_15/lacli_tunnel.log"),
                         'Command: "C:\\Program Files\\Velqor\\Lumora Access Agent\\lacli.exe" tunnel\r\nExit code: 0\r\n'
                         "Output:\r\nTunnel: connected\r\nGateway: gw.example.com\r\n\r\n")
        self.assertIn("files.example.com", archive.text(f"{SAMPLE}_13/lacli_traffic_rdns.log"))


class BareRun(Case):
    def test_every_row_is_there_although_nothing_is(self):
        self.assert_located(self.collect(), self.zip)
        archive = Archive(self.zip)
        profiles = len(BARE.profiles())
        self.assertEqual(archive.types(),
                         [(LOG, 7 + 4 * profiles), (CONFIG, 4), (SAMPLE, 10), (CRASH, 2 + 2 * profiles)])
        self.assertFalse([row["name"] for row in archive.rows if row["type"] == CONFIG and row.get("success")])
        self.assertEqual(archive.row("SOFTWARE\\Velqor\\OXM")["errors"],
                         ["Not dumping the AOXM registry key SOFTWARE\\Velqor\\OXM as it wasn't found."])
        # Every command yields its file, known here or not.
        self.assertLessEqual(set(SAMPLES[:9]), set(archive.names))
        self.assertTrue(archive.text(SAMPLES[0]).startswith("Command: route print\r\nExit code: "))


class Crowd(Case):
    def test_twenty_thousand_logs_are_ten_and_a_message_each(self):
        logs = BARE.drive / "ProgramData/Velqor/DLP/logs"
        self.addCleanup(shutil.rmtree, logs.parent)
        logs.mkdir(parents=True)
        for number in range(20_000):
            (logs / f"dlp.{number}.txt").touch()
        start = time.monotonic()
        self.collect("-l")
        self.assertLess(time.monotonic() - start, 20)
        row = Archive(self.zip).row("*.txt")
        self.assertTrue(row["success"])
        self.assertEqual(len(row["errors"]), 19_990)
        for error in row["errors"]:
            self.assertRegex(error, r"^Skipped file .* as extension copier reached copyable limit\.$")


class Flags(Case):
    def test_flags_select_types_in_a_fixed_order(self):
        profiles = len(BARE.profiles())
        rows = {LOG: 7 + 4 * profiles, CONFIG: 4, SAMPLE: 10, CRASH: 2 + 2 * profiles}
        for arguments, types in ((["-l"], [LOG]), (["--config"], [CONFIG]), (["-s"], [SAMPLE]), (["--crash"], [CRASH]),
                                 (["-c", "-l"], [LOG, CRASH]), (["-co"], [CONFIG, CRASH]),
                                 (["-c", "-s", "-o", "-l"], [LOG, CONFIG, SAMPLE, CRASH])):
            with self.subTest(arguments):
                self.collect(*arguments)
                self.assertEqual(Archive(self.zip).types(), [(kind, rows[kind]) for kind in types])

    def test_samples_bring_the_tool_where_it_is_installed(self):
        self.collect("-s", on=FULL)
        self.assertEqual(Archive(self.zip).types(), [(SAMPLE, 16)])


class Path(Case):
    folder_name = "Ordner für Läufe"

    def test_moves_the_archive_to_the_path(self):
        other = self.scratch / "andere Größe"
        other.mkdir()
        (self.folder / "old.zip").write_bytes(b"something else")
        os.link(self.folder / "old.zip", other / "second name.zip")
        for given, expected in (("out.zip", self.folder / "out.zip"), ("old.zip", self.folder / "old.zip"),
                                (windows_path(other / "Müller 日本.zip"), other / "Müller 日本.zip"),
                                ("\\\\?\\" + windows_path(other / "verbatim.zip"), other / "verbatim.zip")):
            with self.subTest(given):
                self.assert_located(self.collect("-o", "-p", given).replace("\\\\?\\", ""), expected)
                self.assertEqual(Archive(expected).types(), [(CONFIG, 4)])
                self.assertFalse(self.zip.exists())
        self.assertEqual((other / "second name.zip").read_bytes(), b"something else")

    def test_keeps_an_archive_that_is_its_own_destination(self):
        for given in ("diagnostics.zip", ".\\diagnostics.zip", "DIAGNOSTICS.ZIP", windows_path(self.zip)):
            with self.subTest(given):
                printed = self.collect("-o", "--path", given)
                self.assertEqual(printed.lower(), f"diagnostics zip located at: {windows_path(self.zip)}\r\n".lower())
                self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])

    def test_leaves_the_archive_whole_where_it_cannot_be_moved(self):
        (self.scratch / "link").symlink_to(self.folder, target_is_directory=True)
        for given in ("nowhere\\out.zip", windows_path(self.scratch), windows_path(self.scratch / "link")):
            with self.subTest(given):
                (self.folder / "agent-cli.log").unlink(missing_ok=True)
                printed = self.collect("-o", "-p", given, status=1)
                self.assertTrue(printed.startswith("Unexpected error: "), printed)
                self.assertFalse(printed.endswith("\n"))
                self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])
                self.assertRegex((self.folder / "agent-cli.log").read_text(), "copy_file")


class CommandLine(Case):
    def test_errors_and_help_are_the_parsers(self):
        for arguments, status, wanted in (([], 106, "subcommand"), (["agent"], 106, "subcommand"),
                                          (["agent", "collect-diagnostics", "--nonsense"], 109, "--nonsense"),
                                          (["--help"], 0, "Print this help message and exit"),
                                          (["agent", "collect-diagnostics", "-h"], 0, "Collect crash diagnostics.")):
            with self.subTest(arguments):
                done = BARE.run(EXE, *arguments, cwd=self.folder)
                self.assertEqual(done.returncode, status)
                self.assertIn(wanted.encode(), done.stdout + done.stderr)
                self.assertFalse(self.zip.exists())

    def test_a_log_that_cannot_be_opened_ends_the_run_with_mains_error_line(self):
        (self.folder / "agent-cli.log" / "inside").mkdir(parents=True)
        printed = self.collect(status=1)
        self.assertRegex(printed, r"Error in function .*main\(.*\)\(\) of file AgentCLI/main\.cpp:23:14 ---> "
                                  r"CLI failed with error: .*agent-cli\.log")


class WorkingFolder(Case):
    def test_replaces_what_an_earlier_run_left(self):
        self.collect("-o")
        self.collect("-c")
        self.assertNotIn(CONFIG, [kind for kind, _ in Archive(self.zip).types()])
        for stale in (b"PK\x03\x04 torn", self.zip.read_bytes()[:-30], b""):
            self.zip.write_bytes(stale)
            self.collect("-o")
            self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])

    def test_a_log_that_is_full_rolls_over(self):
        (self.folder / "agent-cli.log").write_bytes(b"x" * 10_230 + b"\r\n")
        self.collect("-o", on=FULL)
        self.assertTrue((self.folder / "agent-cli.1.log").read_bytes().startswith(b"xxx"))
        self.assertNotIn("xxx", Archive(self.zip).text("agent-cli.log"))

    def test_nothing_planted_there_is_run_or_written_through(self):
        # Wine follows symbolic links even to delete them; second names of a file it can tell.
        targets = []
        for name in ("agent-cli.log", "agent-cli.1.log", "diagnostics.zip", "manifest.json", "RoutePrint.txt",
                     "TcpipBind.txt", "lacli_tunnel.log", "regval.txt", "lacli_traffic_rdns.log"):
            targets.append(self.scratch / f"target of {name}")
            targets[-1].write_bytes(b"precious")
            os.link(targets[-1], self.folder / name)
        # A user's own folder stands first in the path. (Wine's interpreter also looks in the current directory.)
        tools = self.scratch / "bin"
        tools.mkdir()
        for name in ("route.exe", "netstat.exe", "wmic.exe", "systeminfo.exe", "cmd.exe"):
            shutil.copyfile(TOOL, tools / name)
        for name in ("dbghelp.dll", "cmd.exe"):
            shutil.copyfile(TOOL, self.folder / name)
        done = FULL.run(EXE, "agent", "collect-diagnostics", cwd=self.folder, WINEPATH=windows_path(tools))
        self.assertEqual(done.returncode, 0, done.stdout)
        for target in targets:
            self.assertEqual(target.read_bytes(), b"precious", target)
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), [(LOG, 19), (CONFIG, 4), (SAMPLE, 16), (CRASH, 8)])
        for name in SAMPLES[:9]:
            # The planted programs answer this to every question that they do not know.
            self.assertNotIn(b"Unknown command.", archive.entries[name][1], name)


class Kill(Case):
    runs = 50

    def test_a_killed_run_leaves_a_whole_archive_and_the_next_one_works(self):
        numbers = random.Random(4711)
        start = time.monotonic()
        self.collect(on=FULL)
        whole = time.monotonic() - start
        delays = [whole * numbers.random() for _ in range(self.runs)]
        with concurrent.futures.ThreadPoolExecutor(2) as lanes:
            counts = list(lanes.map(self.kill_after, range(self.runs), delays))
        found = sorted(count for count in counts if count)
        self.assertGreater(len(set(found)), self.runs // 5, f"the kills hit too few different moments: {counts}")
        for number in (0, self.runs - 1):
            self.collect("-o", on=FULL, folder=self.scratch / str(number))
            self.assertEqual(Archive(self.scratch / str(number) / "diagnostics.zip").types(), [(CONFIG, 4)])

    def kill_after(self, number, delay):
        """Returns how many files the archive of the killed run holds."""
        folder = self.scratch / str(number)
        folder.mkdir()
        process = FULL.start(EXE, "agent", "collect-diagnostics", cwd=folder)
        time.sleep(delay)
        process.kill()
        process.communicate()
        left = folder / "diagnostics.zip"
        if not left.exists() or left.stat().st_size == 0:
            return 0
        archive = Archive(left)
        for name in archive.names:
            if name.startswith(LOG + "_0/"):
                source = machine.log_text(machine.OXM + "/" + name.split("/")[-1], 30_000)
                if re.search(r"/oxm[.0-9]*\.log$", name):
                    self.assertEqual(archive.entries[name][1], source, name)
        return len(archive.names)

"""The program as its user runs it, judged by the zip, the manifest, the log, the console and the exit status."""

import collections
import concurrent.futures
import contextlib
import datetime
import os
import pathlib
import random
import re
import shutil
import subprocess
import threading
import time
import zlib

from expected_rows import (ANY, CONFIG, CRASH, LOG, REFUSED, SAMPLE, TEXTS, rows_of_full_run, tool_text, types)
from machines import BARE, EXE, FULL, TOOL, Archive, Case, Console, machine, running_in, windows_path
from opened import OpenedFiles

SAMPLE_FILES = ["RoutePrint", "IpConfig", "NicConfig", "NicDetails", "NetStat", "SystemInfo", "ProcessInfo",
                "ServiceInfo", "DriverInfo", "TcpipBind"]
SAMPLES = [f"{SAMPLE}_{number}/{name}.txt" for number, name in enumerate(SAMPLE_FILES)]
FIELDS = {"name", "origin", "rawProcessExitCode", "archivePath", "type", "success", "errors", "startedAt", "durationMs"}
TOOL_FOLDER = "Lumora Access Agent"
MILLISECOND = datetime.timedelta(milliseconds=1)
UTC = datetime.timezone.utc
INDIA = datetime.timezone(datetime.timedelta(hours=5, minutes=30))


def started_at(row):
    return datetime.datetime.strptime(row["startedAt"], "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=UTC)


class FullRun(Case):
    def test_collects_everything_that_is_promised_and_nothing_else(self):
        temporary = [FULL.drive / "windows/temp", *(path / "AppData/Local/Temp" for path in FULL.profiles())]
        before = [sorted(folder.glob("*")) for folder in temporary]
        with contextlib.ExitStack() as held:
            holder = FULL.hold_lock()
            held.callback(holder.communicate)
            held.callback(holder.kill)
            opened = held.enter_context(OpenedFiles(FULL.drive))
            start = datetime.datetime.now(UTC)
            printed = self.collect(on=FULL, TZ="Asia/Kolkata")
            end = datetime.datetime.now(UTC)
        self.assert_located(printed, self.zip)
        self.assert_folder_holds("diagnostics.zip")
        self.assertEqual([sorted(folder.glob("*")) for folder in temporary], before)
        archive = Archive(self.zip)
        for reader in (["unzip", "-tqq"], ["7z", "t", "-bso0", "-bsp0"]):
            subprocess.run([*reader, self.zip], check=True)
        self.check_times(archive.rows, start, end)
        sources = self.check_rows(archive)
        self.check_files(archive, sources)
        self.check_texts(archive)
        self.check_opened(opened.paths, sources)

    def check_times(self, rows, start, end):
        """Each row starts when the one before it has ended, all of them within the run."""
        earliest = start - MILLISECOND
        for row in rows:
            self.assertGreaterEqual(started_at(row), earliest, row)
            # Two clocks, which do not tick together.
            earliest = started_at(row) + (row.get("durationMs", 0) - 200) * MILLISECOND
        self.assertLessEqual(earliest, end)

    def check_rows(self, archive):
        """Compares each field of each row; returns where each archived log or dump comes from."""
        expected = rows_of_full_run([profile.name for profile in FULL.profiles()])
        self.assertEqual([(row["type"], row["name"], row["origin"]) for row in archive.rows],
                         [(row.type, row.name, row.origin) for row in expected])
        numbers, sources = collections.Counter(), {}
        for row, wanted in zip(archive.rows, expected):
            with self.subTest(wanted.type, name=wanted.name, origin=wanted.origin):
                # A row that archives nothing leaves its number to the next one.
                folder = f"{wanted.type}_{numbers[wanted.type]}"
                numbers[wanted.type] += bool(wanted.files)
                self.assertEqual(row["archivePath"], folder)
                archived = {f"{folder}/{pathlib.PurePosixPath(file).name}": file for file in wanted.files}
                sources |= archived
                self.assertEqual(row.get("success", False), bool(wanted.files))
                errors = row.get("errors", [])
                self.assertEqual(len(errors), len(wanted.errors), errors)
                for error, pattern in zip(errors, wanted.errors):
                    self.assertRegex(error, pattern)
                exit_code = wanted.exit
                if exit_code is ANY:
                    command, exit_code = re.match(rb"Command: (.*)\r\nExit code: (\d+)\r\nOutput:\r\n",
                                                  archive.entries[min(archived)][1]).groups()
                    self.assertEqual(command.decode(), wanted.origin)
                self.assertEqual(row.get("rawProcessExitCode", 0), int(exit_code or 0))
                self.assertLessEqual(set(row), FIELDS)
        self.assertEqual(sorted(archive.names), sorted([*sources, "manifest.json", "agent-cli.log"]))
        return {name: file for name, file in sources.items() if name.startswith((LOG, CRASH))}

    def check_files(self, archive, sources):
        """Each archived file is byte for byte the one on the machine, with its time."""
        for name, source in sources.items():
            entry, data = archive.entries[name]
            self.assertEqual(data, (FULL.drive / source).read_bytes(), name)
            written = datetime.datetime.fromtimestamp((FULL.drive / source).stat().st_mtime, INDIA)
            added = datetime.datetime(*entry.date_time, tzinfo=INDIA)
            self.assertLessEqual(abs((added - written).total_seconds()), 2, name)
            # As zlib deflates at level 5.
            deflated = zlib.compressobj(5, zlib.DEFLATED, -zlib.MAX_WBITS, zlib.DEF_MEM_LEVEL + 1)
            self.assertEqual(entry.compress_size, len(deflated.compress(data) + deflated.flush()) if data else 0, name)

    def check_texts(self, archive):
        texts = {name.split("/")[-1]: archive.text(name) for name in archive.names
                 if name.startswith(CONFIG) or name.split("/")[-1] in TEXTS}
        for name, wanted in TEXTS.items():
            pattern = re.escape(wanted.replace("\n", "\r\n"))
            pattern = pattern.replace(r"\{time\}", r"\d\d:\d\d:\d\d \d{4}-\d\d-\d\d").replace(r"\{unreadable\}", ".*")
            self.assertRegex(texts[name], rf"\A{pattern}\Z", name)
        # The key was made with the machine, which is not kept for long.
        written = re.search(r"\d\d:\d\d:\d\d \d{4}-\d\d-\d\d", texts["regval.txt"])[0]
        written = datetime.datetime.strptime(written, "%H:%M:%S %Y-%m-%d").replace(tzinfo=UTC).timestamp()
        self.assertTrue(0 < time.time() - written < 30 * 24 * 3600, written)
        self.assertTrue(archive.text("manifest.json").startswith('{\r\n "diagnostics": [\r\n  {\r\n'))
        log = archive.text("agent-cli.log")
        problems = "".join(error + "\n" for row in archive.rows for error in row.get("errors", []))
        self.assertIn(f"Collectors reported the following warnings or errors: \n{problems}", log.replace("\r\n", "\n"))

    def check_opened(self, opened, sources):
        """Of the machine's files, those that are collected are opened, those that are refused, and the tool."""
        # Wine opens its own files below the Windows folder, which are no logs.
        opened = {path for path in opened if not path.startswith("windows/") or re.search("setupapi|VqPlapApp", path)}
        self.assertLessEqual(opened, {*sources.values(), *REFUSED, machine.TOOL})


class Redirected(Case):
    def test_prints_one_line_although_there_is_a_console(self):
        with Console(BARE, self.folder) as run:
            run.wait()
            self.assertEqual(run.process.returncode, 0)
            self.assert_located(run.text(), self.zip)
            self.assertEqual((run.shown, run.titles()), (b"", []))
        self.assert_nothing_runs_in(self.folder)


class BareRun(Case):
    def test_every_row_is_there_although_nothing_is(self):
        # No profile but for its spelling; an unknown one's folder named so would be.
        default = BARE.drive / "users/Default"
        (default / "AppData").mkdir(parents=True)
        self.addCleanup(shutil.rmtree, default)
        start = datetime.datetime.now(UTC)
        self.assert_located(self.collect(TZ="Asia/Kolkata"), self.zip)
        self.assert_folder_holds("diagnostics.zip")
        # Wine shows an access list without other accounts as a mode without bits for them.
        for name in ("diagnostics.zip", "agent-cli.log"):
            self.assertEqual((self.folder / name).stat().st_mode & 0o007, 0, name)
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), types(len(BARE.profiles())))
        self.assertLess(abs(started_at(archive.rows[0]) - start), datetime.timedelta(minutes=5))
        rows = {kind: [row for row in archive.rows if row["type"] == kind] for kind in (LOG, CONFIG, SAMPLE, CRASH)}
        self.assertFalse([row for kind in (LOG, CONFIG, CRASH) for row in rows[kind] if row.get("success")])
        # What has no place at all says so; a place without the files says nothing.
        failed = r"FileCopier failed copying file {}: Exception in .*Cannot read string from registry; "
        for row, names in ((rows[LOG][0], ()), (rows[LOG][1], ("vq_pv_hrpt.xml", "update_tmp.bat")),
                           (rows[CRASH][0], ("VqPVS.dmp",)), (rows[CRASH][1], ())):
            self.assertEqual(len(row.get("errors", [])), len(names))
            for error, name in zip(row.get("errors", []), names):
                self.assertRegex(error, failed.format(re.escape(name)))
        for row in rows[LOG][2:] + rows[CRASH][2:]:
            self.assertEqual(row.get("errors", []), [])
        for row, wanted in zip(rows[CONFIG], (
                r"\ANot dumping the Portavo key SOFTWARE\\Velqor\\Portavo as it does not exist\.\Z",
                r"\ANot dumping the AOXM registry key SOFTWARE\\Velqor\\OXM as it wasn't found\.\Z",
                r"\ANot dumping the AOXM registry key SOFTWARE\\Velqor\\OXM\\Config as it wasn't found\.\Z",
                r"\AFailed exporting Lumora Access Agent key SOFTWARE\\Velqor\\Lumora Access Agent: Exception in .*"
                r"Cannot open non-existent registry key HKEY_LOCAL_MACHINE\\SOFTWARE\\Velqor\\Lumora Access Agent\.\n")):
            self.assertEqual(len(row["errors"]), 1)
            self.assertRegex(row["errors"][0], wanted)
        # Every command yields its file, known here or not; nothing was archived from the other sets.
        self.assertEqual({name for name in archive.names if not name.endswith("TcpipBind.txt")},
                         {*SAMPLES[:9], "manifest.json", "agent-cli.log"})

    def test_the_log_says_what_the_manifest_does_not(self):
        for flag, lines in (
                ("-l", [("info", r"The ProgramData folder path is C:\ProgramData."),
                        ("info", r"No files with extension .log were found in directory C:\WINDOWS\inf.")]),
                ("-c", [("error", "Diagnostics failed copying extensions for .dmp: Exception in ")]),
                ("-o", [("warning", "Failed exporting Lumora Access Agent key ")])):
            for log in self.folder.glob("agent-cli*"):
                log.unlink()
            self.collect(flag)
            log = self.log()
            for level, text in lines:
                self.assertRegex(log, rf"\[{level}\] (Error in function .*---> )?{re.escape(text)}")
        self.assertNotIn("Not dumping the Portavo key", log.split("Collectors reported")[0])


VELQOR = r"HKEY_LOCAL_MACHINE\SOFTWARE\Velqor"
HEAD = "Credential Provider Filters:\n\nSSO cache:\nSSO cache is empty.\n\nPreferredIP"


class Registry(Case):
    def report_on(self, keys):
        """Imports the keys below Velqor, each with its lines; returns the run's archive."""
        self.addCleanup(self.import_keys, f"[-{VELQOR}]\n")
        # The log is small: it has room for few failures.
        there = [(key, "") for key in ("\\OXM", "\\OXM\\Config", "\\Lumora Access Agent")]
        self.import_keys("".join(f"[{VELQOR}{key}]\n{lines}\n" for key, lines in there + keys))
        self.collect("-o")
        return Archive(self.zip)

    def test_a_failing_section_costs_no_other(self):
        archive = self.report_on([
            ("\\Portavo", '"wrap-cp-guid"=dword:1'), ("\\Portavo\\VqPVS", '"PreferredIP"=hex:' + ",".join(["78"] * 16)),
            ("\\Portavo\\VqSetup", '"Prelogon"="on"')])
        self.assertEqual(archive.text(f"{CONFIG}_0/regval.txt").replace("\r\n", "\n"), HEAD + (
            ":Failed writing out the PreferredIP value as it was unexpected size: 16.\nPrelogon:on\nSettings:\n"))
        # A missing key is no fault, and takes no room in the small log.
        self.assertEqual(re.findall(r"\[warning\] Failed writing out (.*): Exception in ", self.log()), ["CP GUID"])

    def test_what_is_not_there_is_said(self):
        archive = self.report_on([
            ("\\Portavo", '"LatestCP"=hex:'), ("\\Portavo\\VqSetup", ""), ("\\Portavo\\Settings", "")])
        self.assertEqual(archive.text(f"{CONFIG}_0/regval.txt").replace("\r\n", "\n"), HEAD + (
            " is not present\n\nPrelogon value is not present\n\nwrap-cp-guid value is not present.\n\nSettings:\n"))
        self.assertNotIn("Failed", self.log())

    def test_exports_take_any_tree_and_no_faulty_text(self):
        path = "\\Lumora Access Agent"
        deep = [(path + "\\k" * level, '"n"=dword:1') for level in range(300)]
        wide = [(rf"{path}\k\{number:0>254}", '"n"=dword:1') for number in range(1500)]
        archive = self.report_on([*deep, *wide, ("\\OXM", '"n"=hex(1):61,00,00,d8')])
        export = next(name for name in archive.names if name.endswith("/lumora-access-agent.txt"))
        self.assertEqual(archive.text(export).count("Keyname: "), 1800)
        self.assertRegex(archive.row(r"SOFTWARE\Velqor\OXM")["errors"][0],
                         r"^Failed exporting AOXM registry key SOFTWARE\\Velqor\\OXM: .*ConvertWStringToString\(\)")


class Limits(Case):
    def test_a_file_of_exactly_the_limit_is_collected(self):
        logs = BARE.drive / "ProgramData/Velqor/DLP/logs"
        self.addCleanup(shutil.rmtree, logs.parent)
        logs.mkdir(parents=True)
        for name, size in (("exact.txt", machine.SIZE_LIMIT), ("over.txt", machine.SIZE_LIMIT + 1)):
            with open(logs / name, "wb") as file:
                file.truncate(size)
        self.collect("-l")
        archive = Archive(self.zip)
        self.assertEqual(set(archive.names), {f"{LOG}_0/exact.txt", "manifest.json", "agent-cli.log"})
        self.assertEqual(archive.entries[f"{LOG}_0/exact.txt"][0].file_size, machine.SIZE_LIMIT)
        self.assertEqual(archive.row("*.txt")["errors"], [
            "Excluded file 'C:\\ProgramData\\Velqor\\DLP\\logs\\over.txt' (200 MB) because it exceeds the maximum file "
            "size limit of 200 MB."])


    def test_a_row_takes_a_thousand_files_and_of_a_user_the_newest_gigabyte(self):
        user = BARE.profiles()[0]
        logs, panes = BARE.drive / "ProgramData/Velqor/DLP/logs", user / "AppData/Local/Velqor/OXM"
        self.addCleanup(self.import_keys, f"[-{VELQOR}]\n")
        self.import_keys(f'[{VELQOR}\\OXM]\n"Path"="C:\\\\Velqor\\\\OXM"\n')
        vpn = BARE.drive / "Velqor/Portavo"
        for folder in (logs, panes / "Viewpane", panes / "ViewpaneUI", vpn):
            self.addCleanup(shutil.rmtree, folder.parent, ignore_errors=True)
            folder.mkdir(parents=True)
        for number in range(1005):
            (logs / f"{number}.txt").touch()
            (vpn / f"{number}.{'old' if number % 2 else 'log'}").touch()
            (panes / "Viewpane" / f"{number}.log").touch()
            os.utime(panes / "Viewpane" / f"{number}.log", (0, 1_700_000_000 + (number >= 5)))
            (panes / "Viewpane" / f"folder {number}").mkdir()
        for number, size in enumerate([machine.SIZE_LIMIT] * 6 + [machine.SIZE_LIMIT + 1]):
            with open(panes / "ViewpaneUI" / f"{number}.bin", "wb") as file:
                file.truncate(size)
            os.utime(file.name, (0, 1_700_000_000 + number))
        self.collect("-l")
        archive = Archive(self.zip)
        pane = rf"users\{user.name}\AppData\Local\Velqor\OXM\Viewpane"
        # Files by stem, of the user's the newest ones; the number of messages, of which one counts the files left out.
        for name, files, messages, left, folder in (
                ("*.txt", {f"{stem}.txt" for stem in sorted(map(str, range(1005)))[:1000]}, 1, 5,
                 r"ProgramData\Velqor\DLP\logs"),
                ("*.log, *.old, vq_pv_hrpt.xml, update_tmp.bat", {f"{number}.log" for number in range(0, 1005, 2)} |
                 {f"{stem}.old" for stem in sorted(map(str, range(1, 1005, 2)))[:497]}, 1, 5, r"Velqor\Portavo"),
                ("Viewpane", {f"{number}.log" for number in range(5, 1005)}, 1001, 5, pane),
                ("ViewpaneUI", {f"{number}.bin" for number in range(1, 6)}, 2, 1, pane + "UI")):
            with self.subTest(name):
                row = next(row for row in archive.rows if row["name"] == name and row.get("success"))
                found = {entry.split("/")[1] for entry in archive.names if entry.startswith(row["archivePath"] + "/")}
                self.assertEqual(found, files)
                self.assertEqual(len(row["errors"]), messages)
                self.assertEqual(row["errors"][-1], (
                    f"{left} further files of the folder C:\\{folder} were left out: at most 1000 files are taken, "
                    "and of a user's folder the newest ones up to 1 GiB."))


class Links(Case):
    """Users can make links in their profiles and in ProgramData: what lies elsewhere is not collected for them."""

    def setUp(self):
        super().setUp()
        self.user, self.other = BARE.profiles()[0], BARE.drive / "other"
        self.local, self.data = self.user / "AppData/Local/Velqor", BARE.drive / "ProgramData/Velqor"
        self.moved = BARE.drive / "users/moved"
        for path in (self.local, self.data, self.other):
            self.addCleanup(shutil.rmtree, path, ignore_errors=True)
        for path in (self.data, self.moved):
            self.addCleanup(lambda link: link.unlink() if link.is_symlink() else None, path)
        for path in (self.local / "OXM/Viewpane/own.log", self.local / "OXM/Viewpane/held.log",
                     self.local / "OXM/Viewpane/sub/deep.log", self.data / "DLP/logs/own.txt",
                     self.data / "DLP/logs/sub/deep.txt", self.other / "secret.log", self.other / "secret.txt",
                     self.other / "VqPVA.log", self.other / "VqPVA.log.old", self.other / "moved/VqPVA.dmp",
                     *(self.other / f"Logs/LumoraAccessAgentLog.etl.00{number}" for number in range(6))):
            machine.write(path, path.name.encode())

    def test_nothing_is_read_through_a_link(self):
        panes, logs = self.local / "OXM/Viewpane", self.data / "DLP/logs"
        for link, target in ((panes / "link.log", "secret.log"), (logs / "link.txt", "secret.txt"),
                             (logs / "folder", ""), (self.local / "OXM/ViewpaneUI", ""), (self.local / "Portavo", ""),
                             (self.data / "Lumora Access Agent", ""), (self.moved, "moved")):
            link.symlink_to(self.other / target)
        os.link(self.other / "secret.log", panes / "hard.log")
        os.link(self.other / "secret.txt", logs / "hard.txt")
        holder = BARE.start(TOOL, "hold", windows_path(panes / "held.log"))
        self.addCleanup(holder.communicate)
        self.addCleanup(holder.kill)
        self.assertTrue(holder.stdout.readline().startswith(b"held"))
        access = self.data / "Lumora Access Agent/Logs"
        archive = self.collect_and_compare(
            [(panes, [panes / name for name in ("hard.log", "link.log", "sub")]),
             (logs, [logs / name for name in ("folder", "hard.txt", "link.txt")]),
             (self.local / "Portavo", [self.local / "Portavo" / name for name in ("VqPVA.log", "VqPVA.log.old")]),
             (access, [access, *(access / f"LumoraAccessAgentLog.etl.00{number}" for number in range(6))])],
            {"own.log", "own.txt", "deep.txt", "VqPVA.dmp"})
        # A profile may lie elsewhere as a whole.
        self.assertTrue(next(row for row in archive.rows if row.get("origin") == r"C:\users\moved")["success"])

    def test_nothing_is_read_where_the_shared_folder_is_a_link(self):
        self.data.rename(self.other / "Velqor")
        self.data.symlink_to(self.other / "Velqor")
        shutil.rmtree(self.local)
        logs = self.data / "DLP/logs"
        self.collect_and_compare([(logs, [logs])], set())

    def collect_and_compare(self, refused, archived):
        """The folders of rows with the paths that they refuse, and the names of all that is archived."""
        def on_machine(path):
            return "C:\\" + str(path.relative_to(BARE.drive)).replace("/", "\\")

        self.collect("-l", "-c")
        archive = Archive(self.zip)
        self.assertEqual({name.split("/")[-1] for name in archive.names}, {*archived, "manifest.json", "agent-cli.log"})
        for folder, paths in refused:
            row = next(row for row in archive.rows if row.get("origin") == on_machine(folder))
            errors = [error for error in row.get("errors", []) if error.endswith("is not a regular file.")]
            self.assertEqual(sorted(errors),
                             sorted(f"The file '{on_machine(path)}' is not a regular file." for path in paths))
        return archive


class SlowTool(Case):
    def test_an_answer_may_pause_for_less_than_ten_seconds(self):
        pauses = ({"LACLI_PAUSE_status": "3000", "LACLI_PAUSE_tunnel": "60000"},
                  {"LACLI_PAUSE_traffic_rdns_export": "60000", "LACLI_PAUSE_traffic_show": "8500"})
        with concurrent.futures.ThreadPoolExecutor(2) as lanes:
            one, other = lanes.map(self.samples_with, pauses)
        for archive, name, seconds in ((one, "status", 3), (one, "tunnel", 10), (other, "traffic rdns export", 10),
                                       (other, "traffic show", 8.5)):
            with self.subTest(name):
                self.assertGreaterEqual(archive.row(name)["durationMs"], seconds * 1000 - 50)
                self.assertLess(archive.row(name)["durationMs"], seconds * 1000 + 5000)
        # A busy machine may be slow in one of the two.
        self.assertLess(min(one.row("tunnel")["durationMs"], other.row("traffic rdns export")["durationMs"]), 12000)
        for archive, name in ((one, "status"), (other, "traffic_show")):
            self.assertIn(TEXTS[f"lacli_{name}.log"].replace("\n", "\r\n"), archive.texts())
        # Ended after ten seconds: what came before the pause is kept; an export is never begun.
        exit_code = one.row("tunnel")["rawProcessExitCode"]
        self.assertIn(exit_code, (258, 259))
        self.assertIn(tool_text("tunnel", "Tunnel: connected\n", exit_code).replace("\n", "\r\n"), one.texts())
        self.assertFalse({"success", "errors"} & other.row("traffic rdns export").keys())

    def samples_with(self, pauses):
        folder = self.scratch / "_".join(pauses)
        folder.mkdir()
        log, has_ended, flushed = folder / "agent-cli.log", threading.Event(), []

        def watch():
            while not has_ended.wait(0.1) and not (log.exists() and log.stat().st_size):
                pass
            flushed.append(time.monotonic())

        start = time.monotonic()
        watcher = threading.Thread(target=watch)
        watcher.start()
        try:
            self.collect("-s", on=FULL, folder=folder, **pauses)
        finally:
            has_ended.set()
            watcher.join()
        # The log is flushed every five seconds, not only at the end.
        self.assertLess(flushed[0] + 1, time.monotonic())
        archive = Archive(folder / "diagnostics.zip")
        measured = (time.monotonic() - start) * 1000
        self.assertLess(sum(row.get("durationMs", 0) for row in archive.rows), measured)
        return archive


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
        for arguments, kinds in ((["-l"], [LOG]), (["--config"], [CONFIG]), (["-s"], [SAMPLE]), (["--crash"], [CRASH]),
                                 (["-c", "-l"], [LOG, CRASH]), (["-co"], [CONFIG, CRASH]),
                                 (["-c", "-s", "-o", "-l"], [LOG, CONFIG, SAMPLE, CRASH])):
            with self.subTest(arguments):
                self.collect(*arguments)
                self.assertEqual(Archive(self.zip).types(), types(len(BARE.profiles()), kinds))

    def test_samples_bring_the_tool_where_it_is_installed(self):
        self.collect("-s", on=FULL)
        self.assertEqual(Archive(self.zip).types(), [(SAMPLE, 16)])


class ToolPath(Case):
    """Install paths that make it doubtful which tool is the access agent's."""

    def setUp(self):
        super().setUp()
        self.parent = BARE.drive / "Velqor"
        self.addCleanup(shutil.rmtree, self.parent, ignore_errors=True)
        self.addCleanup(shutil.rmtree, BARE.drive / TOOL_FOLDER, ignore_errors=True)
        self.addCleanup(BARE.run, "reg", "delete", r"HKLM\SOFTWARE\Velqor", "/f")

    def set_install_path(self, value, kind="REG_SZ"):
        done = BARE.run("reg", "add", r"HKLM\SOFTWARE\Velqor\OXM", "/v", "Path", "/t", kind, "/d", value, "/f")
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_is_not_asked_when_any_user_could_have_put_it_there(self):
        self.set_install_path(r"C:\OXM\\")
        self.collect("-s")
        self.assertEqual(Archive(self.zip).types(), [(SAMPLE, 10)])
        for value, kind, wanted in (("C:\\OXM\\", "REG_SZ", r"any user can create its folder in C:\\\Z"),
                                    ("OXM", "REG_SZ", "The install path 'OXM' is not absolute"),
                                    ("1", "REG_DWORD", "")):
            with self.subTest(value):
                (BARE.drive / TOOL_FOLDER).mkdir(exist_ok=True)
                shutil.copyfile(TOOL, BARE.drive / TOOL_FOLDER / "lacli.exe")
                self.set_install_path(value, kind)
                self.collect("-s")
                row = Archive(self.zip).rows[10]
                self.assertEqual((row["name"], row.get("success")), ("lacli.exe", None))
                self.assertEqual(len(row["errors"]), 1)
                self.assertRegex(row["errors"][0], "The access agent's tool is not asked: (?s:.)*" + wanted)

    def test_one_that_cannot_be_looked_at_costs_its_own_rows_alone(self):
        (self.parent / TOOL_FOLDER).mkdir(parents=True)
        (self.parent / TOOL_FOLDER / "lacli.exe").symlink_to("lacli.exe")
        self.set_install_path(r"C:\Velqor\OXM")
        printed = self.collect("-s", "-c", "-p", "out.zip", status=1)
        self.assertRegex(printed, r"\AUnexpected error: .*exists.*lacli\.exe")
        self.assert_folder_holds("diagnostics.zip")
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), types(len(BARE.profiles()), (SAMPLE, CRASH)))
        self.assertIn("agent-cli.log", archive.names)


class Path(Case):
    folder_name = "Ordner für Läufe"

    def test_moves_the_archive_to_the_path(self):
        other = self.scratch / "andere Größe"
        other.mkdir()
        (self.folder / "old.zip").write_bytes(b"something else")
        os.link(self.folder / "old.zip", other / "second name.zip")
        for given, expected in (("out.zip", self.folder / "out.zip"), ("old.zip", self.folder / "old.zip"),
                                ("./x/../dotted.zip. .", self.folder / "dotted.zip"),
                                (windows_path(other / "Müller 日本.zip"), other / "Müller 日本.zip"),
                                ("\\\\?\\" + windows_path(other / "verbatim.zip"), other / "verbatim.zip")):
            with self.subTest(given):
                self.assert_located(self.collect("-o", "-p", given).replace("\\\\?\\", ""), expected)
                self.assertEqual(Archive(expected).types(), [(CONFIG, 4)])
                self.assertFalse(self.zip.exists())
        self.assertEqual((other / "second name.zip").read_bytes(), b"something else")

    def test_never_writes_to_a_file_that_was_there(self):
        (self.folder / "old.zip").write_bytes(b"something else")
        with open(self.folder / "old.zip", "rb") as old:
            self.collect("-o", "-p", "old.zip")
            self.assertEqual((os.fstat(old.fileno()).st_nlink, old.read()), (0, b"something else"))
        self.assertEqual(Archive(self.folder / "old.zip").types(), [(CONFIG, 4)])

    def test_a_device_is_refused_before_anything_is_collected(self):
        for given in ("NUL", "\\\\.\\NUL", "\\\\?\\NUL", "sub\\..\\con"):
            with self.subTest(given):
                self.assertIn("is that of a device, not of a file.", self.collect("-o", "-p", given, status=1))
                self.assert_folder_holds()

    def test_keeps_an_archive_that_is_its_own_destination(self):
        for given in ("diagnostics.zip", ".\\diagnostics.zip", "DIAGNOSTICS.ZIP", windows_path(self.zip)):
            with self.subTest(given):
                printed = self.collect("-o", "--path", given)
                self.assertEqual(printed.lower(), f"diagnostics zip located at: {windows_path(self.zip)}\r\n".lower())
                self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])

    def test_leaves_the_archive_whole_where_it_cannot_be_moved(self):
        (self.scratch / "link").symlink_to(self.folder, target_is_directory=True)
        missing = f"the folder {windows_path(self.folder)}\\nowhere does not exist"
        for given in ("nowhere\\out.zip", windows_path(self.scratch), windows_path(self.scratch / "link")):
            with self.subTest(given):
                (self.folder / "agent-cli.log").unlink(missing_ok=True)
                printed = self.collect("-o", "-p", given, status=1)
                self.assertRegex(printed, r"\AUnexpected error: .*[^\r\n]\Z")
                self.assertIn(windows_path(self.zip), printed)
                self.assertEqual(missing in printed, given.startswith("nowhere"), printed)
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

    def test_a_console_shows_an_error_as_it_was_typed(self):
        with Console(BARE, self.folder, "--Größe=日本", redirected=False) as run:
            run.wait()
            self.assertEqual(run.process.returncode, 109)
            self.assertIn("--Größe=日本", run.shown.decode())

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

    def test_an_earlier_log_is_kept_and_rolls_over_when_it_is_full(self):
        log, rotated = self.folder / "agent-cli.log", self.folder / "agent-cli.1.log"
        log.write_bytes(b"earlier\r\n")
        log.chmod(0o666)
        self.collect("-o", on=FULL)
        self.assert_heading(log.read_text(), "earlier\n")
        # Wine shows the access list as a mode.
        self.assertEqual(log.stat().st_mode & 0o007, 0)
        log.write_bytes(b"x" * 10_230 + b"\r\n")
        self.collect("-o", on=FULL)
        self.assertTrue(rotated.read_bytes().startswith(b"xxx"))
        self.assert_heading(Archive(self.zip).text("agent-cli.log"))
        self.assertEqual(log.stat().st_mode & 0o007, 0)
        # Of a larger one the last whole lines are kept.
        log.write_bytes(b"x" * 10_300 + b"\r\nkept\r\n")
        self.collect("-o", on=FULL)
        self.assert_heading(log.read_text(), "kept\n")
        self.assertEqual(self.log().count(" on Windows "), 1)

    def assert_heading(self, log, before=""):
        self.assertRegex(log, rf"\A{before}\[.*\] \[default\] \[(info\] .*, |warning\] .*, not )elevated.*, "
                              rf"current directory {re.escape(windows_path(self.folder))}, command line .* -o\r?\n")
        self.assertRegex(log, r"\] AgentCLI \d+\.\d+\.\d+ on Windows \d+\.\d+\.\d+, ")

    def test_a_log_that_cannot_be_rotated_costs_its_older_lines(self):
        (self.folder / "agent-cli.log").write_bytes(b"x" * 10_230 + b"\r\n")
        (self.folder / "agent-cli.1.log" / "inside").mkdir(parents=True)
        self.collect("-o")
        self.assertIn("Collectors reported", Archive(self.zip).text("agent-cli.log"))

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
        # Not a name that the program uses there.
        self.assertEqual((self.folder / "manifest.json").read_bytes(), b"precious")
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), types(len(FULL.profiles()), tool=True))
        for name in SAMPLES[:9]:
            # The planted programs answer this to every question that they do not know.
            self.assertNotIn(b"Unknown command.", archive.entries[name][1], name)


class Planted(Case):
    runs = 50
    names = ["manifest.json", "agent-cli.1.log", "lacli_traffic_rdns.log", "lacli_tunnel.log", "regval.txt",
             "registry-oxm.txt", "lumora-access-agent.txt", *(f"{name}.txt" for name in SAMPLE_FILES)]

    def test_folders_and_locks_under_its_names_cost_neither_manifest_nor_log(self):
        numbers = random.Random(815)
        plans = [(number, ["-o", "-l"] if number % 5 else [], [(numbers.random() ** 2, name) for name in
                                                              numbers.sample(self.names, 6)])
                 for number in range(self.runs)]
        with concurrent.futures.ThreadPoolExecutor(2) as lanes:
            list(lanes.map(self.run_among, *zip(*plans)))

    def run_among(self, number, arguments, plants):
        folder = self.scratch / str(number)
        folder.mkdir()
        process = FULL.start(EXE, "agent", "collect-diagnostics", *arguments, cwd=folder)
        holders, start = [], time.monotonic()
        for index, (moment, name) in enumerate(sorted(plants)):
            time.sleep(max(0, start + (2 if not arguments else 1) * moment - time.monotonic()))
            with contextlib.suppress(OSError):
                if index or number % 5:
                    (folder / name / "inside").mkdir(parents=True)
                else:
                    (folder / name).touch(exist_ok=False)
                    holders.append(FULL.start(TOOL, "hold", windows_path(folder / name), "4000"))
        printed, _ = process.communicate()
        for holder in holders:
            holder.kill()
            holder.communicate()
        self.assertEqual((process.returncode, printed.decode()),
                         (0, f"Diagnostics zip located at: {windows_path(folder / 'diagnostics.zip')}\r\n"), plants)
        archive = Archive(folder / "diagnostics.zip")
        users = len(FULL.profiles())
        self.assertEqual(len(archive.rows), 11 + 4 * users if arguments else 29 + 6 * users, plants)
        self.assertIn("agent-cli.log", archive.names)


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

    def test_a_killed_run_takes_its_command_along(self):
        process = FULL.start(EXE, "agent", "collect-diagnostics", "-s", cwd=self.folder, LACLI_PAUSE_status="60000")
        deadline = time.monotonic() + 60
        while not any("lacli.exe status" in line for line in running_in(self.folder)):
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.05)
        process.kill()
        process.communicate()
        self.assert_nothing_runs_in(self.folder)

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
                if re.search(r"/oxm[.0-9]*\.log$", name) and not machine.LOCKED.endswith(name.split("/")[-1]):
                    self.assertEqual(archive.entries[name][1], source, name)
        return len(archive.names)

"""The program as its user runs it, judged by the zip, the manifest, the log, the console and the exit status."""

import collections
import concurrent.futures
import datetime
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import time
import zlib

from expected_rows import ANY, CONFIG, CONFIGURATION, CRASH, LOG, SAMPLE, TEXTS, rows_of_full_run, tool_text, types
from machines import BARE, EXE, FULL, TOOL, Archive, Case, machine, running_in, windows_path

SAMPLE_FILES = ["RoutePrint", "IpConfig", "NicConfig", "NicDetails", "NetStat", "SystemInfo", "ProcessInfo",
                "ServiceInfo", "DriverInfo", "TcpipBind"]
SAMPLES = [f"{SAMPLE}_{number}/{name}.txt" for number, name in enumerate(SAMPLE_FILES)]
FIELDS = {"name", "origin", "rawProcessExitCode", "archivePath", "type", "success", "errors", "startedAt", "durationMs",
          "files"}
MILLISECOND = datetime.timedelta(milliseconds=1)
UTC = datetime.timezone.utc
INDIA = datetime.timezone(datetime.timedelta(hours=5, minutes=30))


def started_at(row):
    return datetime.datetime.strptime(row["startedAt"], "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=UTC)


class FullRun(Case):
    def test_collects_everything_that_is_promised_and_nothing_else(self):
        temporary = [FULL.drive / "windows/temp", *(path / "AppData/Local/Temp" for path in FULL.profiles())]
        before = [sorted(folder.glob("*")) for folder in temporary]
        start = datetime.datetime.now(UTC)
        with FULL.holding(machine.LOCKED):
            printed = self.collect(on=FULL, TZ="Asia/Kolkata")
        self.assert_located(printed, self.zip)
        self.assert_folder_holds("diagnostics.zip")
        # Other tests have runs of their own on this machine.
        self.assert_soon(lambda: [sorted(folder.glob("*")) for folder in temporary] == before)
        archive = Archive(self.zip)
        for reader in (["unzip", "-tqq"], ["7z", "t", "-bso0", "-bsp0"]):
            subprocess.run([*reader, self.zip], check=True)
        moments = [start - MILLISECOND, *map(started_at, archive.rows), datetime.datetime.now(UTC)]
        self.assertEqual(moments, sorted(moments))
        self.check_files(archive, self.check_rows(archive))
        self.check_texts(archive)
        self.check_run(archive.manifest["run"], start)

    def check_run(self, run, start):
        """The run's facts, as far as they are known here; the log's first line says the same."""
        began = datetime.datetime.strptime(run["beganAt"], "%Y-%m-%dT%H:%M:%S.%fZ").replace(tzinfo=UTC)
        self.assertTrue(start - MILLISECOND <= began <= datetime.datetime.now(UTC), began)
        known = {"programVersion": r"\d+\.\d+\.\d+", "computerName": r"\S+", "user": r"\S+\\\S+",
                 "windowsVersion": r"\d+\.\d+\.\d+", "timeZone": ".+", "locale": "[a-z]+-[A-Z]+",
                 "commandLine": ".* agent collect-diagnostics",
                 "currentDirectory": re.escape(windows_path(self.folder))}
        for name, pattern in known.items():
            self.assertRegex(run[name], rf"\A{pattern}\Z", name)
            self.assertIn(run[name], self.log(), name)
        self.assertEqual((run["elevated"], run["utcOffsetMinutes"], run["interrupted"]), (True, 330, False))
        self.assertEqual((run["ansiCodePage"], run["oemCodePage"]), (1252, 437))

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
                self.assert_errors(row, wanted.errors)
                exit_code = wanted.exit
                if exit_code is ANY:
                    command, exit_code = re.match(rb"Command: (.*)\r\nExit code: (\d+)\r\nOutput:\r\n",
                                                  archive.data(min(archived))).groups()
                    self.assertEqual(command.decode(), wanted.origin)
                self.assertEqual(row.get("rawProcessExitCode", 0), int(exit_code or 0))
                self.assertLessEqual(set(row), FIELDS)
                self.assertRegex(row["startedAt"], r"\.\d{3}Z\Z")
                # Generated text comes from no path.
                origins = {name: f"C:/{file}".replace("/", "\\").lower() if "/" in file else ""
                           for name, file in archived.items()}
                self.assertEqual({file["name"]: file.get("origin", "").lower() for file in row.get("files", [])}, origins)
                for file in row.get("files", []):
                    self.assertEqual(file["size"], archive.zip.getinfo(file["name"]).file_size)
        self.assertEqual(sorted(archive.names), sorted([*sources, "manifest.json", "agent-cli.log"]))
        return {name: file for name, file in sources.items() if name.startswith((LOG, CRASH))}

    def check_files(self, archive, sources):
        """Each archived file is byte for byte the one on the machine, with its time."""
        for name, source in sources.items():
            entry, data = archive.zip.getinfo(name), archive.data(name)
            self.assertEqual(data, (FULL.drive / source).read_bytes(), name)
            written = datetime.datetime.fromtimestamp((FULL.drive / source).stat().st_mtime, INDIA)
            added = datetime.datetime(*entry.date_time, tzinfo=INDIA)
            self.assertLessEqual(abs((added - written).total_seconds()), 2, name)
            # As zlib deflates at level 5.
            deflated = zlib.compressobj(5, zlib.DEFLATED, -zlib.MAX_WBITS, zlib.DEF_MEM_LEVEL + 1)
            self.assertEqual(entry.compress_size, len(deflated.compress(data) + deflated.flush()) if data else 0, name)

    def check_texts(self, archive):
        texts = {name.split("/")[-1]: archive.data(name).decode() for name in archive.names
                 if name.startswith(CONFIG) or name.split("/")[-1] in TEXTS}
        for name, wanted in TEXTS.items():
            pattern = re.escape(wanted.replace("\n", "\r\n"))
            pattern = pattern.replace(r"\{time\}", r"\d\d:\d\d:\d\d \d{4}-\d\d-\d\d").replace(r"\{unreadable\}", ".*")
            self.assertRegex(texts[name], rf"\A{pattern}\Z", name)
        # The key was made with the machine, which is not kept for long.
        written = re.search(r"\d\d:\d\d:\d\d \d{4}-\d\d-\d\d", texts["regval.txt"])[0]
        written = datetime.datetime.strptime(written, "%H:%M:%S %Y-%m-%d").replace(tzinfo=UTC).timestamp()
        self.assertTrue(0 < time.time() - written < 30 * 24 * 3600, written)
        self.assertTrue(archive.data("manifest.json").startswith(b'{\r\n "diagnostics": [\r\n  {\r\n'))
        problems = "".join(error + "\n" for row in archive.rows for error in row.get("errors", []))
        self.assertIn(f"Collectors reported the following warnings or errors: \n{problems}",
                      archive.text("agent-cli.log"))


class BareRun(Case):
    def test_every_row_is_there_although_nothing_is(self):
        # A folder of exactly this name is no profile.
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
        # What has no place at all says so; a place without the files says nothing.
        failed = (r"\AFileCopier failed copying file {}: Exception in .*Cannot read string from registry; .* --> .* "
                  r"\(error code 0X2 \(2\)\)")
        absent = r"\ANot dumping the {} as it (does not exist|wasn't found)\.\Z"
        errors = {
            "*.log, *.old, vq_pv_hrpt.xml, update_tmp.bat": [failed.format("vq_pv_hrpt.xml"),
                                                             failed.format("update_tmp.bat")],
            "VqPVS.dmp": [failed.format("VqPVS.dmp")],
            CONFIGURATION[0].name: [absent.format(r"Portavo key SOFTWARE\\Velqor\\Portavo")],
            r"SOFTWARE\Velqor\OXM": [absent.format(r"AOXM registry key SOFTWARE\\Velqor\\OXM")],
            r"SOFTWARE\Velqor\OXM\Config": [absent.format(r"AOXM registry key SOFTWARE\\Velqor\\OXM\\Config")],
            r"SOFTWARE\Velqor\Lumora Access Agent": [
                r"\AFailed exporting Lumora Access Agent key SOFTWARE\\Velqor\\Lumora Access Agent: Exception in .*Cannot "
                r"open non-existent registry key HKEY_LOCAL_MACHINE\\SOFTWARE\\Velqor\\Lumora Access Agent\.\n"]}
        self.assertEqual([row.get("origin") for row in archive.rows].count(r"HKLM\SOFTWARE\Velqor\OXM\Path"), 4)
        for row in archive.rows:
            if row["type"] != SAMPLE:
                self.assertNotIn("success", row)
                self.assert_errors(row, errors.get(row["name"], []))
        # Every command yields its file, known here or not; nothing was archived from the other sets.
        self.assertEqual({name for name in archive.names if not name.endswith("TcpipBind.txt")},
                         {*SAMPLES[:9], "manifest.json", "agent-cli.log"})

    def test_the_log_says_what_the_manifest_does_not(self):
        self.collect("-l")
        self.assertIn(r"[info] The ProgramData folder path is C:\ProgramData.", self.log())
        self.assertIn(r"[info] No files with extension .log were found in directory C:\WINDOWS\inf.", self.log())
        self.collect("-c")
        self.assertRegex(self.log(), r"\[error\] Error in function .*---> Diagnostics failed copying extensions for .dmp: ")


VELQOR = r"HKEY_LOCAL_MACHINE\SOFTWARE\Velqor"
HEAD = "Credential Provider Filters:\n\nSSO cache:\nSSO cache is empty.\n\nPreferredIP"


class Registry(Case):
    def test_a_faulty_section_or_export_costs_no_other(self):
        tool = "\\Lumora Access Agent"
        faulty = [("\\Portavo", '"wrap-cp-guid"=dword:1'),
                  ("\\Portavo\\VqPVS", '"PreferredIP"=hex:' + ",".join(["78"] * 16)),
                  ("\\Portavo\\VqSetup", '"Prelogon"="on"'),
                  *((tool + "\\k" * level, '"n"=dword:1') for level in range(300)),
                  *((rf"{tool}\k\{number:0>254}", '"n"=dword:1') for number in range(1500))]
        absent = [("\\Portavo", '"LatestCP"=hex:'), ("\\Portavo\\VqSetup", ""), ("\\Portavo\\Settings", ""),
                  ("\\OXM", '"n"=hex(1):61,00,00,d8')]
        # The log is small: it has room for few failures.
        there = [(key, "") for key in ("\\OXM", "\\OXM\\Config", tool)]
        self.addCleanup(self.import_keys, f"[-{VELQOR}]\n")
        for keys, values, warned in (
                (absent, " is not present\n\nPrelogon value is not present\n\nwrap-cp-guid value is not present.\n\n"
                         "Settings:\n", []),
                # A missing key is no fault, and takes no room in the log.
                (faulty, ":Failed writing out the PreferredIP value as it was unexpected size: 16.\nPrelogon:on\n"
                         "Settings:\n", ["CP GUID"])):
            self.import_keys(f"[-{VELQOR}]\n" + "".join(f"[{VELQOR}{key}]\n{text}\n" for key, text in there + keys))
            archive = self.archive("-o")
            self.assertEqual(archive.text(f"{CONFIG}_0/regval.txt"), HEAD + values)
            self.assertEqual(re.findall(r"\[warning\] Failed writing out (.*): Exception in ", self.log()), warned)
            failed = archive.row(r"SOFTWARE\Velqor\OXM").get("errors", [])
            self.assertEqual([error.split(": ")[0] for error in failed],
                             [] if warned else [r"Failed exporting AOXM registry key SOFTWARE\Velqor\OXM"])
        export = next(name for name in archive.names if name.endswith("/lumora-access-agent.txt"))
        self.assertEqual(archive.text(export).count("Keyname: "), 1800)


class Limits(Case):
    def setUp(self):
        super().setUp()
        user = BARE.profiles()[0]
        self.logs, self.panes = BARE.drive / machine.ACCESS_LOGS, user / "AppData/Local/Velqor/OXM/Viewpane"
        self.pane = rf"users\{user.name}\AppData\Local\Velqor\OXM\Viewpane"
        for folder in (self.logs.parents[1], self.panes.parent):
            self.addCleanup(shutil.rmtree, folder, ignore_errors=True)

    def make(self, folder, sizes):
        """Files by name, each a second younger than the one before it."""
        folder.mkdir(parents=True)
        for number, (name, size) in enumerate(sizes.items()):
            with open(folder / name, "wb") as file:
                file.truncate(size)
            os.utime(file.name, (0, 1_700_000_000 + number))

    def check(self, name, files, messages, left, folder):
        """The successful row's files; the number of its messages, the last of which counts what was left out."""
        row = next(row for row in self.found.rows if row["name"].split(",")[0] == name and row.get("success"))
        self.assertEqual({entry.split("/")[1] for entry in self.found.names
                          if entry.startswith(row["archivePath"] + "/")}, set(files))
        self.assertEqual(len(row["errors"]), messages)
        self.assertEqual(row["errors"][-1], f"{left} further entries of the folder C:\\{folder} were left out: "
                                            "at most 1000 files and 1 GiB are taken.")

    def test_a_row_of_a_user_takes_its_newest_files(self):
        self.make(self.panes, {f"{number}.log": 0 for number in range(1005)})
        for number in range(1005):
            (self.panes / f"folder {number}").mkdir()
        sizes = [machine.SIZE_LIMIT] * 6 + [machine.SIZE_LIMIT + 1]
        self.make(self.panes.parent / "ViewpaneUI", {f"{number}.bin": size for number, size in enumerate(sizes)})
        self.found = self.archive("-l")
        self.check("Viewpane", (f"{number}.log" for number in range(5, 1005)), 1001, 10, self.pane)
        self.check("ViewpaneUI", (f"{number}.bin" for number in range(1, 6)), 2, 1, self.pane + "UI")

    def test_the_collectors_of_a_row_share_its_thousand_files(self):
        traces = ["LumoraAccessAgentLog.etl.000", "LumoraAccessAgentLog.etl.001"]
        names = [*(f"{number}.log" for number in range(999)), *traces]
        self.make(self.logs, dict.fromkeys(names, 0))
        self.found = self.archive("-l")
        self.check("*.log", names[:-1], 1, 1, machine.ACCESS_LOGS.replace("/", "\\"))


class Links(Case):
    """Users can make links in their profiles and in ProgramData; the files of others are not collected through them."""

    def setUp(self):
        super().setUp()
        self.local, self.data = f"users/{BARE.profiles()[0].name}/AppData/Local/Velqor", "ProgramData/Velqor"
        self.panes, self.logs = f"{self.local}/OXM/Viewpane", f"{self.data}/DLP/logs"
        for folder in (self.local, self.data, "users/moved", "other"):
            self.addCleanup(self.remove, BARE.drive / folder)
        for name in (f"{self.panes}/own.log", f"{self.panes}/held.log", f"{self.panes}/sub/deep.log",
                     f"{self.logs}/own.txt", f"{self.logs}/sub/deep.txt", "other/secret.log", "other/secret.txt",
                     "other/VqPVA.log", "other/VqPVA.log.old", "other/moved/VqPVA.dmp",
                     *(f"other/Logs/LumoraAccessAgentLog.etl.00{number}" for number in range(6))):
            machine.write(BARE.drive / name, b"text")

    @staticmethod
    def remove(path):
        path.unlink() if path.is_symlink() else shutil.rmtree(path, ignore_errors=True)

    def assert_refused(self, refused, archived):
        """The files that the rows of folders refuse, and the names of all that is archived; returns the archive."""
        archive = self.archive("-l", "-c")
        self.assertEqual({name.split("/")[-1] for name in archive.names}, {*archived, "manifest.json", "agent-cli.log"})
        for folder, names in refused.items():
            origin = "C:\\" + folder.replace("/", "\\")
            row = next(row for row in archive.rows if row.get("origin") == origin)
            errors = [error for error in row.get("errors", []) if error.endswith("is not a regular file.")]
            self.assertEqual(sorted(errors), [f"The file '{origin}{name}' is not a regular file." for name in names])
        return archive

    def test_nothing_is_read_through_a_link(self):
        for link, target in ((f"{self.panes}/link.log", "secret.log"), (f"{self.logs}/link.txt", "secret.txt"),
                             (f"{self.logs}/folder", ""), (f"{self.local}/OXM/ViewpaneUI", ""),
                             (f"{self.local}/Portavo", ""), (f"{self.data}/Lumora Access Agent", ""),
                             ("users/moved", "moved")):
            (BARE.drive / link).symlink_to(BARE.drive / "other" / target)
        # Within a folder as well as from outside.
        for name, second in (("other/secret.log", f"{self.panes}/hard.log"), ("other/secret.txt", f"{self.logs}/hard.txt"),
                             (f"{self.panes}/sub/deep.log", f"{self.panes}/second.log")):
            os.link(BARE.drive / name, BARE.drive / second)
        self.enterContext(BARE.holding(f"{self.panes}/held.log", TOOL))
        archive = self.assert_refused(
            {self.panes: [rf"\{name}" for name in ("hard.log", "link.log", "second.log", "sub")],
             self.logs: [r"\folder", r"\hard.txt", r"\link.txt"],
             f"{self.local}/Portavo": [r"\VqPVA.log", r"\VqPVA.log.old"],
             machine.ACCESS_LOGS: ["", *(rf"\LumoraAccessAgentLog.etl.00{number}" for number in range(6))]},
            {"own.log", "own.txt", "deep.txt", "VqPVA.dmp"})
        # A profile itself may be a link.
        self.assertTrue(next(row for row in archive.rows if row.get("origin") == r"C:\users\moved")["success"])

    def test_nothing_is_read_where_the_shared_folder_is_a_link(self):
        shutil.rmtree(BARE.drive / self.local)
        (BARE.drive / self.data).rename(BARE.drive / "other/Velqor")
        (BARE.drive / self.data).symlink_to(BARE.drive / "other/Velqor")
        self.assert_refused({self.logs: [""]}, set())


class SlowTool(Case):
    def test_an_answer_may_pause_for_less_than_ten_seconds(self):
        archive = self.archive("-s", on=FULL, LACLI_PAUSE_status="3000", LACLI_PAUSE_tunnel="60000")
        self.assertEqual(archive.types(), [(SAMPLE, 16)])
        # Ended after ten seconds: what came before the pause is kept.
        exit_code = archive.row("tunnel")["rawProcessExitCode"]
        self.assertIn(exit_code, (258, 259))
        for name, seconds, text in (("status", 3, TEXTS["lacli_status.log"]),
                                    ("tunnel", 10, tool_text("tunnel", "Tunnel: connected\n", exit_code))):
            row = archive.row(name)
            self.assertTrue(seconds * 1000 - 50 <= row["durationMs"] < seconds * 1000 + 5000, row)
            self.assertEqual(archive.text(f"{row['archivePath']}/lacli_{name}.log"), text)


class Flags(Case):
    def test_flags_select_types_in_a_fixed_order(self):
        # Each run replaces what the one before it has left.
        for arguments, kinds in ((["-l"], [LOG]), (["--config"], [CONFIG]), (["-c"], [CRASH]),
                                 (["--crash", "-ol"], [LOG, CONFIG, CRASH]),
                                 (["-c", "-s", "-o", "-l"], [LOG, CONFIG, SAMPLE, CRASH])):
            with self.subTest(arguments):
                self.assertEqual(self.archive(*arguments, on=FULL).types(), types(len(FULL.profiles()), kinds, True))


class ToolPath(Case):
    """Install paths that make it doubtful which tool is the access agent's."""

    def install(self, parent, value="", kind="REG_SZ"):
        """Puts the tool into a folder of the drive; the registry says that the monitoring agent lies beside it."""
        tool = BARE.drive / parent / "Lumora Access Agent/lacli.exe"
        tool.parent.mkdir(parents=True)
        shutil.copyfile(TOOL, tool)
        self.addCleanup(shutil.rmtree, tool.parent)
        value = value or "C:\\" + "".join(part + "\\" for part in (*pathlib.PurePath(parent).parts, "OXM"))
        done = BARE.run("reg", "add", r"HKLM\SOFTWARE\Velqor\OXM", "/v", "Path", "/t", kind, "/d", value, "/f")
        self.assertEqual(done.returncode, 0, done.stdout)
        self.addCleanup(BARE.run, "reg", "delete", r"HKLM\SOFTWARE\Velqor", "/f")
        return tool

    def assert_not_asked(self, wanted):
        row = self.archive("--samples").rows[10]
        self.assertEqual((row["type"], row["name"], row.get("success")), (SAMPLE, "lacli.exe", None))
        self.assertEqual(len(row["errors"]), 1)
        self.assertRegex(row["errors"][0], "The access agent's tool is not asked: (?s:.)*" + wanted)

    def test_is_not_asked_when_any_user_could_have_put_it_there(self):
        self.install("")
        self.assert_not_asked(r"any user can create its folder in C:\\\Z")

    def test_is_not_asked_when_its_place_cannot_be_read(self):
        self.install("Velqor", "1", "REG_DWORD")
        self.assert_not_asked("Cannot read string from registry")

    def test_one_that_cannot_be_looked_at_costs_its_own_rows_alone(self):
        tool = self.install("Velqor")
        tool.unlink()
        tool.symlink_to("lacli.exe")
        printed = self.collect("-s", "-c", "-p", "out.zip", status=1)
        self.assertRegex(printed, r"\AUnexpected error: .*exists.*lacli\.exe")
        self.assert_folder_holds("diagnostics.zip")
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), types(len(BARE.profiles()), (SAMPLE, CRASH)))
        self.assertRegex(archive.text("agent-cli.log"), r"exists.*lacli\.exe")


class Path(Case):
    folder_name = "Ordner für Läufe"

    def test_moves_the_archive_to_the_path(self):
        other = self.scratch / "andere Größe"
        other.mkdir()
        (self.folder / "old.zip").write_bytes(b"something else")
        os.link(self.folder / "old.zip", other / "second name.zip")
        for given, expected in (("old.zip", self.folder / "old.zip"),
                                ("./x/../dotted.zip. .", self.folder / "dotted.zip"),
                                (windows_path(other / "Müller 日本.zip"), other / "Müller 日本.zip"),
                                ("\\\\?\\" + windows_path(other / "verbatim.zip"), other / "verbatim.zip")):
            with self.subTest(given):
                self.assert_located(self.collect("-o", "-p", given).replace("\\\\?\\", ""), expected)
                self.assertEqual(Archive(expected).types(), [(CONFIG, 4)])
                self.assertFalse(self.zip.exists())
        self.assertEqual((other / "second name.zip").read_bytes(), b"something else")

    def test_a_device_is_refused_before_anything_is_collected(self):
        for given in ("NUL", "\\\\?\\NUL", "sub\\..\\con"):
            with self.subTest(given):
                self.assertIn("is that of a device, not of a file.", self.collect("-o", "-p", given, status=1))
                self.assert_folder_holds()

    def test_keeps_an_archive_that_is_its_own_destination(self):
        for given in ("DIAGNOSTICS.ZIP", windows_path(self.zip)):
            with self.subTest(given):
                printed = self.collect("-o", "--path", given)
                self.assertEqual(printed.lower(), f"diagnostics zip located at: {windows_path(self.zip)}\r\n".lower())
                self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])

    def test_leaves_the_archive_whole_where_it_cannot_be_moved(self):
        link, empty = self.scratch / "link", self.scratch / "empty"
        link.symlink_to(self.folder, target_is_directory=True)
        empty.mkdir()
        for given, reason in (("nowhere\\out.zip", f"the folder {windows_path(self.folder)}\\nowhere does not exist"),
                              ("..\\empty", "it is a folder"), (windows_path(link), "it is a folder")):
            with self.subTest(given):
                (self.folder / "agent-cli.log").unlink(missing_ok=True)
                printed = self.collect("-o", "-p", given, status=1)
                self.assertRegex(printed, r"\AUnexpected error: .*[^\r\n]\Z")
                self.assertIn(f"copy_file ({reason})", printed)
                self.assertIn(windows_path(self.zip), printed)
                self.assertEqual(Archive(self.zip).types(), [(CONFIG, 4)])
                self.assertIn("copy_file", self.log())
        self.assertTrue(empty.is_dir() and link.is_symlink())


class CommandLine(Case):
    def test_errors_and_help_are_the_parsers(self):
        for arguments, status, wanted in (([], 106, "subcommand"), (["agent"], 106, "subcommand"),
                                          (["agent", "collect-diagnostics", "--nonsense"], 109, "--nonsense"),
                                          (["--help"], 0, "Print this help message and exit"),
                                          (["agent", "collect-diagnostics", "-h"], 0, "Collect crash diagnostics.")):
            with self.subTest(arguments):
                done = BARE.run(EXE, *arguments, cwd=self.folder)
                self.assertEqual(done.returncode, status)
                self.assertIn(wanted.encode(), done.stderr if status else done.stdout)
                self.assertFalse(self.zip.exists())

    def test_a_log_that_cannot_be_opened_ends_the_run_with_mains_error_line(self):
        (self.folder / "agent-cli.log" / "inside").mkdir(parents=True)
        printed = self.collect(status=1)
        self.assertRegex(printed, r"Error in function .*main\(.*\)\(\) of file AgentCLI/main\.cpp:23:14 ---> "
                                  r"CLI failed with error: .*agent-cli\.log")


class FullDisk(Case):
    def test_a_run_without_a_manifest_fails(self):
        # No file may grow over 64 KiB: some logs fit into the archive, the manifest does not.
        FULL.boot()
        size = 1 << 16
        done = subprocess.run([machine.UNDER_WINE, EXE, "agent", "collect-diagnostics", "-l"], cwd=self.folder,
                              env=FULL.environment(), capture_output=True, restore_signals=False, check=False,
                              preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout.decode(), r"\AUnexpected error: .*manifest\.json")
        archive = Archive(self.zip)
        self.assertNotIn("manifest.json", archive.names)
        self.assertIn(f"{LOG}_0/oxm.log", archive.names)
        self.assertRegex(self.log(), r"\[error\] .*manifest\.json")


# Names in the archive that the program does not use in the current directory.
NOT_USED = ("manifest.json", "lacli_traffic_rdns.log")


class WorkingFolder(Case):
    def test_an_earlier_log_is_kept_and_rolls_over_when_it_is_full(self):
        log, rotated = self.folder / "agent-cli.log", self.folder / "agent-cli.1.log"
        # Of a large one the last whole lines; a full one is moved away by the run's first line.
        for earlier, kept in ((b"earlier\r\n", "earlier\n"), (b"x" * 10_300 + b"\r\nkept\r\n", "kept\n"),
                              (b"x" * 10_230 + b"\r\n", "")):
            log.write_bytes(earlier)
            log.chmod(0o666)
            self.collect("-o", on=FULL)
            self.assert_begins(log, kept)
        self.assertTrue(rotated.read_bytes().startswith(b"xxx"))

    def assert_begins(self, log, before):
        """The run's first line follows what was there before, in a file for its administrator alone."""
        program = r"\] AgentCLI \d+\.\d+\.\d+ on Windows \d+\.\d+\.\d+, "
        self.assertRegex(log.read_text(), rf"\A{before}\[.*\] \[default\] \[(info{program}|warning{program}not )elevated.*, "
                                          rf"current directory {re.escape(windows_path(self.folder))}, command line .* -o\n")
        self.assertEqual(self.log().count(" on Windows "), 1)
        # Wine shows the access list as a mode.
        self.assertEqual(log.stat().st_mode & 0o007, 0)

    def test_nothing_planted_there_is_run_or_written_through(self):
        # Hard links: Wine follows symbolic links, even to delete them.
        targets = [self.scratch / f"target of {name}" for name in (
            "agent-cli.log", "diagnostics.zip", *NOT_USED, "lacli_tunnel.log", "registry-oxm.txt",
            *(f"{name}.txt" for name in SAMPLE_FILES[5:]))]
        for target in targets:
            target.write_bytes(b"precious")
            os.link(target, self.folder / target.name[10:])
        folders = [self.folder / name / "inside" for name in (
            "agent-cli.1.log", "lacli_status.log", "regval.txt", "lumora-access-agent.txt",
            *(f"{name}.txt" for name in SAMPLE_FILES[:5]))]
        for folder in folders:
            folder.mkdir(parents=True)
        # A user's own folder stands first in the path. (Wine's interpreter also looks in the current directory.)
        tools = self.scratch / "bin"
        tools.mkdir()
        for name in ("route.exe", "netstat.exe", "wmic.exe", "systeminfo.exe", "cmd.exe"):
            shutil.copyfile(TOOL, tools / name)
        for name in ("dbghelp.dll", "cmd.exe"):
            shutil.copyfile(TOOL, self.folder / name)
        archive = self.archive(on=FULL, WINEPATH=windows_path(tools))
        for target in targets:
            self.assertEqual(target.read_bytes(), b"precious", target)
        self.assertNotIn("precious", archive.text("agent-cli.log"))
        self.assertTrue(all(folder.is_dir() for folder in folders))
        for name in NOT_USED:
            self.assertEqual((self.folder / name).read_bytes(), b"precious", name)
        # All rows are as ever.
        expected = rows_of_full_run([profile.name for profile in FULL.profiles()])
        self.assertEqual([row["name"] for row in archive.rows if not row.get("success")],
                         [row.name for row in expected if not row.files])
        for name in SAMPLES[:9]:
            # The planted programs answer this to every question that they do not know.
            self.assertNotIn(b"Unknown command.", archive.data(name), name)


class Kill(Case):
    runs = 12

    def test_a_killed_run_leaves_a_whole_archive_and_the_next_one_works(self):
        numbers = random.Random(4711)
        start = time.monotonic()
        self.collect(on=FULL)
        whole = time.monotonic() - start
        delays = [whole * (number + numbers.random()) / self.runs for number in range(self.runs)]
        with concurrent.futures.ThreadPoolExecutor(2) as lanes:
            counts = list(lanes.map(self.kill_after, delays))
        self.assertGreater(len(set(counts) - {0}), 2, f"the kills hit too few different moments: {counts}")
        self.assertEqual(self.archive("-o", on=FULL, folder=self.scratch / str(delays[-1])).types(), [(CONFIG, 4)])

    def kill_after(self, delay):
        """Returns how many files the archive of the killed run holds."""
        folder = self.scratch / str(delay)
        folder.mkdir()
        with FULL.start(EXE, "agent", "collect-diagnostics", cwd=folder) as process:
            time.sleep(delay)
            process.kill()
        left = folder / "diagnostics.zip"
        if not left.exists() or left.stat().st_size == 0:
            return 0
        archive = Archive(left)
        for name in archive.names:
            if re.fullmatch(LOG + r"_0/oxm[.0-9]*\.log", name):
                source = f"{machine.OXM}/{name.split('/')[-1]}"
                self.assertEqual(archive.data(name), machine.log_text(source, machine.LOGS.get(source, 5_000)))
        return len(archive.names)

    def test_a_killed_run_takes_its_command_along_and_leaves_its_log(self):
        def is_asked():
            return any("lacli.exe status" in line for line in running_in(self.folder))

        # In no console: one that closes would end the command as well.
        with FULL.start(EXE, "agent", "collect-diagnostics", "-s", cwd=self.folder,
                        LACLI_PAUSE_status="60000") as run:
            self.assert_soon(is_asked, seconds=60)
            # It is flushed every five seconds.
            self.assert_soon(lambda: (self.folder / "agent-cli.log").stat().st_size)
            self.assertTrue(is_asked())
            run.kill()
        self.assert_nothing_runs_in(self.folder)

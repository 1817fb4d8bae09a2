"""Ctrl+C."""

import random
import shutil

from expected_rows import LOG, rows_of_full_run, tool_text, types
from machines import BARE, FULL, Archive, Case, Console, machine, running_in

EMPTY_ZIP = 22  # bytes
INTERRUPTED, NOT_RUN = "Interrupted.", "Not run: the collection was interrupted."


class Interruption(Case):
    def test_a_command_is_ended_and_the_rest_is_named(self):
        with Console(FULL, self.folder, "-p", "out.zip", LACLI_PAUSE_status="60000") as run:
            # Ctrl+C once the tool has written the first line of its answer.
            run.wait_until(lambda: any(line.startswith("C:\\Program Files") and line.endswith("lacli.exe status")
                                       for line in running_in(self.folder)))
            self.assertTrue(run.still_runs_after(1))
            run.press_ctrl_c()
            self.assertLess(run.wait(), 3)
            self.assertEqual(run.process.returncode, 1)
            # One line, although there is a console.
            self.assert_located(run.text(), self.folder / "out.zip")
            self.assert_nothing_runs_in(self.folder)
        self.assert_folder_holds("out.zip")
        archive = Archive(self.folder / "out.zip")
        names = [row.name for row in rows_of_full_run([profile.name for profile in FULL.profiles()])]
        self.assertEqual([row["name"] for row in archive.rows], names)
        at = names.index("status")
        self.assertEqual([row["errors"] for row in archive.rows[at:]],
                         [[INTERRUPTED], *[[NOT_RUN]] * len(names[at + 1:])])
        for row in archive.rows[at + 1:]:
            self.assertFalse({"success", "rawProcessExitCode", "archivePath"} & set(row), row)
        self.assertIn(f"{INTERRUPTED}\n{NOT_RUN}\n", archive.text("agent-cli.log"))
        self.assertTrue(archive.manifest["run"]["interrupted"])
        # What the command had written is kept.
        code = archive.rows[at].get("rawProcessExitCode", 0)
        self.assertEqual(archive.text(archive.rows[at]["archivePath"] + "/lacli_status.log"),
                         tool_text("status", "Service: running\n", code))
        self.assertEqual(archive.names[-3:-2], [archive.rows[at]["archivePath"] + "/lacli_status.log"])


class InterruptionOfFiles(Case):
    """Ctrl+C while a file that takes some seconds is being archived, the first of its row."""

    def setUp(self):
        super().setUp()
        logs = BARE.drive / machine.ACCESS_LOGS
        self.addCleanup(shutil.rmtree, logs.parents[1])
        noise = random.Random(7).randbytes(100 << 20)  # which takes a second or two to compress
        for name, data in (("one.log", noise), ("two.log", b""), ("LumoraAccessAgentLog.etl.000", b"")):
            machine.write(logs / name, data)

    def begin(self, run):
        run.wait_until(lambda: self.zip.exists() and self.zip.stat().st_size > EMPTY_ZIP)
        self.assertTrue(run.still_runs_after(0.7))
        run.press_ctrl_c()

    def test_it_ends_with_the_file(self):
        with Console(BARE, self.folder, "-l") as run:
            self.begin(run)
            run.wait()
            self.assertEqual(run.process.returncode, 1)
            self.assert_located(run.text(), self.zip)
        archive = Archive(self.zip)
        self.assertEqual(archive.types(), types(len(BARE.profiles()), (LOG,)))
        # Neither the collector's other file nor the row's other collectors.
        self.assertEqual(archive.names, [f"{LOG}_0/one.log", "manifest.json", "agent-cli.log"])
        self.assertEqual([row["errors"] for row in archive.rows[2:]],
                         [[INTERRUPTED], *[[NOT_RUN]] * len(archive.rows[3:])])

    def test_a_second_one_ends_the_process_at_once(self):
        with Console(BARE, self.folder, "-l") as run:
            self.begin(run)
            self.assertTrue(run.still_runs_after(0.3))
            run.press_ctrl_c()
            self.assertLess(run.wait(), 1)
            self.assertNotEqual(run.process.returncode, 0)
            self.assertEqual(run.text(), "")
        self.assert_nothing_runs_in(self.folder)
        self.assertNotIn("manifest.json", Archive(self.zip).names)

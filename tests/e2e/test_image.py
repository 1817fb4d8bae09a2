"""The delivered image: which DLLs it imports, where the loader looks for them, what its resources say."""

import os
import re
import subprocess
import unittest

EXE = os.environ["AGENTCLI_EXE"]

# Each one is part of every supported Windows.
SYSTEM_DLLS = {"advapi32.dll", "bcrypt.dll", "dbghelp.dll", "kernel32.dll", "msvcrt.dll", "ntdll.dll", "ole32.dll",
               "secur32.dll", "shell32.dll", "user32.dll", "userenv.dll"}


def readobj(*options):
    return subprocess.run(["llvm-readobj-19", *options, EXE], check=True, capture_output=True, text=True).stdout


class Image(unittest.TestCase):
    def test_imports_system_dlls_only(self):
        imported = {name.lower() for name in re.findall(r"^\s*Name: (\S+\.dll)$", readobj("--coff-imports"), re.M | re.I)}
        self.assertIn("kernel32.dll", imported)
        self.assertLessEqual(imported, SYSTEM_DLLS)

    def test_loads_dependencies_from_system32_only(self):
        config = readobj("--coff-load-config")
        flags = re.search(r"(?:DependentLoadFlags|Reserved1)\D+0x([0-9a-f]+)", config, re.I)
        self.assertEqual(int(flags.group(1), 16), 0x800, config)

    def test_resources_ask_for_utf8_and_long_paths(self):
        with open(EXE, "rb") as image:
            data = image.read()
        for wanted in (b">UTF-8</activeCodePage>", b">true</longPathAware>", b'level="asInvoker"',
                       b"{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}", "ProductVersion".encode("utf-16-le")):
            self.assertIn(wanted, data)


if __name__ == "__main__":
    unittest.main()

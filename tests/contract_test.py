"""The contract of the Windows libraries, read off the built files with the cross binutils.
BUILD names the build directory."""

import os
import pathlib
import re
import subprocess
import unittest

BUILD = pathlib.Path(os.environ["BUILD"])
SYSTEM = {"kernel32.dll", "msvcrt.dll", "winmm.dll", "shell32.dll", "advapi32.dll"}


def headers(name):
    return subprocess.run(["x86_64-w64-mingw32-objdump", "-p", BUILD / name], check=True,
                          capture_output=True, text=True).stdout


def imports(text):
    """For each library the hints or ordinals and the names of what is taken from it."""
    found = {}
    for library, rows in re.findall(r"DLL Name: (\S+)\n\s+vma:.*\n((?:[ \t]+[0-9a-f]+[ \t]+.*\n)+)",
                                    text):
        found[library] = [row.split()[:3] for row in rows.splitlines()]
    return found


class ContractTest(unittest.TestCase):
    def test_driver(self):
        text = headers("XKIVMP3.dll")
        names = re.findall(r"^\t\[ +\d+\] (\S+)$", text, re.M)
        self.assertEqual(names, ["DllMain", "FFD_Function_Table"])
        taken = imports(text)
        self.assertEqual({library.lower() for library in taken} - SYSTEM, {"xkivlog.dll"})
        # By number: the highest bit set, no name.
        self.assertEqual(sorted(row[0] for row in taken["XKIVLOG.dll"]),
                         [f"800000000000000{ordinal}" for ordinal in range(2, 9)])
        self.assertEqual([row[0] for row in taken["WINMM.dll"] if row[2] != "DriverCallback"], [])

    def test_log(self):
        text = headers("XKIVLOG.dll")
        self.assertEqual(re.findall(r"^\t\[ +\d+\] \+base\[ +(\d+)\] [0-9a-f]+ Export RVA$", text,
                                    re.M), ["2", "3", "4", "5", "6", "7", "8"])
        # Which operation stands behind which number.
        symbols = subprocess.run(["x86_64-w64-mingw32-nm", BUILD / "XKIVLOG.dll"], check=True,
                                 capture_output=True, text=True).stdout
        base = int(re.search(r"ImageBase\s+([0-9a-f]+)", text).group(1), 16)
        places = {int(place, 16) - base: name for place, name in
                  re.findall(r"^([0-9a-f]+) T (Log\w+)$", symbols, re.M)}
        exported = re.findall(r"\+base\[ +\d+\] ([0-9a-f]+) Export RVA", text)
        self.assertEqual([places.get(int(place, 16)) for place in exported],
                         ["LogInit", "LogEntry", "LogParam", "LogWarning", "LogInfo", "LogValue",
                          "LogError"])

    def test_nothing_else_is_needed(self):
        for name in ("XKIVMP3.dll", "XKIVLOG.dll", "ffdhost.exe"):
            needed = {library.lower() for library in imports(headers(name))}
            self.assertEqual(needed - SYSTEM - {"xkivlog.dll"}, set(), name)

    def test_no_time_and_a_version(self):
        version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)", (BUILD / "CMakeCache.txt").read_text(), re.M)
        for name in ("XKIVMP3.dll", "XKIVLOG.dll", "ffdhost.exe"):
            contents = (BUILD / name).read_bytes()
            header = int.from_bytes(contents[60:64], "little")
            self.assertEqual(contents[header + 8:header + 12], bytes(4), name)  # TimeDateStamp
            shown = "FileVersion\0\0" + version[1]  # the value begins at a multiple of four bytes
            self.assertTrue(shown.encode("utf-16-le") in contents, name)


if __name__ == "__main__":
    unittest.main()

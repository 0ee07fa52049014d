"""What the compiler and the linker have put into the files that ship against faults, read off those
files with binutils. BUILD names the build directory, PREFIX the binutils ("" for those of Linux)."""

import os
import pathlib
import re
import subprocess
import unittest

BUILD = pathlib.Path(os.environ["BUILD"])
PREFIX = os.environ.get("PREFIX", "")
WINDOWS = PREFIX != ""
FILES = (["XKIVMP3.dll", "XKIVLOG.dll", "ffdhost.exe"] if WINDOWS
         else ["libxkivmp3.so", "libxkivlog.so", "ffdhost"])


def told(tool, *arguments):
    return subprocess.run([PREFIX + tool, *arguments], check=True, capture_output=True, text=True).stdout


class HardeningTest(unittest.TestCase):
    def each(self):
        for name in FILES:
            with self.subTest(name):
                yield BUILD / name

    @unittest.skipIf(WINDOWS, "ELF")
    def test_elf(self):
        for file in self.each():
            dynamic = told("readelf", "-dW", file)
            self.assertRegex(dynamic, r"FLAGS_1\).*\bNOW\b")
            segments = told("readelf", "-lW", file)
            self.assertRegex(segments, r"GNU_RELRO")
            self.assertRegex(segments, r"GNU_STACK.* RW +0x")
            self.assertRegex(told("readelf", "-hW", file), r"Type: +DYN")
            symbols = told("readelf", "-W", "--dyn-syms", file)
            self.assertIn("__stack_chk_fail", symbols)
            self.assertRegex(symbols, r"__\w+_chk@")
            self.assertGreater(told("objdump", "-d", file).count("endbr64"), 20)
            # An empty element stands for the working directory of whoever loads the file.
            for path in re.findall(r"R(?:UN)?PATH\).*\[(.*)\]", dynamic):
                self.assertEqual(path, "$ORIGIN")

    @unittest.skipUnless(WINDOWS, "PE")
    def test_pe(self):
        for file in self.each():
            header = told("objdump", "-p", file)
            for flag in ("HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"):
                self.assertIn(flag, header)
            self.assertIn("__stack_chk_fail", told("nm", file))


if __name__ == "__main__":
    unittest.main()

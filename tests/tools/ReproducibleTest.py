"""scripts/check-reproducible on small programs: one that says nothing of its build, and some that do."""
import importlib.machinery
import importlib.util
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from support import ROOT, git

SCRIPT = ROOT / "scripts" / "check-reproducible"

BUILD = """
cmake_minimum_required(VERSION 3.20)
set(CMAKE_CXX_COMPILER_FORCED ON) # asks nothing of the compiler
project(Small LANGUAGES CXX)
add_subdirectory(src)
"""
PROGRAM = "add_executable(fernhill main.cpp)\n"
PRESETS = """
{"version": 3,
 "configurePresets": [{"name": "release", "generator": "Ninja", "binaryDir": "${sourceDir}/build/release"}],
 "buildPresets": [{"name": "release", "configurePreset": "release"}]}
"""
SOURCE = """
#include <cstdio>
extern const char* const told;
const char* const told = %s;
int main() { std::puts(told); }
"""


def script():
    """The script's own functions."""
    loader = importlib.machinery.SourceFileLoader("check_reproducible", str(SCRIPT))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


class Folder(unittest.TestCase):
    def setUp(self):
        if not shutil.which("llvm-readobj"):
            self.skipTest("llvm is not installed")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)


class Programs(Folder):
    def checked(self, told):
        """Status and output for a program with the text, which is given as an expression."""
        (self.folder / "src").mkdir()
        for name, text in (("CMakeLists.txt", BUILD), ("CMakePresets.json", PRESETS), ("src/CMakeLists.txt", PROGRAM),
                           ("src/main.cpp", SOURCE % told), (".gitignore", "/build/\n")):
            (self.folder / name).write_text(text)
        git(self.folder, "init", "-q", "-b", "main")
        done = subprocess.run([SCRIPT, "--of", self.folder, "linux"], capture_output=True, text=True, check=False)
        self.assertEqual(done.stderr, "")
        return done.returncode, done.stdout

    def test_that_say_nothing_of_their_build_are_the_same(self):
        status, output = self.checked('"the same text"')
        self.assertRegex(output, r"^linux: the same [\d,]+ bytes twice\n$")
        self.assertEqual(status, 0)

    def test_that_hold_their_sources_place_differ(self):
        status, output = self.checked("__FILE__")
        self.assertRegex(output, r"differ: section \.rodata")
        self.assertIn("another-with-a-longer-name", output)
        self.assertEqual(status, 1)

    def test_that_hold_the_day_of_their_build_differ(self):
        status, output = self.checked("__DATE__")
        self.assertRegex(output, r"differ: section \.rodata")
        self.assertIn("Jul 14 2017", output)
        self.assertIn("Sep 13 2020", output)
        self.assertEqual(status, 1)

    def test_that_hold_their_sources_time_differ(self):
        status, output = self.checked("__TIMESTAMP__")
        self.assertRegex(output, r"differ: section \.rodata")
        self.assertEqual(status, 1)

    def test_that_cannot_be_built_are_no_success(self):
        (self.folder / "src").mkdir()
        (self.folder / "CMakeLists.txt").write_text("a slip")
        git(self.folder, "init", "-q", "-b", "main")
        done = subprocess.run([SCRIPT, "--of", self.folder, "linux"], capture_output=True, text=True, check=False)
        self.assertNotEqual(done.returncode, 0)


class Differences(Folder):
    """Of either system's format, where they are named."""
    def objects(self, target, *texts):
        for i, text in enumerate(texts):
            (self.folder / f"{i}.c").write_text(f"int unchanged(void) {{ return 1; }}\n{text}\n")
            subprocess.run(["clang", "-target", target, "-c", f"{i}.c", "-o", f"{i}.o"], cwd=self.folder, check=True)
        return [self.folder / f"{i}.o" for i in range(len(texts))]

    def test_are_found_in_an_elf_file(self):
        self.assertIn(".text", script().describe(*self.objects("x86_64-linux-gnu", "int a(void) { return 1; }",
                                                               "int a(void) { return 2; }")))

    def test_are_found_in_a_macs_file_with_the_function(self):
        found = script().describe(*self.objects("x86_64-apple-macos10.12", "int a(void) { return 1; }",
                                                "int a(void) { return 2; }"))
        self.assertRegex(found, r"section __TEXT,__text, byte \d+ in _?a:")

    def test_between_sections_are_told_by_their_byte(self):
        one, other = self.objects("x86_64-apple-macos10.12", "", "")
        content = bytearray(other.read_bytes())
        content[28] ^= 0x80 # of the header's reserved word
        other.write_bytes(content)
        self.assertEqual(script().describe(one, other), "outside of all sections, byte 28 of the file")


if __name__ == "__main__":
    unittest.main()

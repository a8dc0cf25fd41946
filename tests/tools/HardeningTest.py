"""scripts/check-hardening on small programs, each built without one of the protections that it looks for."""
import pathlib
import struct
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parent.parent.parent / "scripts" / "check-hardening"

SOURCE = """
#include <cstdio>
#include <cstring>
int main(int, char** words) {
    char room[16];
    std::strcpy(room, words[0]);
    std::puts(room);
}
"""
COMPILED = {"PIE": "-fPIE", "protector": "-fstack-protector-strong", "checked": "-D_FORTIFY_SOURCE=2"}
LINKED = {"PIE": "-pie", "relro": "-Wl,-z,relro", "now": "-Wl,-z,now", "stack": "-Wl,-z,noexecstack"}


def missing(program):
    """What the script says that the program lacks; it must fail then, and only then."""
    done = subprocess.run([SCRIPT, program], capture_output=True, text=True, check=False)
    lines = done.stdout.splitlines()
    found = [line.split("MISSING")[1].strip() for line in lines if "MISSING" in line]
    assert lines[0] == str(program) and len(lines) > 3, done.stdout + done.stderr
    assert done.returncode == (1 if found else 0), done.stdout + done.stderr
    return found


class Linux(unittest.TestCase):
    def built(self, *, compiled=None, linked=None):
        """A program with all protections, but for those that are replaced."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = pathlib.Path(folder.name)
        (path / "a.cpp").write_text(SOURCE)
        words = {**COMPILED, **(compiled or {})}.values()
        subprocess.run(["g++", "-O2", "-U_FORTIFY_SOURCE", *words, "-c", "a.cpp"], cwd=path, check=True)
        words = {**LINKED, **(linked or {})}.values()
        subprocess.run(["g++", "a.o", "-o", "a", *words], cwd=path, check=True)
        return path / "a"

    def test_a_program_with_everything_passes(self):
        self.assertEqual(missing(self.built()), [])

    def test_a_program_at_a_fixed_address_is_found(self):
        self.assertEqual(missing(self.built(compiled={"PIE": "-fno-pie"}, linked={"PIE": "-no-pie"})),
                         ["loaded anywhere (PIE)"])

    def test_tables_that_stay_writable_are_found(self):
        self.assertEqual(missing(self.built(linked={"relro": "-Wl,-z,norelro"})), ["full RELRO"])
        self.assertEqual(missing(self.built(linked={"now": "-Wl,-z,lazy"})), ["full RELRO"])

    def test_an_executable_stack_is_found(self):
        self.assertEqual(missing(self.built(linked={"stack": "-Wl,-z,execstack"})), ["no executable stack"])

    def test_memory_both_writable_and_executable_is_found(self):
        program = self.built()
        content = bytearray(program.read_bytes())
        headers, size, count = *struct.unpack_from("<Q", content, 32), *struct.unpack_from("<HH", content, 54)
        load, read_write, all_rights = 1, 6, 7
        for at in range(headers, headers + size * count, size):
            if struct.unpack_from("<II", content, at) == (load, read_write):
                struct.pack_into("<I", content, at + 4, all_rights)
        program.write_bytes(content)
        self.assertEqual(missing(program), ["nothing writable and executable"])

    def test_a_program_without_guards_of_the_stack_is_found(self):
        self.assertEqual(missing(self.built(compiled={"protector": "-fno-stack-protector"})), ["stack protector"])

    def test_a_program_with_unchecked_calls_is_found(self):
        self.assertEqual(missing(self.built(compiled={"checked": "-D_FORTIFY_SOURCE=0"})), ["checked calls"])


class Mac(unittest.TestCase):
    NO_UNDEFINED, DYNAMIC, STACK_EXECUTION, PIE = 0x1, 0x4, 0x20000, 0x200000
    READ, WRITE, EXECUTE = 1, 2, 4

    def built(self, *, flags=NO_UNDEFINED | DYNAMIC | PIE, data=READ | WRITE,
              symbols=("___stack_chk_fail", "___stack_chk_guard")):
        """A file with two segments and the undefined symbols: as much of a program as can be looked at."""
        names = b"\0" + b"".join(symbol.encode() + b"\0" for symbol in symbols)
        entries, at = b"", 1
        for symbol in symbols:
            entries += struct.pack("<IBBHQ", at, 1, 0, 0x100, 0)
            at += len(symbol) + 1
        behind = 32 + 2 * 72 + 24
        commands = b"".join(
            struct.pack("<II16sQQQQiiII", 0x19, 72, name, address, 0x1000, 0, 0, rights, rights, 0, 0)
            for name, address, rights in ((b"__TEXT", 1 << 32, self.READ | self.EXECUTE),
                                          (b"__DATA", (1 << 32) + 0x1000, data)))
        commands += struct.pack("<IIIIII", 2, 24, behind, len(symbols), behind + len(entries), len(names))
        header = struct.pack("<IiiIIIII", 0xfeedfacf, 0x01000007, 3, 2, 3, len(commands), flags, 0)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = pathlib.Path(folder.name) / "program"
        path.write_bytes(header + commands + entries + names)
        return path

    def setUp(self):
        if subprocess.run(["sh", "-c", "command -v llvm-objdump"], capture_output=True, check=False).returncode:
            self.skipTest("llvm is not installed")

    def test_a_program_with_everything_passes(self):
        self.assertEqual(missing(self.built()), [])

    def test_a_program_at_a_fixed_address_is_found(self):
        self.assertEqual(missing(self.built(flags=self.NO_UNDEFINED | self.DYNAMIC)), ["loaded anywhere (PIE)"])

    def test_an_executable_stack_is_found(self):
        self.assertEqual(missing(self.built(flags=self.PIE | self.STACK_EXECUTION)), ["no executable stack"])

    def test_memory_both_writable_and_executable_is_found(self):
        self.assertEqual(missing(self.built(data=self.READ | self.WRITE | self.EXECUTE)),
                         ["nothing writable and executable"])

    def test_a_program_without_guards_of_the_stack_is_found(self):
        self.assertEqual(missing(self.built(symbols=("_getpid",))), ["stack protector"])


if __name__ == "__main__":
    unittest.main()

"""Texts that hold many mutants, compiled and run."""
import os
import pathlib
import subprocess
import tempfile
import unittest

from support import PROLOGUE, a_mutant, mutants, needs_clang, operators, places, syntax

from mutation import schemata
from mutation.mutant import line_and_column

PROGRAM = b"int f() { return 1; }\nint main() { return f(); }\n"


def compiled(folder, text):
    """A program of this text and of what reads the mutant's number."""
    pathlib.Path(folder, "example.cpp").write_bytes(text)
    pathlib.Path(folder, "switch.cpp").write_text(schemata.SWITCH)
    program = pathlib.Path(folder, "example")
    subprocess.run(["c++", "-w", "-o", str(program), "example.cpp", "switch.cpp"], cwd=folder, check=True)
    return program


def status(program, **variables):
    return subprocess.run([str(program)], env={**os.environ, **variables}).returncode


class Schemata(unittest.TestCase):
    def test_run_as_ever_without_a_number_and_as_the_mutant_with_its_own(self):
        body = (8, 21)
        first = a_mutant(PROGRAM, at=(17, 18), text="2")
        second = a_mutant(PROGRAM, at=(17, 18), text="7")
        first, second = (type(mutant)(**{**vars(mutant), "body": body}) for mutant in (first, second))
        with tempfile.TemporaryDirectory() as folder:
            program = compiled(folder, schemata.with_mutants(PROGRAM, [(1, first), (2, second)]).content)
            self.assertEqual([status(program, OSTLER_MUTANT=number) for number in ("0", "1", "2", "3")], [1, 2, 7, 1])
            self.assertEqual(status(program), 1)

    def test_tell_in_which_lines_a_mutant_is(self):
        mutant = type(a_mutant())(**{**vars(a_mutant(PROGRAM)), "body": (8, 21)})
        text = schemata.with_mutants(PROGRAM, [(5, mutant)])
        number, first, last = text.lines[0]
        self.assertEqual(number, 5)
        self.assertIn(b"return 2;", b"\n".join(text.content.split(b"\n")[first - 1:last]))


@needs_clang
class Probes(unittest.TestCase):
    SOURCE = """int f(int a) {
    if (a == 1) return 5;
    else if (a == 2)
        a = 3;
    for (int i = 0; i < 1; ++i) a += 1;
    switch (a) {
    case 1: return 0;
    default: break;
    }
    return 0;
}
int main(int count, char**) { return f(count); }
"""

    MACROS = """#define COUNT(a) ++(a)
#define ONCE(a) do { ++(a); } while (false)
int main(int count, char**) {
    int other = 0;
    COUNT(other);
    if (count == 1) ONCE(other);
    else ONCE(count);
    return other;
}
"""

    def reached_lines(self, wanted, arguments=(), source=SOURCE):
        """The lines whose statements a run notes; `wanted` is its status."""
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "plain.cpp")
            path.write_text(source)
            source, scopes = syntax.scopes(str(path), ["-std=c++17"])
            statements = [place for scope in scopes for place in places.watchable(scope, source)]
            program = compiled(folder, schemata.with_probes(source, statements, 0))
            noted = pathlib.Path(folder, "map")
            noted.write_bytes(bytes(schemata.STATEMENTS))
            done = subprocess.run([str(program), *arguments], env={**os.environ, "OSTLER_REACHED": str(noted)})
            self.assertEqual(done.returncode, wanted)
            reached = [statements[index] for index, byte in enumerate(noted.read_bytes()) if byte]
            return sorted({source.count(b"\n", 0, start) + 1 for start, _, _ in reached})

    def test_note_the_statements_of_the_way_that_a_run_takes(self):
        self.assertEqual(self.reached_lines(5), [2, 12])
        self.assertEqual(self.reached_lines(0, ["x"]), [2, 3, 4, 5, 6, 8, 10, 12])
        self.assertEqual(self.reached_lines(0, ["x", "y"]), [2, 3, 5, 6, 8, 10, 12])

    def test_note_statements_that_a_macro_makes(self):
        self.assertEqual(self.reached_lines(2, source=self.MACROS), [4, 5, 6, 8])
        self.assertEqual(self.reached_lines(1, ["x"], source=self.MACROS), [4, 5, 6, 7, 8])

    def test_watch_the_statement_of_every_mutant(self):
        text = "#define ONCE(a) do { ++(a); } while (false)\nvoid example() {\n    ONCE(a);\n    first();\n    if (ready) ONCE(b);\n}\n"
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "Example.cpp")
            path.write_text(PROLOGUE + text)
            source, scopes = syntax.scopes(str(path), ["-std=c++17"])
        watched = {line_and_column(source, place[0]) for scope in scopes for place in places.watchable(scope, source)}
        found = places.mutants_of("src/gp/Example.cpp", source, scopes)
        self.assertEqual([(" ".join(mutant.old), mutant.statement in watched) for mutant in found if mutant.operator == "drop"],
                         [("ONCE(a);", True), ("first();", True), ("if (ready) ONCE(b);", True)])


@needs_clang
class EveryMutant(unittest.TestCase):
    def test_of_a_function_compiles_beside_the_others(self):
        text = """int example() {
    GPMutexLock lock(mutex);
    if (a < b && ready) return 1;
    for (int i = 0; i < 3; ++i) first();
    object->retain();
    second();
    a = 2;
    lock.unlock();
    if (Configuration::isLogLevel(1)) first();
    return both(a, b);
}
"""
        found = [mutant for mutant in mutants(text) if mutant.body]
        self.assertEqual({mutant.operator for mutant in found}, set(operators.ALL))
        source = (PROLOGUE + text).encode()
        content = schemata.with_mutants(source, list(enumerate(found, 1))).content
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "example.cpp")
            path.write_bytes(content)
            subprocess.run(["c++", "-std=c++17", "-w", "-fsyntax-only", str(path)], check=True)


if __name__ == "__main__":
    unittest.main()

"""Commands that end with the time of a run, what is known of tests until then, and which folders' tests are asked."""
import contextlib
import functools
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from unittest import mock

from support import ROOT, a_mutant, needs_clang

from mutation import bounded, cases, judge, reach, rounds, sandbox, schemata, tree, twins
from mutation.mutant import Edit


def case(name, folder):
    return cases.Case(name, ("program",), (), "/", folder, f"tests/{folder}_tests")


def comes_true(condition):
    ends = time.monotonic() + 20
    while not condition() and time.monotonic() < ends:
        time.sleep(0.01)
    return condition()


OWN, APP, OTHER = case("Own.Test", "gp"), case("App.Test", "app"), case("Other.Test", "dns")
CODE = b"int f() { return 1; }"


class Commands(unittest.TestCase):
    def test_say_their_status_and_all_they_print(self):
        status, output = bounded.run(["sh", "-c", "echo one; echo two >&2; exit 3"], bounded.FOREVER)
        self.assertEqual((status, sorted(output.split())), (3, ["one", "two"]))

    def test_end_with_the_time(self):
        with self.assertRaises(bounded.OutOfTime):
            bounded.run(["sleep", "600"], time.monotonic() + 0.1)

    def out_of_time(self, words, note):
        """Runs a command whose time is over as soon as the note is there."""
        ends = time.monotonic() + 20

        def left(_):
            return 0.0 if (note.exists() and note.read_text()) or time.monotonic() > ends else 0.01

        with self.assertRaises(bounded.OutOfTime), mock.patch.object(bounded, "left", left):
            bounded.run(words, bounded.FOREVER)

    def test_take_along_what_they_have_started(self):
        with tempfile.TemporaryDirectory() as folder:
            note = pathlib.Path(folder, "number")
            self.out_of_time(["sh", "-c", f"sleep 600 & echo $! > {note}; wait"], note)
            self.assert_ends(int(note.read_text()))

    def test_take_along_what_has_a_process_group_of_its_own_as_a_compiler_below_ninja_has(self):
        with tempfile.TemporaryDirectory() as folder, mock.patch.object(bounded, "GRACE", 0.2):
            note = pathlib.Path(folder, "number")
            pathlib.Path(folder, "build.ninja").write_text(
                "rule run\n  command = trap '' TERM; sleep 600 & echo $$! > number; wait; wait\nbuild a: run\n")
            self.out_of_time(["ninja", "-C", folder], note)
            self.assert_ends(int(note.read_text()))

    def test_are_asked_kindly_first_so_that_they_leave_no_half_of_a_file(self):
        with tempfile.TemporaryDirectory() as folder, mock.patch.object(bounded, "GRACE", 20.0):
            pathlib.Path(folder, "build.ninja").write_text(
                "rule run\n  command = echo half > $out; exec sleep 600\nbuild whole: run\n")
            self.out_of_time(["ninja", "-C", folder], pathlib.Path(folder, "whole"))
            self.assertFalse(pathlib.Path(folder, "whole").exists())

    def test_are_not_begun_behind_the_deadline(self):
        with mock.patch.object(subprocess, "Popen", side_effect=AssertionError("begun")), \
                self.assertRaises(bounded.OutOfTime):
            bounded.run(["true"], time.monotonic() - 1)

    def test_may_print_what_is_no_text(self):
        self.assertEqual(bounded.run(["printf", r"a\377b"], bounded.FOREVER), (0, "a\N{REPLACEMENT CHARACTER}b"))

    def assert_ends(self, child):
        ends = time.monotonic() + 20
        while pathlib.Path(f"/proc/{child}").exists() and time.monotonic() < ends:
            if pathlib.Path(f"/proc/{child}/stat").read_text().split()[2] == "Z":
                break  # its new parent has not looked yet
            time.sleep(0.01)
        self.assertLess(time.monotonic(), ends)

    def test_have_no_time_behind_the_deadline(self):
        self.assertEqual(bounded.left(time.monotonic() - 1), 0.0)


class Ends(unittest.TestCase):
    """Of runs that are asked to end, wherever their threads are."""

    def setUp(self):
        self.seconds = f"600.{os.getpid()}"  # by which what a run has started is known

    def started(self):
        """The processes that the run has started."""
        found = []
        for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                if path.read_bytes().split(b"\0")[:2] == [b"sleep", self.seconds.encode()]:
                    found.append(int(path.parent.name))
        return found

    def assert_ends(self, text, count=2, number=signal.SIGTERM):
        """Has a run that starts so many processes end, and all of them with it."""
        begin = "import pathlib; from concurrent.futures import ThreadPoolExecutor; from unittest import mock\n" \
                "from mutation import bounded, cases, judge, reach, sandbox\nbounded.end_when_asked()\n"
        asked = subprocess.Popen([sys.executable, "-c", begin + text], cwd=ROOT / "scripts", stderr=subprocess.DEVNULL)
        try:
            self.assertTrue(comes_true(lambda: len(self.started()) == count))
            asked.send_signal(number)
            self.assertNotEqual(asked.wait(20), 0)
            self.assertTrue(comes_true(lambda: not self.started()))
        finally:
            asked.kill()
            asked.wait()
            for process in self.started():
                os.kill(process, signal.SIGKILL)

    def test_are_those_of_a_command(self):
        self.assert_ends(f"bounded.run(['sh', '-c', 'sleep {self.seconds} & wait'], bounded.FOREVER)", 1)

    def test_are_those_of_commands_on_threads(self):
        text = f"run = lambda _: bounded.run(['sleep', '{self.seconds}'], bounded.FOREVER)\n" \
               "with ThreadPoolExecutor(2) as pool:\n    list(pool.map(run, range(9)))"
        for number in (signal.SIGTERM, signal.SIGINT):
            self.assert_ends(text, number=number)

    @unittest.skipUnless(sandbox.available(), "bubblewrap cannot make its namespaces here")
    def test_are_those_of_tests_that_judge_on_threads_and_they_say_nothing_of_the_mutants(self):
        text = f"case = cases.Case('A.Test', ('sleep', '{self.seconds}'), (), '/', 'gp', 'sleep')\n" \
               "chooser = mock.Mock(); chooser.tests.return_value = [case] * 3; chooser.limit.return_value = 500\n" \
               "told = lambda verdict: verdict.result == judge.NOT_JUDGED or print(verdict.result)\n" \
               "judging = judge.Judge(pathlib.Path('/'), None, chooser, None, 2, bounded.FOREVER, told)\n" \
               "with ThreadPoolExecutor(2) as pool:\n" \
               "    list(pool.map(lambda number: judging._judge((), number, None), range(1, 9)))"
        with tempfile.TemporaryFile() as said, mock.patch.object(
                subprocess, "Popen", functools.partial(subprocess.Popen, stdout=said)):
            self.assert_ends(text)
            said.seek(0)
            self.assertEqual(said.read(), b"")

    @needs_clang
    def test_are_those_of_sources_that_are_read(self):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder)
            (root / "src").mkdir()
            for name in "ABC":
                (root / f"src/{name}.cpp").write_bytes(CODE)
            entry = {"file": str(root / "src/A.cpp"), "command": "c++ -c A.cpp"}
            (root / "compile_commands.json").write_text(json.dumps([entry]))
            self.assert_ends(
                "import subprocess\nfrom mutation import places\n"
                f"def _find(*_): subprocess.run(['sleep', '{self.seconds}'], preexec_fn=die_with_parent)\n"
                "def die_with_parent(): import ctypes; ctypes.CDLL(None).prctl(1, 9)\n"
                "_find.__module__, places._find = 'mutation.places', _find\n"
                f"places.Sources({folder!r}, {folder!r}, {folder + '/kept'!r}, 2)._read_anew("
                "['src/A.cpp', 'src/B.cpp', 'src/C.cpp'])")


class Maps(unittest.TestCase):
    """What the tests reach of one file, of which the tests' build is only played."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "src").mkdir()
        (self.root / "src/A.cpp").write_bytes(CODE)
        self.kept = self.root / "map.json"
        self.sources = mock.Mock(root=self.root)
        self.sources.statements.return_value = {"src/A.cpp": [(10, 19, False)]}
        self.tree = mock.Mock(directory=self.root)
        self.tree.make.return_value = ""

    def made(self, deadline, clock):
        """The map where the clock shows this ahead of each test; all pass and reach all."""

        def run(_, __, ___, variables, ____):
            pathlib.Path(dict(variables)["OSTLER_REACHED"]).write_bytes(b"\1")
            return sandbox.Outcome(sandbox.PASSED, 0.1)

        with mock.patch.object(sandbox, "run", run), mock.patch.object(reach, "BESIDE", 1), \
                mock.patch.object(time, "monotonic", mock.Mock(side_effect=clock)):
            return reach.of(["src/A.cpp"], self.sources, [OWN, APP], self.tree, self.kept, 1, lambda _: None, deadline)

    def test_of_all_tests_are_kept(self):
        found = self.made(1, [0, 0])
        self.assertEqual((found.tests("src/A.cpp", (1, 11)), found.unseen), (["Own.Test", "App.Test"], set()))
        self.assertTrue(self.kept.exists())

    def test_that_the_time_did_not_suffice_for_name_the_tests_that_are_missing_and_are_not_kept(self):
        found = self.made(1, [0, 2])
        self.assertEqual((found.tests("src/A.cpp", (1, 11)), found.unseen), (["Own.Test"], {"App.Test"}))
        self.assertFalse(self.kept.exists())

    def test_name_a_test_that_failed_once_and_passed_once(self):
        results = iter([sandbox.FAILED, sandbox.PASSED])

        def run(_, __, ___, variables, ____):
            return sandbox.Outcome(next(results), 0.1)

        with mock.patch.object(sandbox, "run", run), mock.patch.object(reach, "BESIDE", 1):
            found = reach.of(["src/A.cpp"], self.sources, [OWN], self.tree, self.kept, 1, lambda _: None)
        self.assertEqual((found.unsteady, found.failing), ({"Own.Test"}, set()))

    def test_stop_a_test_when_their_time_is_over_and_count_it_among_the_missing(self):
        limits = []

        def run(_, limit, *__):
            limits.append(limit)
            return sandbox.Outcome(sandbox.TIMED_OUT, limit)

        with mock.patch.object(sandbox, "run", run), mock.patch.object(bounded, "left", lambda _: 5), \
                mock.patch.object(reach, "BESIDE", 1):
            found = reach.of(["src/A.cpp"], self.sources, [OWN], self.tree, self.kept, 1, lambda _: None, 5)
        self.assertEqual((limits, found.unseen, found.failing), ([5], {"Own.Test"}, set()))

    def test_build_what_their_tests_run_and_no_more(self):
        self.made(1, [0, 0])
        self.tree.needed_programs.assert_called_once_with({"src/A.cpp": mock.ANY}, [OWN, APP])
        self.tree.make.assert_called_once_with(self.tree.needed_programs.return_value)


class Programs(unittest.TestCase):
    def test_are_those_of_the_tests_and_what_tests_may_run(self):
        build = mock.Mock(read_by={"src/gp/A.cpp": {"A.o"}}, objects={"A.o": None}, archives={"core.a": ["A.o"]})
        build.programs = {name: ["core.a"] for name in ("tests/gp_tests", "tests/dns_tests", "tests/helper", "src/fernhill")}
        build.programs["tests/other_helper"] = ["other.a"]
        with tempfile.TemporaryDirectory() as folder:
            found = tree.Tree(build, folder, 1).needed_programs({"src/gp/A.cpp"}, [OWN])
        self.assertEqual(found, ["tests/gp_tests", "tests/helper", "src/fernhill"])


class Copies(unittest.TestCase):
    """What a build of changed sources says. Only the compiler's word shows that a mutant is no program."""

    def made(self, status, output):
        with tempfile.TemporaryDirectory() as folder, mock.patch.object(bounded, "run", lambda *_: (status, output)):
            return tree.Tree(mock.Mock(), folder, 1).make([])

    def test_say_nothing_where_they_are_built(self):
        self.assertEqual(self.made(0, "[1/1] a.o"), "")

    def test_tell_what_the_compiler_and_the_linker_have_against_a_mutant(self):
        for line in ("/c/A.cpp:4:2: error: no such name", "/c/A.cpp:4:2: fatal error: too deep",
                     "ld: A.o: in function `f': undefined reference to `g'"):
            self.assertEqual(self.made(1, line), line)

    def test_are_no_builds_of_the_mutant_where_the_machine_is_to_blame(self):
        for status, output in ((1, "/c/A.cpp:4:2: fatal error: error writing to /tmp/A.s: No space left on device"),
                               (1, "g++: fatal error: Killed signal terminated program cc1plus"), (-9, ""),
                               (1, "ninja: error: loading 'build.ninja': No such file or directory")):
            with self.assertRaises(tree.NotBuilt):
                self.made(status, output)


@unittest.skipUnless(shutil.which("cmake") and shutil.which("ninja"), "cmake and ninja are not installed")
class Paths(unittest.TestCase):
    """Of a project whose folder has what ninja and the shell take to mean more."""

    LISTS = """cmake_minimum_required(VERSION 3.20)
project(example CXX)
add_library(ostler_core STATIC src/A.cpp)
set_target_properties(ostler_core PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/src)
add_executable(main main.cpp)
target_link_libraries(main ostler_core)
"""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        root = pathlib.Path(folder.name, "two words, one $sign")
        (root / "src").mkdir(parents=True)
        (root / "src/A.cpp").write_bytes(CODE)
        (root / "main.cpp").write_text("int f(); int main() { return f(); }")
        (root / "CMakeLists.txt").write_text(cls.LISTS)
        build = root / "build"
        for words in (["-S", root, "-B", build, "-G", "Ninja", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"], ["--build", build]):
            subprocess.run(["cmake", *words], check=True, capture_output=True)
        cls.tree = tree.Tree(tree.Build(root, build), root / "build/own tree", 1)

    def made(self, text):
        self.tree.write({"src/A.cpp": text})
        return self.tree.make(["main"])

    def test_are_built_with_a_change(self):
        self.assertEqual(self.made(b"int f() { return 7; }"), "")
        self.assertEqual(subprocess.run([self.tree.program("main")]).returncode, 7)

    def test_do_not_hide_whose_error_the_compiler_tells(self):
        output = self.made(b"\nint f() { return nothing; }")
        texts = {"src/A.cpp": schemata.Text(b"", ((1, 1, 1), (2, 2, 2)))}
        self.assertEqual(judge._numbers_with_errors(output, self.tree, texts), {2})


class Twins(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.mutant = a_mutant()
        self.source = self.root / self.mutant.file
        self.source.parent.mkdir(parents=True)
        self.source.write_bytes(CODE)

    def twins(self, deadline=bounded.FOREVER):
        words = ["c++", "-o", "A.o", "-c", str(self.source)]
        return twins.Twins(mock.Mock(root=self.root, directory=self.root, objects={"A.o": (words, str(self.source))}), deadline)

    def test_are_told_by_what_the_compiler_makes(self):
        found, same = self.twins(), type(self.mutant)(**{**vars(self.mutant), "edits": (Edit(17, 18, "2 - 1"),)})
        self.assertEqual([found.are_one_program(mutant) for mutant in (self.mutant, same)], [False, True])

    def test_are_not_sought_behind_the_deadline(self):
        with self.assertRaises(bounded.OutOfTime):
            self.twins(time.monotonic() - 1).are_one_program(self.mutant)


class Noted:
    """A program's output, and whether its beginning has been read."""

    def __init__(self, stream, is_read):
        self._stream, self._is_read = stream, is_read
        self.read1 = stream.read1

    def __enter__(self):
        return self._stream.__enter__()

    def __exit__(self, *wrong):
        return self._stream.__exit__(*wrong)

    def read(self, size):
        found = self._stream.read(size)
        self._is_read.set()
        return found


@unittest.skipUnless(sandbox.available(), "bubblewrap cannot make its namespaces here")
class Walls(unittest.TestCase):
    def outcome(self, command, replaced=(), limit=20):
        return sandbox.run(cases.Case("A.Test", command, (), "/", "gp", command[0]), limit, replaced)

    def test_let_a_test_pass_and_fail(self):
        self.assertEqual([self.outcome((name,)).result for name in ("true", "false")], [sandbox.PASSED, sandbox.FAILED])

    @unittest.skipUnless(os.getuid() == 0, "only the superuser becomes another user")
    def test_let_a_user_without_rights_make_temporary_files(self):
        for folder in ("/tmp", "/var/tmp"):
            command = ("setpriv", "--reuid=65534", "--clear-groups", "mktemp", "-p", folder)
            self.assertEqual(self.outcome(command).result, sandbox.PASSED)

    def test_keep_the_beginning_of_what_a_program_says_without_end(self):
        beginning, read = sandbox._beginning, threading.Event()
        noted = mock.patch.object(sandbox, "_beginning", lambda stream: beginning(Noted(stream, read)))
        with noted, mock.patch.object(bounded, "left", lambda _: 0.0 if read.is_set() else 0.01):
            outcome = self.outcome(("yes", "endless"))
        self.assertEqual((outcome.result, outcome.output[:16]), (sandbox.TIMED_OUT, "endless\nendless\n"))
        self.assertLessEqual(len(outcome.output), sandbox.KEPT)

    def test_that_cannot_be_put_up_are_no_failure_of_a_test(self):
        with self.assertRaises(sandbox.NotBegun):
            self.outcome(("true",), [("/usr/bin/true", "/nonexistent/program")])

    def test_around_no_program_are_no_failure_of_a_test(self):
        with self.assertRaises(sandbox.NotBegun):
            self.outcome(("/nonexistent/program",))


class Rounds(unittest.TestCase):
    """One mutant of gp; the tests' outcomes are told and nothing is built."""

    unsteady = frozenset()  # what failed once and passed once with nothing changed

    def judged(self, noticed_by, left=1e6, reached=(OWN, APP, OTHER), fails_far=None):
        """Its result, and the names of the tests that were asked about, round by round."""
        asked, mutant = [], a_mutant()
        self.ends = []  # of the rounds

        def of(files, sources, known, *_):
            asked.append([one.name for one in known])
            if len(asked) == 2 and fails_far:
                raise fails_far
            indices = [index for index, one in enumerate(known) if one in reached]
            return reach.Map({mutant.file: {"1:11": indices}}, [one.name for one in known], {}, set())

        def all_of(judging, mutants):
            judging.unsteady.update(self.unsteady)
            self.ends.append(judging._deadline)
            for one in mutants:
                names = [found.name for found in judging._chooser.tests(one)]
                judging._tell(judge.Verdict(one, judge.KILLED if noticed_by in names else judge.SURVIVED))

        sources = mock.Mock(root=pathlib.Path("/"))
        sources.files.return_value = [mutant.file]
        place = rounds.Place(sources, mock.Mock(objects={}), pathlib.Path("/"), 1, bounded.FOREVER, False, lambda _: None)
        with mock.patch.object(reach, "of", of), mock.patch.object(judge.Judge, "all", all_of), \
                mock.patch.object(rounds.tree, "Tree"), mock.patch.object(bounded, "left", lambda _: left), \
                mock.patch("builtins.print") as printed:
            verdicts = rounds.near_and_far(place, [APP, OTHER, OWN], [mutant])
        self.assertEqual(len(verdicts), 1)
        self.printed = [call.args[0] for call in printed.call_args_list]
        told = [line for line in self.printed if not line.startswith("UNSTEADY")]
        self.assertEqual(bool(told), verdicts[0].result == judge.SURVIVED)
        return verdicts[0].result, asked

    def test_ask_the_folders_own_tests_and_then_those_of_app(self):
        self.assertEqual(self.judged("App.Test"), (judge.KILLED, [["Own.Test", "App.Test"]]))

    def test_name_the_tests_that_were_unsteady(self):
        self.unsteady = {"Own.Test"}
        self.judged("App.Test")
        self.assertEqual(self.printed, ["UNSTEADY, failed once and passed once with nothing changed: Own.Test"])

    def test_ask_the_others_about_what_those_let_pass(self):
        self.assertEqual(self.judged("Other.Test"), (judge.KILLED, [["Own.Test", "App.Test"], ["Other.Test"]]))

    def test_leave_time_for_the_others(self):
        for left, kept in ((660, rounds.FAR_MOST), (300, 100)):
            self.judged("Other.Test", left=left)
            self.assertEqual([bounded.FOREVER - end for end in self.ends], [kept, 0])

    def test_have_a_survivor_where_nobody_notices(self):
        self.assertEqual(self.judged("nobody"), (judge.SURVIVED, [["Own.Test", "App.Test"], ["Other.Test"]]))

    def test_have_a_survivor_where_no_time_is_left_for_the_others(self):
        self.assertEqual(self.judged("Other.Test", left=10), (judge.SURVIVED, [["Own.Test", "App.Test"]]))
        self.assertEqual(self.judged("Other.Test", fails_far=bounded.OutOfTime("ninja"))[0], judge.SURVIVED)


if __name__ == "__main__":
    unittest.main()

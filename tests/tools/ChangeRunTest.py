"""Runs of scripts/mutants over the lines of a change."""
import contextlib
import io
import pathlib
import tempfile
import unittest
from unittest import mock

from ListedRunTest import tool
from support import a_mutant, git, needs_clang, needs_git

from mutation import bounded, judge
from mutation.mutant import diff, heading

LIST = "tests/equivalent-mutants"


NOTHING = "no line of src came, and no entry of the list of equivalents is touched: no mutants\n"


def entry(mutant):
    return "\n".join([heading(mutant), *diff(mutant), "Nobody can see it.", "", ""])


@needs_clang
@needs_git
class RunsOverAChange(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        git(self.root, "init", "-q", "-b", "main")
        for name in ("src/gp/A.cpp", "src/gp/B.cpp", "src/platform/macos/C.cpp", LIST):
            self.write(name, "")
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", "first")
        self.mutants = {name: a_mutant(file=name) for name in ("src/gp/A.cpp", "src/gp/B.cpp")}

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def commit(self):
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", "next")

    def run_it(self, result=judge.KILLED, fails=None, stopped=None, stopped_at="", walls=True):
        """Exit status, output, the commands that made something, the files that were read, the mutants to judge."""
        script, output, seen = tool(), io.StringIO(), {"made": [], "read": [], "judged": []}

        def make(words, _):
            seen["made"].append(words)
            if stopped and stopped_at in words:
                raise stopped
            return words[1] != fails

        def read(files):
            seen["read"] += files
            return [self.mutants[file] for file in files if file in self.mutants]

        def judged(_, __, mutants, ___):
            seen["judged"] += mutants
            return [judge.Verdict(mutant, result) for mutant in mutants]

        sources = mock.Mock(mutants=read)
        sources.files.side_effect = lambda *_: sorted(self.mutants)
        with contextlib.ExitStack() as stack:
            stack.enter_context(mock.patch("sys.argv", ["mutants", "--since", "HEAD", "--minutes", "12"]))
            for name, value in (("ROOT", self.root), ("EQUIVALENTS", self.root / LIST), ("made", make), ("judged", judged)):
                stack.enter_context(mock.patch.object(script, name, value))
            stack.enter_context(mock.patch.object(script.sandbox, "available", lambda: walls))
            stack.enter_context(mock.patch.object(script.places, "Sources", lambda *_: sources))
            stack.enter_context(contextlib.redirect_stdout(output))
            stack.enter_context(contextlib.redirect_stderr(io.StringIO()))
            status = script.main()
        return status, output.getvalue(), seen

    def test_make_nothing_where_no_line_changed_that_is_compiled_here(self):
        self.write("src/platform/macos/C.cpp", "int c;\n")
        self.write("src/gp/CMakeLists.txt", "# words\n")
        self.write("src/gp/A.md", "words\n")
        git(self.root, "add", "-A")
        status, output, seen = self.run_it()
        self.assertEqual((status, output), (0, NOTHING))
        self.assertEqual(seen, {"made": [], "read": [], "judged": []})

    def test_make_nothing_where_lines_only_went(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", "second")
        self.write("src/gp/A.cpp", "")
        self.assertEqual(self.run_it()[2], {"made": [], "read": [], "judged": []})

    def test_read_the_changed_files_alone_and_judge_what_is_in_their_lines(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        self.write(LIST, entry(self.mutants["src/gp/B.cpp"]))
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", "second")
        self.write("src/gp/A.cpp", "int f() { return 3; }\n")
        status, _, seen = self.run_it()
        self.assertEqual((status, set(seen["read"]), seen["judged"]), (0, {"src/gp/A.cpp"}, [self.mutants["src/gp/A.cpp"]]))

    def test_build_nothing_where_the_lines_have_no_mutants(self):
        self.write("src/gp/A.cpp", "\n// a comment\n")
        self.mutants["src/gp/A.cpp"] = type(a_mutant())(**{**vars(self.mutants["src/gp/A.cpp"]), "lines": (3,)})
        status, _, seen = self.run_it()
        self.assertEqual((status, seen["made"], seen["judged"]), (0, [["cmake", "--preset", "dev"]], []))

    def test_fail_on_a_survivor(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        self.assertEqual(self.run_it(judge.SURVIVED)[0], 1)

    def test_look_at_an_entry_of_the_list_that_the_change_writes(self):
        self.write(LIST, entry(a_mutant(file="src/gp/B.cpp", function="formerly()")))
        status, output, _ = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("line 1: src/gp/B.cpp formerly(): there is no such mutant any more", output)

    def test_look_at_an_entry_whose_file_is_gone(self):
        self.write(LIST, entry(a_mutant(file="src/gp/D.cpp")))
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", "second")
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        status, output, _ = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("src/gp/D.cpp f(): there is no such mutant any more", output)

    def test_look_at_an_entry_that_has_only_lost_its_reason(self):
        self.write(LIST, entry(self.mutants["src/gp/B.cpp"]))
        self.commit()
        self.write(LIST, entry(self.mutants["src/gp/B.cpp"]).replace("Nobody can see it.\n", ""))
        status, output, _ = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("no reason is given", output)

    def test_look_at_the_entries_of_a_file_that_only_lost_lines(self):
        self.write("src/gp/B.cpp", "int f() {\n    return 1;\n}\n")
        self.write(LIST, entry(a_mutant(file="src/gp/B.cpp", function="formerly()")))
        self.commit()
        self.write("src/gp/B.cpp", "int f() {\n}\n")
        status, output, seen = self.run_it()
        self.assertEqual((status, seen["judged"]), (1, []))
        self.assertIn("formerly(): there is no such mutant any more", output)

    def test_look_at_the_entries_of_a_file_that_was_taken_away_or_moved_and_no_more(self):
        self.write("src/gp/D.cpp", "int f() { return 1; }\n")
        self.write(LIST, entry(a_mutant(file="src/gp/D.cpp")))
        self.commit()
        (self.root / "src/gp/D.cpp").rename(self.root / "src/gp/E.cpp")
        git(self.root, "add", "-A")
        for _ in range(2):
            self.assertEqual(self.run_it()[0], 1)
            (self.root / "src/gp/E.cpp").unlink(missing_ok=True)

    def test_look_at_no_entry_where_the_list_has_other_comments(self):
        self.write(LIST, entry(a_mutant(file="src/gp/B.cpp", function="formerly()")))
        self.commit()
        self.write(LIST, "# a comment\n\n" + entry(a_mutant(file="src/gp/B.cpp", function="formerly()")))
        status, output, _ = self.run_it()
        self.assertEqual((status, output), (0, NOTHING))

    def test_fail_on_a_wrong_list_where_the_time_is_over_before_anything_was_judged(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        self.write(LIST, entry(a_mutant(file="src/gp/B.cpp", function="formerly()")))
        status, output, _ = self.run_it(stopped=bounded.OutOfTime("cmake"), stopped_at="--build")
        self.assertEqual(status, 1)
        self.assertIn("the time was over before the first mutant, at: cmake; nothing was judged\n", output)
        self.assertIn("0 of 1 were judged", output)
        self.assertIn("formerly(): there is no such mutant any more", output)

    def test_end_with_a_status_of_their_own_where_there_are_no_walls(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        self.assertEqual(self.run_it(walls=False)[0], 77)
        with mock.patch("sys.argv", ["mutants", "--landet"]), contextlib.redirect_stderr(io.StringIO()), \
                self.assertRaises(SystemExit) as wrong:
            tool().main()
        self.assertNotEqual(wrong.exception.code, 77)

    def test_say_that_the_time_was_over_before_anything_was_judged_and_do_not_fail(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        status, output, _ = self.run_it(stopped=bounded.OutOfTime("cmake"), stopped_at="cmake")
        self.assertEqual((status, output),
                         (0, "the time was over before the first mutant, at: cmake; nothing was judged\n"))

    def test_say_how_many_the_time_sufficed_for_and_do_not_fail(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        status, output, _ = self.run_it(judge.NOT_JUDGED)
        self.assertEqual(status, 0)
        self.assertIn("0 of 1 were judged in the time that there was", output)

    def test_fail_where_the_everyday_build_or_its_set_up_does(self):
        self.write("src/gp/A.cpp", "int f() { return 1; }\n")
        for failing in ("--preset", "--build"):
            status, _, seen = self.run_it(fails=failing)
            self.assertEqual((status, seen["judged"]), (1, []), failing)


if __name__ == "__main__":
    unittest.main()

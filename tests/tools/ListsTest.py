"""The list of mutants that nobody can notice: how it is read, and when it is wrong."""
import pathlib
import tempfile
import unittest

from support import a_mutant

from mutation import lists
from mutation.mutant import diff, heading


def read(text):
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "list")
        path.write_text(text)
        return lists.read(path)


def entry(mutant, reason="Both answer 1."):
    return "\n".join([heading(mutant), *diff(mutant), reason]) + "\n"


def problems(text, mutants):
    return lists.problems(read(text), {mutant.key for mutant in mutants})


class Lists(unittest.TestCase):
    def test_find_their_mutant_by_function_and_text(self):
        mutant = a_mutant()
        self.assertEqual([found.key for found in read(entry(mutant))], [mutant.key])
        self.assertEqual(read(entry(mutant))[0].reason, "Both answer 1.")

    def test_stay_true_when_lines_move(self):
        before = a_mutant()
        after = a_mutant(b"\n\n\nint f() { return 1; }", at=(20, 21))
        self.assertNotEqual(before.edits, after.edits)
        self.assertEqual(problems(entry(before), [after]), [])

    def test_tell_apart_what_stands_twice_in_a_function(self):
        second = a_mutant(occurrence=2)
        self.assertIn("f() #2", entry(second))
        self.assertEqual([found.key for found in read(entry(second))], [second.key])
        self.assertNotEqual(second.key, a_mutant().key)

    def test_are_stale_when_the_text_has_changed(self):
        changed = a_mutant(b"int f() { return 3; }", text="4")
        self.assertEqual(problems(entry(a_mutant()), [changed]),
                         ["line 1: src/gp/Example.cpp f(): there is no such mutant any more"])

    def test_are_stale_when_the_function_is_gone(self):
        self.assertIn("there is no such mutant any more", problems(entry(a_mutant()), [a_mutant(function="g()")])[0])

    def test_tell_what_is_gone_and_go_on_with_the_rest(self):
        second = a_mutant(function="g()")
        text = entry(a_mutant(), reason="") + "\n" + entry(second, reason="")
        found, gone = lists.resolved(read(text), {second.key: second})
        self.assertEqual((found, gone), ([second], ["line 1: src/gp/Example.cpp f(): there is no such mutant any more"]))

    def test_need_a_reason(self):
        self.assertIn("no reason is given", problems(entry(a_mutant(), reason=""), [a_mutant()])[0])

    def test_name_nothing_twice(self):
        twice = entry(a_mutant()) + "\n" + entry(a_mutant())
        self.assertEqual(problems(twice, [a_mutant()]), ["line 6: src/gp/Example.cpp f(): listed twice"])

    def test_name_nothing_twice_in_the_part_that_a_change_touches_either(self):
        twice = read(entry(a_mutant()) + "\n" + entry(a_mutant(function="g()")) + "\n" + entry(a_mutant()))
        touched = lists.touched(twice, {11}, set(), {a_mutant().file})
        self.assertEqual([found.line for found in touched], [1, 11])

    def test_may_have_comments_and_line_numbers(self):
        text = "# a comment\n\n# constant; 3 tests passed\n" + entry(a_mutant())
        self.assertIn("Example.cpp:1 f()", text)
        self.assertEqual([found.key for found in read(text)], [a_mutant().key])

    def test_that_name_no_change_cannot_be_read(self):
        with self.assertRaises(lists.ListError):
            read("src/gp/Example.cpp f()\nsomething\n")

    def test_that_are_not_there_are_empty(self):
        self.assertEqual(lists.read(pathlib.Path("/nonexistent/list")), [])


if __name__ == "__main__":
    unittest.main()

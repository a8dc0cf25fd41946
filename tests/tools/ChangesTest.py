"""Which lines a change touches, and with which commit it began."""
import pathlib
import tempfile
import unittest

from support import git, needs_git

from mutation import changes


@needs_git
class Changes(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name, "project")
        self.root.mkdir()
        git(self.root, "init", "-q", "-b", "main")

    def commit(self, name, text, date="2020-01-01T00:00:00Z"):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        git(self.root, "add", "-A")
        git(self.root, "commit", "-q", "-m", name, date=date)
        return git(self.root, "rev-parse", "HEAD")

    def test_are_the_lines_that_came(self):
        first = self.commit("src/gp/A.cpp", "one\ntwo\nthree\n")
        self.commit("src/gp/A.cpp", "one\n2\nthree\nfour\n")
        self.commit("tests/ATest.cpp", "not the program's\n")
        self.assertEqual(changes.lines_since(self.root, first, "src"), {"src/gp/A.cpp": {2, 4}})

    def test_count_what_is_not_committed_yet(self):
        first = self.commit("src/gp/A.cpp", "one\n")
        (self.root / "src/gp/A.cpp").write_text("one\ntwo\n")
        self.assertEqual(changes.lines_since(self.root, first, "src"), {"src/gp/A.cpp": {2}})

    def test_have_no_lines_where_some_only_went(self):
        first = self.commit("src/gp/A.cpp", "one\ntwo\n")
        self.commit("src/gp/A.cpp", "one\n")
        self.assertEqual(changes.lines_since(self.root, first, "src").get("src/gp/A.cpp", set()), set())

    def test_name_files_that_only_lost_lines_with_the_places_of_the_gaps_where_they_are_asked_for(self):
        first = self.commit("list", "one\ntwo\nthree\n")
        self.commit("list", "one\nthree\n")
        self.assertEqual(changes.lines_since(self.root, first, "list"), {"list": set()})
        self.assertEqual(changes.lines_since(self.root, first, "list", gaps=True), {"list": {1, 2}})

    def test_are_the_same_whatever_the_users_own_settings_are(self):
        first = self.commit("src/gp/A.cpp", "one\n")
        for setting, value in (("diff.noprefix", "true"), ("diff.mnemonicPrefix", "true"), ("diff.renames", "copies"),
                               ("diff.interHunkContext", "9"), ("core.quotePath", "true")):
            git(self.root, "config", setting, value)
        self.commit("src/gp/A.cpp", "0\none\n2\n")
        self.commit("src/gp/B\u00e4r.cpp", "0\none\n")
        self.assertEqual(changes.lines_since(self.root, first, "src"), {"src/gp/A.cpp": {1, 3}, "src/gp/B\u00e4r.cpp": {1, 2}})

    def test_count_files_that_git_has_not_heard_of(self):
        first = self.commit("src/gp/A.cpp", "one\n")
        (self.root / "src/gp/B.cpp").write_text("one\ntwo\n")
        (self.root / "C.cpp").write_text("one\n")
        self.assertEqual(changes.lines_since(self.root, first, "src"), {"src/gp/B.cpp": {1, 2}})

    def test_of_a_file_that_moved_are_those_that_came(self):
        first = self.commit("src/gp/A.cpp", "".join(f"{number}\n" for number in range(20)))
        (self.root / "src/gp/A.cpp").unlink()
        self.commit("src/gp/B.cpp", "".join(f"{number}\n" for number in range(21)))
        self.assertEqual(changes.lines_since(self.root, first, "src"), {"src/gp/B.cpp": {21}})

    def test_show_in_the_files_that_they_touch_the_most_changed_first(self):
        first = self.commit("src/gp/A.cpp", "one\n")
        self.commit("src/gp/A.cpp", "one\ntwo\n")
        self.commit("src/gp/B.cpp", "1\n2\n3\n")
        self.commit("src/gp/B.md", "no source\n")
        self.commit("tests/ATest.cpp", "1\n2\n3\n4\n")
        self.commit("lab/C.cpp", "1\n2\n")
        self.assertEqual(changes.sources_since(self.root, first, "src", "lab"), ["src/gp/B.cpp", "lab/C.cpp", "src/gp/A.cpp"])

    def test_of_a_header_show_in_the_file_of_its_name(self):
        self.commit("src/gp/A.cpp", '#include "gp/B.h"\n')
        first = self.commit("src/platform/linux/B.cpp", '#include "gp/B.h"\n')
        self.commit("src/gp/B.h", "struct B;\n")
        self.assertEqual(changes.sources_since(self.root, first, "src"), ["src/platform/linux/B.cpp"])

    def test_of_a_header_without_a_file_of_its_name_show_in_one_that_includes_it(self):
        self.commit("src/gp/A.cpp", '#include "gp/C.h"\n')
        self.commit("src/gp/C.h", '#include "gp/B.h"\n')
        first = self.commit("src/gp/D.cpp", '#include "gp/B.h"\n')
        self.commit("src/gp/B.h", "struct B;\n")
        self.commit("src/gp/E.h", "nobody includes it\n")
        self.assertEqual(changes.sources_since(self.root, first, "src"), ["src/gp/D.cpp"])

    def test_show_in_no_file_that_has_gone(self):
        first = self.commit("src/gp/A.cpp", "one\n")
        (self.root / "src/gp/A.cpp").unlink()
        self.commit("b", "2")
        self.assertEqual(changes.sources_since(self.root, first, "src"), [])

    def test_that_only_take_lines_away_show_too(self):
        first = self.commit("src/gp/A.cpp", "one\ntwo\n")
        self.commit("src/gp/A.cpp", "one\n")
        self.assertEqual(changes.sources_since(self.root, first, "src"), ["src/gp/A.cpp"])

    def test_begin_where_origin_is(self):
        landed = self.commit("a", "1")
        self.commit("b", "2")
        git(self.root, "update-ref", "refs/remotes/origin/main", landed)
        self.assertEqual(changes.last_landed(self.root), (landed, "where origin is"))

    def test_begin_where_the_note_says_in_a_clone_of_the_change_itself(self):
        landed = self.commit("a", "1")
        head = self.commit(changes.NOTE, landed + "\n")
        git(self.root, "update-ref", "refs/remotes/origin/main", head)
        self.assertEqual(changes.last_landed(self.root), (landed, "as .ci/landed says"))

    def test_do_not_believe_a_note_of_a_commit_that_is_not_in_their_history(self):
        self.commit("a", "1", "2020-01-01T00:00:00Z")
        old = self.commit("b", "2", "2020-01-01T01:00:00Z")
        self.commit(changes.NOTE, "0" * 40 + "\n", "2020-01-02T00:00:00Z")
        self.assertEqual(changes.last_landed(self.root), (old, ".ci/landed names no commit of this history: the commits of 4 hours"))

    def test_do_not_believe_a_note_of_another_branch(self):
        old = self.commit("a", "1", "2020-01-01T00:00:00Z")
        git(self.root, "checkout", "-q", "-b", "other")
        aside = self.commit("b", "2", "2020-01-01T01:00:00Z")
        git(self.root, "checkout", "-q", "main")
        self.commit(changes.NOTE, aside + "\n", "2020-01-02T00:00:00Z")
        self.assertEqual(changes.last_landed(self.root), (old, ".ci/landed names no commit of this history: the commits of 4 hours"))

    def test_believe_no_note_but_the_id_of_a_commit(self):
        old = self.commit("a", "1", "2020-01-01T00:00:00Z")
        self.commit(changes.NOTE, "HEAD\n", "2020-01-02T00:00:00Z")
        self.assertEqual(changes.last_landed(self.root)[0], old)

    def test_begin_with_the_note_where_the_clone_does_not_reach_back_to_where_origin_is(self):
        landed = self.commit("a", "1")
        self.commit(changes.NOTE, landed + "\n")
        git(self.root, "checkout", "-q", "--orphan", "elsewhere")
        stranger = self.commit("c", "3")
        git(self.root, "checkout", "-q", "main")
        git(self.root, "update-ref", "refs/remotes/origin/main", stranger)
        self.assertEqual(changes.last_landed(self.root), (landed, "as .ci/landed says"))

    def test_begin_where_the_change_left_the_branch_that_it_was_merged_with(self):
        self.commit("a", "1")
        git(self.root, "checkout", "-q", "-b", "change")
        self.commit("b", "2")
        git(self.root, "checkout", "-q", "main")
        landed = self.commit("c", "3")
        git(self.root, "update-ref", "refs/remotes/origin/main", landed)
        git(self.root, "merge", "-q", "--no-ff", "-m", "both", "change")
        self.assertEqual(changes.last_landed(self.root), (landed, "where origin is"))

    def test_begin_with_the_last_hours_where_nothing_is_known(self):
        old = self.commit("a", "1", "2020-01-01T00:00:00Z")
        self.commit("b", "2", "2020-01-02T09:00:00Z")
        self.commit("c", "3", "2020-01-02T12:00:00Z")
        self.assertEqual(changes.last_landed(self.root), (old, ".ci/landed names no commit of this history: the commits of 4 hours"))

    def test_are_everything_where_the_clone_has_the_newest_commit_alone(self):
        landed = self.commit("src/gp/A.cpp", "one\n")
        self.commit(changes.NOTE, landed + "\n")
        self.commit("src/gp/B.cpp", "two\nthree\n")
        clone = self.root.parent / "clone"
        git(self.root, "clone", "-q", "--depth", "1", self.root.as_uri(), str(clone))
        git(clone, "remote", "remove", "origin")
        since, how = changes.last_landed(clone)
        self.assertEqual(how, ".ci/landed names no commit of this history, nor does it go back: all of it")
        self.assertEqual(changes.lines_since(clone, since, "src"), {"src/gp/A.cpp": {1}, "src/gp/B.cpp": {1, 2}})


if __name__ == "__main__":
    unittest.main()

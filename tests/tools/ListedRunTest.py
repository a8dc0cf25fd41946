"""Runs of scripts/mutants over a written list."""
import contextlib
import importlib.machinery
import importlib.util
import io
import pathlib
import tempfile
import unittest
from unittest import mock

from support import ROOT, a_mutant, needs_clang

from mutation import judge
from mutation.mutant import diff, heading

FILE = "src/gp/GPList.cpp"  # one that there is
KNOWN = a_mutant(file=FILE)
GONE = a_mutant(file=FILE, function="formerly()")


def tool():
    """scripts/mutants, which bears no name that could be imported."""
    loader = importlib.machinery.SourceFileLoader("mutants_tool", str(ROOT / "scripts" / "mutants"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def run_over(*listed):
    """Exit status and output of a run over a list, and the mutants that came to be judged, all of which are killed."""
    script, judged, output = tool(), [], io.StringIO()

    def kill_all(_, __, mutants, ___):
        judged.extend(mutants)
        return [judge.Verdict(mutant, judge.KILLED) for mutant in mutants]

    with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as stack:
        path = pathlib.Path(folder, "list")
        path.write_text("\n\n".join("\n".join([heading(mutant), *diff(mutant)]) for mutant in listed) + "\n")
        stack.enter_context(mock.patch("sys.argv", ["mutants", "--list", str(path)]))
        for name, value in (("made", lambda *_: True), ("judged", kill_all), ("EQUIVALENTS", pathlib.Path(folder, "none"))):
            stack.enter_context(mock.patch.object(script, name, value))
        stack.enter_context(mock.patch.object(script.sandbox, "available", lambda: True))
        sources = mock.Mock()
        sources.mutants.return_value = [KNOWN]
        stack.enter_context(mock.patch.object(script.places, "Sources", lambda *_: sources))
        stack.enter_context(contextlib.redirect_stdout(output))
        stack.enter_context(contextlib.redirect_stderr(io.StringIO()))
        status = script.main()
    return status, output.getvalue(), judged


@needs_clang
class ListedRuns(unittest.TestCase):
    def test_are_well_where_every_entry_is_killed(self):
        status, _, judged = run_over(KNOWN)
        self.assertEqual((status, judged), (0, [KNOWN]))

    def test_name_an_entry_that_is_gone_judge_the_others_and_fail_at_the_end(self):
        status, output, judged = run_over(GONE, KNOWN)
        self.assertEqual((status, judged), (1, [KNOWN]))
        self.assertIn("line 1: src/gp/GPList.cpp formerly(): there is no such mutant any more", output)


if __name__ == "__main__":
    unittest.main()

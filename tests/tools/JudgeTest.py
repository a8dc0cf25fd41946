"""Which tests judge a mutant, what their outcome means, and how it is told."""
import pathlib
import threading
import time
import unittest
from unittest import mock

from support import a_mutant

from mutation import bounded, cases, choose, gate, judge, reach, report, sandbox, schemata


def case(name, folder="gp"):
    return cases.Case(name, ("program",), (), "/", folder, f"tests/{folder}_tests")


QUICK, SLOW, OTHER, APP = case("Quick.Test"), case("Slow.Test"), case("Other.Test"), case("App.Test", "app")
ALL = [QUICK, SLOW, OTHER, APP]


def chooser(reached=("Quick.Test", "Slow.Test", "App.Test"), rest=False, failing=(), unseen=()):
    seconds = {"Quick.Test": 0.1, "Slow.Test": 2.0, "Other.Test": 0.1, "App.Test": 0.01}
    indices = [index for index, known in enumerate(ALL) if known.name in reached]
    found = reach.Map({"src/gp/Example.cpp": {"1:11": indices}}, [known.name for known in ALL], seconds, set(failing),
                      frozenset(unseen))
    return choose.Chooser(ALL, found, rest)


class Choosing(unittest.TestCase):
    def test_takes_the_tests_that_reach_the_statement_the_folders_own_and_the_quick_ones_first(self):
        self.assertEqual(chooser().tests(a_mutant()), [QUICK, SLOW, APP])

    def test_lets_what_killed_a_neighbour_go_first(self):
        chosen = chooser()
        chosen.note_kill(a_mutant(), APP)
        self.assertEqual(chosen.tests(a_mutant()), [APP, QUICK, SLOW])

    def test_adds_the_rest_where_the_map_cannot_see(self):
        unseen = type(a_mutant())(**{**vars(a_mutant()), "statement": None})
        self.assertEqual(chooser().tests(unseen), [QUICK, SLOW, APP, OTHER])
        self.assertEqual(chooser(rest=True).tests(a_mutant()), [QUICK, SLOW, APP, OTHER])

    def test_leaves_out_what_fails_with_nothing_changed(self):
        self.assertEqual(chooser(failing=["Quick.Test"]).tests(a_mutant()), [SLOW, APP])

    def test_leaves_out_what_nobody_knows_the_reach_of(self):
        self.assertEqual(chooser(unseen=["Quick.Test"]).tests(a_mutant()), [SLOW, APP])

    def test_has_nobody_for_a_statement_that_no_test_reaches(self):
        self.assertEqual(chooser(reached=()).tests(a_mutant()), [])

    def test_gives_a_slow_test_more_time(self):
        self.assertGreater(chooser().limit(SLOW), chooser().limit(QUICK))


class Judging(unittest.TestCase):
    def judged(self, outcomes, chosen=None, unchanged=sandbox.Outcome(sandbox.PASSED, 0.1)):
        """The verdict where each test's runs with the mutant end as told, and without it as is told of all."""
        told = []
        runs = {name: iter(results) for name, results in outcomes.items()}

        def run(run_case, limit, replaced, variables):
            if not dict(variables)[schemata.VARIABLE]:
                return unchanged
            return sandbox.Outcome(next(runs.get(run_case.name, iter(())), sandbox.PASSED), 0.1)

        twins = mock.Mock()
        twins.are_one_program.return_value = False
        judging = judge.Judge(pathlib.Path("/"), None, chosen or chooser(), twins, 1, time.monotonic() + 60, told.append)
        with mock.patch.object(sandbox, "run", run):
            judging._judge((), 1, a_mutant())
        return told[0]

    def test_ends_with_the_first_test_that_fails(self):
        verdict = self.judged({"Slow.Test": [sandbox.FAILED] * 2})
        self.assertEqual((verdict.result, verdict.by, verdict.tests), (judge.KILLED, "Slow.Test", 2))

    def test_takes_a_time_out_for_a_kill(self):
        self.assertEqual(self.judged({"App.Test": [sandbox.TIMED_OUT] * 2}).result, judge.KILLED)

    def test_does_not_believe_a_time_out_that_does_not_come_again(self):
        verdict = self.judged({"App.Test": [sandbox.TIMED_OUT, sandbox.PASSED]})
        self.assertEqual((verdict.result, verdict.unsteady), (judge.SURVIVED, ("App.Test",)))

    def test_does_not_believe_a_time_out_where_the_unchanged_program_runs_out_of_time_too(self):
        verdict = self.judged({"App.Test": [sandbox.TIMED_OUT] * 3}, unchanged=sandbox.Outcome(sandbox.TIMED_OUT, 5))
        self.assertEqual((verdict.result, verdict.unsteady), (judge.SURVIVED, ("App.Test",)))

    def test_does_not_believe_a_time_out_where_the_unchanged_program_comes_near_to_one(self):
        near = sandbox.Outcome(sandbox.PASSED, 0.6 * chooser().limit(APP))
        verdict = self.judged({"App.Test": [sandbox.TIMED_OUT] * 2}, unchanged=near)
        self.assertEqual((verdict.result, verdict.unsteady), (judge.SURVIVED, ("App.Test",)))

    def test_confirms_a_time_out_behind_a_failure(self):
        near = sandbox.Outcome(sandbox.PASSED, 0.6 * chooser().limit(APP))
        outcomes = {"App.Test": [sandbox.FAILED, sandbox.TIMED_OUT, sandbox.TIMED_OUT]}
        self.assertEqual(self.judged(outcomes).result, judge.KILLED)
        self.assertEqual(self.judged(outcomes, unchanged=near).result, judge.SURVIVED)

    def test_tries_a_time_out_again_with_no_run_beside_it(self):
        judging = judge.Judge(pathlib.Path("/"), None, chooser(), mock.Mock(), 2, time.monotonic() + 60, lambda _: None)
        alone = []

        def run(run_case, *_):
            if run_case == APP:
                alone.append(judging._gate.is_taken_by_one())
            return sandbox.Outcome(sandbox.TIMED_OUT if run_case == APP else sandbox.PASSED, 0.1)

        with mock.patch.object(sandbox, "run", run):
            judging._judge((), 1, a_mutant())
        self.assertEqual(alone, [False, True, True])

    def test_asks_the_program_of_every_day_about_a_time_out_of_a_mutant_that_was_built_alone(self):
        told, unchanged = [], []
        judging = judge.Judge(pathlib.Path("/"), None, chooser(), mock.Mock(), 1, time.monotonic() + 60, told.append)

        def run(run_case, limit, replaced, variables):
            if not replaced:
                unchanged.append(run_case.name)
            return sandbox.Outcome(sandbox.TIMED_OUT if replaced and run_case == APP else sandbox.PASSED, 0.1)

        with mock.patch.object(sandbox, "run", run):
            judging._judge([("program", "changed")], 0, a_mutant())
        self.assertEqual((told[0].result, unchanged), (judge.KILLED, ["App.Test"]))

    def judged_unsteadily(self, changed, unchanged):
        """The verdicts on two mutants where the test's runs with the mutants and without one end so; what was unsteady."""
        told, judging = [], None
        runs = {True: iter(changed), False: iter(unchanged)}

        def run(run_case, limit, replaced, variables):
            result = next(runs[bool(dict(variables)[schemata.VARIABLE])]) if run_case == APP else sandbox.PASSED
            return sandbox.Outcome(result, 0.1)

        twins = mock.Mock()
        twins.are_one_program.return_value = False
        judging = judge.Judge(pathlib.Path("/"), None, chooser(), twins, 1, time.monotonic() + 60, told.append)
        with mock.patch.object(sandbox, "run", run):
            for number in (1, 2):
                judging._judge((), number, a_mutant())
        return [verdict.result for verdict in told], judging.unsteady

    def test_lets_one_failure_with_nothing_changed_spoil_no_kill_and_names_the_test(self):
        failed, passed = sandbox.FAILED, sandbox.PASSED
        self.assertEqual(self.judged_unsteadily([failed] * 6, [failed, passed]), ([judge.KILLED] * 2, {"App.Test"}))

    def test_wants_a_third_failure_of_a_test_that_fails_by_chance(self):
        failed, passed = sandbox.FAILED, sandbox.PASSED
        self.assertEqual(self.judged_unsteadily([failed, failed, passed] * 2, [failed, passed]),
                         ([judge.SURVIVED] * 2, {"App.Test"}))

    def test_believes_no_test_that_fails_twice_with_nothing_changed_nor_calls_it_unsteady(self):
        failed = sandbox.FAILED
        self.assertEqual(self.judged_unsteadily([failed] * 4, [failed] * 2), ([judge.SURVIVED] * 2, set()))

    def judged_alone(self, unchanged):
        """The verdict on a mutant that was built alone, where a test fails with it, and so without it."""
        told, judging = [], None

        def run(run_case, limit, replaced, variables):
            return sandbox.Outcome(sandbox.FAILED if replaced and run_case == APP else unchanged, 0.1)

        twins = mock.Mock()
        twins.are_one_program.return_value = False
        judging = judge.Judge(pathlib.Path("/"), None, chooser(), twins, 1, time.monotonic() + 60, told.append)
        with mock.patch.object(sandbox, "run", run):
            judging._judge([("program", "changed")], 0, a_mutant())
        return told[0].result

    def test_believes_a_failure_of_a_mutant_that_was_built_alone_where_the_program_of_every_day_passes(self):
        self.assertEqual(self.judged_alone(sandbox.PASSED), judge.KILLED)
        self.assertEqual(self.judged_alone(sandbox.FAILED), judge.SURVIVED)

    def test_does_not_believe_a_failure_that_does_not_come_again(self):
        verdict = self.judged({"Quick.Test": [sandbox.FAILED, sandbox.PASSED]})
        self.assertEqual((verdict.result, verdict.unsteady), (judge.SURVIVED, ("Quick.Test",)))

    def test_survives_where_every_test_passes(self):
        verdict = self.judged({})
        self.assertEqual((verdict.result, verdict.tests), (judge.SURVIVED, 3))

    def test_is_over_when_the_time_is(self):
        told = []
        judge.Judge(pathlib.Path("/"), None, chooser(), mock.Mock(), 1, time.monotonic() - 1, told.append)._judge(
            (), 1, a_mutant())
        self.assertEqual(told[0].result, judge.NOT_JUDGED)

    def judged_at(self, clock, result=sandbox.PASSED):
        """The verdict where the time ends at 1 and each run ends so, and the runs with their limits."""
        told, ran = [], []

        def run(run_case, limit, *_):
            ran.append((run_case.name, limit))
            return sandbox.Outcome(result, 0.1)

        judging = judge.Judge(pathlib.Path("/"), None, chooser(), mock.Mock(), 1, 1, told.append)
        with mock.patch.object(sandbox, "run", run), mock.patch.object(time, "monotonic", mock.Mock(side_effect=clock)):
            judging._judge((), 1, a_mutant())
        return told[0].result, ran

    def test_is_over_between_two_tests_of_one_mutant(self):
        self.assertEqual(self.judged_at([0, 2]), (judge.NOT_JUDGED, [("Quick.Test", 1)]))

    def test_takes_no_run_that_the_end_of_the_time_cuts_short_for_a_time_out(self):
        self.assertEqual(self.judged_at([0.5], sandbox.TIMED_OUT), (judge.NOT_JUDGED, [("Quick.Test", 0.5)]))

    def test_lets_nothing_survive_where_there_was_no_time_to_see_what_all_tests_reach(self):
        self.assertEqual(self.judged({}, chooser(unseen=["Other.Test"])).result, judge.NOT_JUDGED)
        killed = self.judged({"Slow.Test": [sandbox.FAILED] * 2}, chooser(unseen=["Other.Test"]))
        self.assertEqual(killed.result, judge.KILLED)

    def test_has_no_verdict_where_the_time_is_over_before_it_is_known_whether_both_are_one_program(self):
        told, twins = [], mock.Mock()
        twins.are_one_program.side_effect = bounded.OutOfTime("c++")
        judging = judge.Judge(pathlib.Path("/"), None, chooser(reached=()), twins, 1, bounded.FOREVER, told.append)
        judging._judge((), 1, a_mutant())
        self.assertEqual(told[0].result, judge.NOT_JUDGED)

    def test_writes_and_builds_nothing_behind_the_deadline(self):
        told, tree = [], mock.Mock()
        judging = judge.Judge(pathlib.Path("/"), lambda _: tree, chooser(), mock.Mock(), 1, time.monotonic() - 1, told.append)
        judging.all([a_mutant(), type(a_mutant())(**{**vars(a_mutant()), "body": None})])
        self.assertEqual([verdict.result for verdict in told], [judge.NOT_JUDGED] * 2)
        self.assertEqual((tree.write.called, tree.make.called), (False, False))

    def test_has_no_verdict_on_mutants_whose_build_the_end_of_the_time_cuts_short(self):
        told, tree = [], mock.Mock()
        tree.make.side_effect = bounded.OutOfTime("ninja")
        judging = judge.Judge(pathlib.Path("/"), lambda _: tree, chooser(), mock.Mock(), 1, bounded.FOREVER, told.append)
        alone = type(a_mutant())(**{**vars(a_mutant()), "body": None})
        with mock.patch.object(pathlib.Path, "read_bytes", lambda _: b"int f() { return 1; }"):
            judging.all([a_mutant(), alone])
        self.assertEqual([verdict.result for verdict in told], [judge.NOT_JUDGED] * 2)

    def test_builds_what_is_in_headers_last(self):
        order = []
        judging = judge.Judge(pathlib.Path("/"), None, chooser(), mock.Mock(), 1, bounded.FOREVER, None)
        judging._judge_alone = lambda mutant: order.append(mutant.file)
        judging._together = lambda batch: order.extend(mutant.file for mutant in batch) or []
        for body in ((8, 21), None):
            judging.all([type(a_mutant())(**{**vars(a_mutant(file=file)), "body": body})
                         for file in ("src/gp/A.h", "src/gp/B.cpp")])
        self.assertEqual(order, ["src/gp/B.cpp", "src/gp/A.h"] * 2)


class Gate(unittest.TestCase):
    def test_lets_nobody_begin_beside_one_that_is_alone_or_waits_to_be(self):
        entered, may_leave, order = threading.Event(), threading.Event(), []
        passage = gate.Gate()

        def alone():
            with passage.alone():
                entered.set()
                may_leave.wait(10)
                order.append("alone")

        def beside():
            with passage.beside_others():
                order.append("another")

        threads = [threading.Thread(target=alone), threading.Thread(target=beside)]
        with passage.beside_others():
            threads[0].start()
            while not passage.is_wanted_by_one():
                time.sleep(0.001)
            threads[1].start()
            self.assertFalse(entered.is_set())
            order.append("first")
        self.assertTrue(entered.wait(10))
        self.assertTrue(passage.is_taken_by_one())
        may_leave.set()
        for thread in threads:
            thread.join(10)
        self.assertEqual(order, ["first", "alone", "another"])
        self.assertFalse(passage.is_wanted_by_one())


class Errors(unittest.TestCase):
    def test_belong_to_the_mutant_in_whose_lines_they_are(self):
        tree = mock.Mock(directory=pathlib.Path("/copy"))
        texts = {"src/gp/Example.cpp": schemata.Text(b"", ((1, 10, 12), (2, 13, 15)))}
        output = "/copy/src/gp/Example.cpp:14:3: error: no such name\n/copy/src/gp/Example.cpp:11:3: note: here\n"
        self.assertEqual(judge._numbers_with_errors(output, tree, texts), {2})


class Report(unittest.TestCase):
    def verdicts(self, *results):
        return [judge.Verdict(a_mutant(), result) for result in results]

    def test_counts_neither_what_is_listed_nor_what_does_not_build(self):
        table = report.table(self.verdicts(judge.KILLED, judge.KILLED, judge.KILLED, judge.SURVIVED, report.EQUIVALENT,
                                           judge.NOT_COMPILED, judge.SAME, judge.NOT_JUDGED))
        self.assertTrue(all(line.endswith("75.0 %") for line in table.splitlines()[1:]), table)

    def test_has_no_score_where_nothing_was_judged(self):
        self.assertTrue(report.table(self.verdicts(judge.NOT_JUDGED)).endswith("-"))

    def test_shows_a_survivor_with_its_change(self):
        text = report.survivor(judge.Verdict(a_mutant(), judge.SURVIVED, tests=3))
        self.assertIn("src/gp/Example.cpp:1 f()\n- int f() { return 1; }\n+ int f() { return 2; }", text)


if __name__ == "__main__":
    unittest.main()

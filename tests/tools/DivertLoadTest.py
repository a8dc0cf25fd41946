"""What the load of live traffic takes for a failure, and when its restarts of the agent end."""
import contextlib
import importlib.machinery
import importlib.util
import io
import sys
import types
import unittest

from support import ROOT

sys.dont_write_bytecode = True
loader = importlib.machinery.SourceFileLoader("divert_load", str(ROOT / "scripts/divert-load"))
load = importlib.util.module_from_spec(importlib.util.spec_from_loader("divert_load", loader))
loader.exec_module(load)


def row(threads, questions=10, descriptors=11, kilobytes=5000):
    return {"threads": threads, "questions": questions, "descriptors": descriptors, "residentKilobytes": kilobytes,
            "restarts": 0, "second": 0}


AT_REST = row(8, questions=1)
GONE = row(8 + load.QUERY_THREADS)


class RestartsEnd(unittest.TestCase):
    def test_once_no_query_thread_was_to_spare_for_longer_than_an_answer_takes(self):
        self.assertTrue(load.all_gone([AT_REST] + [GONE] * load.STUCK))

    def test_not_before(self):
        self.assertFalse(load.all_gone([AT_REST] + [GONE] * (load.STUCK - 1)))

    def test_not_while_one_is_to_spare_now_and_then(self):
        spared = row(8 + load.QUERY_THREADS - 1)
        self.assertFalse(load.all_gone([AT_REST] + [GONE] * (load.STUCK - 1) + [spared, GONE]))


def failures(seen, after=row(8, questions=1 + 2), restart_agent=0):
    arguments = types.SimpleNamespace(restart_agent=restart_agent, ipv6=False)
    with contextlib.redirect_stdout(io.StringIO()):
        return load.check(seen, [AT_REST, row(12), after], arguments, 0)


PAGE = ("allow", "page", 0.2, False)
HANGS = ("allow", "waited in vain", 30, False)
FOREIGN = ("allow", "another's redirect: x for y", 0.2, False)


class Load(unittest.TestCase):
    def test_is_fine_when_every_connection_ends_as_the_policy_says(self):
        self.assertEqual(failures([PAGE, ("block", "redirected", 0.2, False)]), [])

    def test_fails_for_a_request_that_is_lost(self):
        self.assertEqual(failures([PAGE, HANGS]), ["allow: waited in vain"])

    def test_fails_for_a_blocked_page_that_arrives(self):
        self.assertEqual(failures([PAGE, ("block", "not blocked", 0.2, False)]), ["block: not blocked"])

    def test_fails_for_another_connections_redirect(self):
        self.assertEqual(failures([PAGE, FOREIGN]), ["allow: another's redirect: x for y"])

    def test_fails_for_a_request_that_passed_unasked(self):
        self.assertEqual(failures([PAGE, PAGE, PAGE]), ["requests have passed unasked"])
        self.assertEqual(failures([("again", "page", 0.2, False)]), ["requests have passed unasked"])

    def test_fails_for_what_the_daemon_keeps(self):
        self.assertEqual(failures([PAGE], row(9)), ["threads are left"])
        self.assertEqual(failures([PAGE], row(8, descriptors=12)), ["descriptors are left"])
        self.assertEqual(failures([PAGE], row(8, kilobytes=7000)), ["memory grows"])

    def test_lets_requests_wait_where_the_agent_goes_away_and_still_none_meet_anothers_outcome(self):
        self.assertEqual(failures([HANGS], restart_agent=20), [])
        self.assertEqual(len(failures([FOREIGN], restart_agent=20)), 1)


if __name__ == "__main__":
    unittest.main()

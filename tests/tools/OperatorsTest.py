"""Each operator on small texts: what it makes, and what it leaves out."""
import unittest

from support import changes, mutants, needs_clang, results


@needs_clang
class Condition(unittest.TestCase):
    def test_is_negated_in_each_statement_that_has_one(self):
        self.assertEqual(results("condition", "if (ready) first();"), ["if (!ready) first();"])
        self.assertEqual(results("condition", "while (call(1)) first();"), ["while (!call(1)) first();"])
        self.assertEqual(results("condition", "do { first(); } while (ready);"), ["do { first(); } while (!ready);"])
        self.assertEqual(results("condition", "for (a = 0; a < b; ++a) first();"),
                         ["for (a = 0; a >= b; ++a) first();"])
        self.assertEqual(results("condition", "a = ready ? b : c;"), ["a = !ready ? b : c;"])

    def test_that_is_negated_already_loses_its_negation(self):
        self.assertEqual(results("condition", "if (!ready) first();"), ["if (ready) first();"])

    def test_of_two_tests_is_negated_in_each_and_as_a_whole(self):
        self.assertCountEqual(results("condition", "if (ready && a == 1) first();"),
                              ["if (!(ready && a == 1)) first();", "if (!ready && a == 1) first();",
                               "if (ready && a != 1) first();"])

    def test_that_is_returned_or_kept_is_negated(self):
        self.assertEqual(results("condition", "return a == b;", "bool example()"), ["return a != b;"])
        self.assertEqual(results("condition", "const bool same = a == b;"), ["const bool same = a != b;"])

    def test_that_is_a_literal_or_declares_a_variable_is_left_out(self):
        self.assertEqual(results("condition", "while (true) first();"), [])
        self.assertEqual(results("condition", "if (GPObject* found = object) found->count();"), [])

    def test_behind_an_initialiser_is_the_one_that_is_negated(self):
        self.assertEqual(results("condition", "if (int found = call(1); found) first();"),
                         ["if (int found = call(1); !found) first();"])


@needs_clang
class Bound(unittest.TestCase):
    def test_moves_by_one_to_either_side(self):
        for old, new in (("<", "<="), ("<=", "<"), (">", ">="), (">=", ">")):
            self.assertEqual(results("bound", f"if (a {old} b) first();"), [f"if (a {new} b) first();"])

    def test_is_not_looked_for_in_equality(self):
        self.assertEqual(results("bound", "if (a == b) first();"), [])


@needs_clang
class Logic(unittest.TestCase):
    def test_swaps_and_with_or(self):
        self.assertEqual(results("logic", "if (ready && open) first();"), ["if (ready || open) first();"])
        self.assertEqual(results("logic", "if (ready || open) first();"), ["if (ready && open) first();"])

    def test_keeps_the_order_of_evaluation_of_what_stands_around_it(self):
        self.assertIn("if ((ready || open) && a) first();", results("logic", "if (ready && open && a) first();"))
        self.assertIn("if ((ready || open) && a) first();", results("logic", "if (ready || open || a) first();"))


@needs_clang
class Constant(unittest.TestCase):
    def test_is_one_more(self):
        self.assertEqual(results("constant", "a = 41;"), ["a = 42;"])
        self.assertEqual(results("constant", "a = 0x7f;"), ["a = 0x80;"])
        self.assertEqual(results("constant", "call(017);"), ["call(020);"])
        self.assertEqual(results("constant", "a = 1'000u;"), ["a = 1001u;"])

    def test_of_truth_is_the_other(self):
        self.assertEqual(results("constant", "ready = true;"), ["ready = false;"])

    def test_outside_functions_counts_too(self):
        found = [mutant for mutant in mutants("namespace { constexpr int limit = 30; }") if mutant.operator == "constant"]
        self.assertEqual([(mutant.function, mutant.new, mutant.body) for mutant in found],
                         [("limit", ("namespace { constexpr int limit = 31; }",), None)])

    def test_that_is_an_arrays_size_or_a_log_level_is_left_out(self):
        self.assertEqual(results("constant", "char text[256];"), [])
        self.assertEqual(results("constant", "if (Configuration::isLogLevel(1)) first();"), [])

    def test_from_a_macro_is_left_out(self):
        self.assertEqual([mutant for mutant in mutants("#define FIVE 5\nvoid example() { a = FIVE; }")
                          if mutant.operator == "constant"], [])


@needs_clang
class Drop(unittest.TestCase):
    def test_takes_out_calls_assignments_and_counts(self):
        self.assertEqual(changes("drop", "first();"), [("first();", "")])
        self.assertEqual(changes("drop", "a = b;"), [("a = b;", "")])
        self.assertEqual(changes("drop", "a += b;"), [("a += b;", "")])
        self.assertEqual(changes("drop", "++a;"), [("++a;", "")])

    def test_leaves_an_empty_statement_where_one_is_needed(self):
        self.assertEqual(results("drop", "if (ready) first();\nelse second();"),
                         ["if (ready) ;", "else ;"])

    def test_leaves_out_what_does_nothing(self):
        self.assertEqual(results("drop", "static_cast<void>(a);"), [])


@needs_clang
class Guard(unittest.TestCase):
    def test_is_dropped_with_what_frees_it_early(self):
        self.assertEqual(changes("guard", "GPMutexLock lock(mutex);\nfirst();\nlock.unlock();"),
                         [("GPMutexLock lock(mutex); lock.unlock();", "")])

    def test_by_hand_is_dropped_as_a_pair(self):
        self.assertEqual(changes("guard", "mutex->lock();\nfirst();\nmutex->unlock();"),
                         [("mutex->lock(); mutex->unlock();", "")])


@needs_clang
class Swap(unittest.TestCase):
    def test_changes_the_order_of_neighbours(self):
        self.assertEqual(changes("swap", "first();\nsecond();"), [("first(); second();", "second(); first();")])

    def test_takes_a_guard_for_a_neighbour(self):
        self.assertEqual(changes("swap", "GPMutexLock lock(mutex);\nfirst();"),
                         [("GPMutexLock lock(mutex); first();", "first(); GPMutexLock lock(mutex);")])

    def test_leaves_out_assignments_that_have_nothing_to_do_with_each_other(self):
        self.assertEqual(results("swap", "a = 1;\nb = 2;"), [])
        self.assertEqual(results("swap", "a = 1;\nb = a;"), ["b = a; a = 1;"])


@needs_clang
class Reference(unittest.TestCase):
    def test_is_dropped_and_doubled(self):
        self.assertEqual(changes("reference", "object->retain();"),
                         [("object->retain();", ""), ("object->retain();", "object->retain(), object->retain();")])

    def test_within_an_expression_is_doubled(self):
        self.assertEqual(results("reference", "if (object->release() == 1) first();"),
                         ["if ((object->release(), object->release()) == 1) first();"])

    def test_of_a_handle_is_taken_or_not(self):
        self.assertEqual(results("reference", "auto held = Owned<GPObject>::adopt(object);"),
                         ["auto held = Owned<GPObject>::retain(object);"])


@needs_clang
class Return(unittest.TestCase):
    def test_is_dropped_where_the_function_goes_on(self):
        self.assertEqual(results("return", "if (ready) return;\nfirst();"), ["if (ready) ;"])

    def test_at_the_end_stays(self):
        self.assertEqual(results("return", "if (ready) return 1;\nelse return 2;", "int example()"), [])
        self.assertEqual(results("return", "first();\nreturn 2;", "int example()"), [])


@needs_clang
class Level(unittest.TestCase):
    def test_of_the_log_becomes_another(self):
        self.assertEqual(results("level", "if (Configuration::isLogLevel(1)) first();"),
                         ["if (Configuration::isLogLevel(2)) first();"])
        self.assertEqual(results("level", "if (Configuration::isLogLevel(128)) first();"),
                         ["if (Configuration::isLogLevel(64)) first();"])


@needs_clang
class Argument(unittest.TestCase):
    def test_is_replaced_by_a_neighbour_of_its_type(self):
        self.assertEqual(results("argument", "both(a, b);"), ["both(b, b);", "both(a, a);"])

    def test_of_another_type_is_no_neighbour(self):
        self.assertEqual(results("argument", 'mixed(a, "text", b);'), [])


@needs_clang
class Places(unittest.TestCase):
    def test_of_one_text_in_one_function_are_told_apart(self):
        found = [mutant for mutant in mutants("void example() {\nfirst();\na = 1;\nfirst();\n}\n")
                 if mutant.old == ("first();",)]
        self.assertEqual([(mutant.line - found[0].line, mutant.occurrence) for mutant in found], [(0, 1), (2, 2)])

    def test_in_a_constant_function_are_not_chosen_at_run_time(self):
        found = mutants("constexpr int example() { return 1; }")
        self.assertEqual([mutant.body for mutant in found], [None])

    def test_in_an_initialiser_of_a_member_are_not_chosen_at_run_time(self):
        found = mutants("struct Example { Example() : value(1) { first(); } int value; };")
        self.assertEqual([(mutant.operator, mutant.body is None) for mutant in found],
                         [("constant", True), ("drop", False)])


if __name__ == "__main__":
    unittest.main()

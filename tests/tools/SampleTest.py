"""Samples are decided by the seed alone."""
import unittest

from support import a_mutant

from mutation.mutant import sample

MANY = [a_mutant(function=f"f{number}()") for number in range(200)]


class Sample(unittest.TestCase):
    def test_is_the_same_for_the_same_seed(self):
        self.assertEqual(sample(MANY, 20, "abc"), sample(list(MANY), 20, "abc"))

    def test_does_not_depend_on_the_order_in_which_the_mutants_were_found(self):
        self.assertEqual(sample(MANY, 20, "abc"), sample(MANY[::-1], 20, "abc"))

    def test_is_another_for_another_seed(self):
        self.assertNotEqual(sample(MANY, 20, "abc"), sample(MANY, 20, "abd"))

    def test_that_is_larger_begins_with_the_smaller(self):
        self.assertEqual(sample(MANY, 40, "abc")[:20], sample(MANY, 20, "abc"))

    def test_keeps_what_it_had_when_other_mutants_go(self):
        kept = sample(MANY, 20, "abc")
        fewer = [mutant for mutant in MANY if mutant in kept or MANY.index(mutant) % 2]
        self.assertEqual(sample(fewer, 20, "abc"), kept)

    def test_is_all_where_there_are_no_more(self):
        self.assertEqual(len(sample(MANY, 1000, "abc")), 200)


if __name__ == "__main__":
    unittest.main()

"""What is read out of a coverage report."""
import importlib.machinery
import importlib.util
import unittest

from support import ROOT


def script(name):
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / "scripts" / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    loader.exec_module(module)
    return module


coverage = script("coverage")

REPORT = f"""SF:{ROOT}/src/gp/GPList.cpp
DA:1,3
DA:2,0
DA:3,18446744073709551614
BRDA:1,0,0,2
BRDA:1,0,1,0
BRDA:2,0,0,-
BRDA:2,0,1,4294967294
end_of_record
SF:{ROOT}/src/filter/QueryCache.cpp
DA:7,1
end_of_record
"""


class Coverage(unittest.TestCase):
    def setUp(self):
        self.files = dict(coverage.parsed(REPORT))

    def test_counts_lines_and_branches_of_each_file(self):
        self.assertEqual(sorted(self.files), ["src/filter/QueryCache.cpp", "src/gp/GPList.cpp"])
        self.assertEqual(self.files["src/gp/GPList.cpp"]["branches"],
                         {(1, "0", "0"): 2, (1, "0", "1"): 0, (2, "0", "0"): 0, (2, "0", "1"): 0})

    def test_takes_a_count_below_zero_for_none(self):
        self.assertEqual(self.files["src/gp/GPList.cpp"]["lines"], {1: 3, 2: 0, 3: 0})

    def test_is_a_share_of_what_there_is(self):
        self.assertAlmostEqual(coverage.ratio(self.files.values(), "lines"), 50.0)
        self.assertEqual(coverage.ratio([self.files["src/filter/QueryCache.cpp"]], "branches"), 100.0)

    def test_has_a_row_for_each_folder_and_one_for_all(self):
        rows = [line.split()[0] for line in coverage.table(self.files).splitlines()]
        self.assertEqual(rows, ["folder", "filter", "gp", "all"])

    def test_names_what_is_missing(self):
        found = list(coverage.missing(self.files, "gp"))
        self.assertEqual([line.split(": ")[:2] for line in found],
                         [["src/gp/GPList.cpp:2", "not run"], ["src/gp/GPList.cpp:3", "not run"],
                          ["src/gp/GPList.cpp:1", "one way only"]])


if __name__ == "__main__":
    unittest.main()

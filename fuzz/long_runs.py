#!/usr/bin/env python3
"""Runs fuzz targets one after the other for so many minutes each, then plays inputs of 1 MB that are their seeds over and
over, and prints a table.

A find is an input that ends the target, or one that takes more than a second of processor time. The clock on the wall
says nothing on a busy machine, so an input that seemed slow is played again alone. Ends with 1 when there are finds;
what was found lies beside build/fuzz/corpus.

  fuzz/long_runs.py MINUTES TARGET...
"""
import pathlib
import re
import resource
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build" / "fuzz" / "fuzz"
FOUND = ROOT / "build" / "fuzz" / "corpus"
LARGE = 1 << 20
MOST_FINDS = 10


def last_number(pattern, text, otherwise=0):
    numbers = re.findall(pattern, text, re.MULTILINE)
    return int(numbers[-1]) if numbers else otherwise


class Target:
    def __init__(self, name):
        self.name = name
        self.program = PROGRAMS / name
        self.seeds = ROOT / "fuzz" / "corpus" / name
        self.found = FOUND / name
        self.found.mkdir(parents=True, exist_ok=True)
        self.executions = self.reached = self.edges = self.large = 0
        self.finds = []

    def artifacts(self, kind):
        return set(FOUND.glob(f"{self.name}-{kind}-*"))

    def processor_seconds(self, file):
        """Of one input, without the program's own start."""
        def measured(*files):
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            subprocess.run([self.program, *files], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
        with tempfile.NamedTemporaryFile() as nothing:
            return measured(file) - measured(nothing.name)

    def is_slow(self, file):
        return self.processor_seconds(file) > 1

    def run(self, minutes):
        """Until the time is over; an input that ends the target is a find, and the run goes on behind it."""
        end = time.monotonic() + 60 * minutes
        suspects = self.artifacts("slow-unit") | self.artifacts("timeout")
        while (left := int(end - time.monotonic())) > 0 and len(self.finds) < MOST_FINDS:
            known = self.artifacts("*")
            # A run that reports slow inputs goes on; one that hangs is ended.
            ended = subprocess.run(
                [self.program, f"-max_total_time={left}", f"-max_len={LARGE}", "-timeout=60", "-report_slow_units=1",
                 "-rss_limit_mb=4096", "-print_final_stats=1", f"-artifact_prefix={self.found}-", self.found, self.seeds],
                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, encoding="utf-8", errors="replace", check=False)
            self.take_figures(ended.stderr)
            (FOUND / f"{self.name}.log").write_text(ended.stderr)
            new = self.artifacts("*") - known
            self.finds += [file for file in new if not re.search("-(slow-unit|timeout)-", file.name)]
            if ended.returncode != 0 and not new:
                self.finds.append(FOUND / f"{self.name}.log")
        slow = (self.artifacts("slow-unit") | self.artifacts("timeout")) - suspects
        self.finds += [file for file in slow if self.is_slow(file)]

    def take_figures(self, output):
        self.executions += last_number(r"^stat::number_of_executed_units: (\d+)", output)
        self.reached = max(self.reached, last_number(r"cov: (\d+)", output))
        self.edges = last_number(r"\((\d+) inline 8-bit counters\)", output)

    def play_large(self):
        """Each seed behind itself, up to 1 MB; in milliseconds the longest that one took."""
        with tempfile.TemporaryDirectory() as folder:
            for seed in sorted(self.seeds.iterdir()):
                data = seed.read_bytes()
                if not data:
                    continue
                file = pathlib.Path(folder) / seed.name
                file.write_bytes((data * (LARGE // len(data) + 1))[:LARGE])
                ended = subprocess.run([self.program, "-rss_limit_mb=4096", file], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.PIPE, encoding="utf-8", errors="replace", check=False)
                took = last_number(r"in (\d+) ms", ended.stderr)
                self.large = max(self.large, took)
                if ended.returncode != 0 or took > 1000 and self.is_slow(file):
                    kept = FOUND / f"{self.name}-large-{seed.name}"
                    kept.write_bytes(file.read_bytes())
                    self.finds.append(kept)


def main():
    minutes = float(sys.argv[1])
    targets = [Target(name) for name in sys.argv[2:]]
    form = "{:26} {:>12} {:>7} {:>7} {:>9} {:>6}"
    print(form.format("target", "executions", "edges", "of", "1 MB, ms", "finds"), flush=True)
    for target in targets:
        target.run(minutes)
        target.play_large()
        print(form.format(target.name, target.executions, target.reached, target.edges, target.large,
                          len(target.finds)), flush=True)
    finds = [file for target in targets for file in target.finds]
    for file in finds:
        print(f"find: {file}")
    sys.exit(1 if finds else 0)


main()

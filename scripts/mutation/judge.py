"""Builds mutants and lets the tests judge them."""
import collections
import dataclasses
import queue
import re
import threading
from concurrent.futures import ThreadPoolExecutor

from mutation import bounded, sandbox, schemata
from mutation.gate import Gate
from mutation.mutant import apply

KILLED, SURVIVED, NOT_COMPILED, NOT_JUDGED = "killed", "survived", "not compiled", "not judged"
SAME = "the same program"
UNSTEADY = "unsteady"  # of one test: it noticed the mutant, but not for sure
BODIES = 60  # at most that many of one function in one build


@dataclasses.dataclass(frozen=True)
class Verdict:
    mutant: object
    result: str
    by: str = ""          # the test that killed it
    tests: int = 0        # how many ran
    unsteady: tuple = ()  # tests that failed once and not again


class Judge:
    def __init__(self, root, tree_at, chooser, twins, jobs, deadline, told):
        self._root = root
        self._tree_at = tree_at    # makes the tree of a name
        self._chooser = chooser
        self._twins = twins
        self._jobs = jobs
        self._deadline = deadline  # by the monotonic clock
        self._told = told          # is called with each verdict
        self._lock = threading.Lock()
        self._places = queue.Queue()  # the trees for mutants that are built alone
        for number in range(jobs):
            self._places.put(f"alone-{number}")
        self._fit = {}             # (in a shared build, test) -> how it ends there with nothing changed
        self.unsteady = set()      # tests that failed once and passed once with nothing changed
        self._gate = Gate()

    def all(self, mutants):
        """Judges all of them. Those inside a function's body share builds, the others get one each."""
        alone = [mutant for mutant in mutants if not mutant.body]
        for batch in _batches([mutant for mutant in mutants if mutant.body]):
            alone += self._together(batch)
        alone.sort(key=_is_in_header)
        with ThreadPoolExecutor(self._jobs) as pool:
            list(pool.map(self._judge_alone, alone))

    def _together(self, mutants):
        """Judges mutants that share a build; the ones that must be built alone are given back."""
        tree = self._tree_at("shared")
        numbered, alone = dict(enumerate(mutants, 1)), []
        try:
            self._build(tree, numbered, alone)
        except bounded.OutOfTime:
            for mutant in numbered.values():
                self._tell(Verdict(mutant, NOT_JUDGED))
            return alone
        self._fit = {}
        replaced = tree.replaced(self._needed(tree, numbered.values()))
        with ThreadPoolExecutor(self._jobs) as pool:
            list(pool.map(lambda item: self._judge(replaced, item[0], item[1]), numbered.items()))
        return alone

    def _build(self, tree, numbered, alone):
        """Takes out what does not compile until the rest does."""
        while numbered:
            if not bounded.left(self._deadline):
                raise bounded.OutOfTime("build")
            texts = {file: schemata.with_mutants((self._root / file).read_bytes(), inside)
                     for file, inside in _by_file(numbered).items()}
            tree.write({file: text.content for file, text in texts.items()})
            output = tree.make(self._needed(tree, numbered.values()))
            if not output:
                break
            wrong = _numbers_with_errors(output, tree, texts)
            for number in wrong:
                self._tell(Verdict(numbered.pop(number), NOT_COMPILED))
            if not wrong:  # errors that nobody answers for: each by itself, then
                files = {file for file in texts if f"{file}.o" in output or f"/{file}:" in output} or set(texts)
                for number in [number for number, mutant in numbered.items() if mutant.file in files]:
                    alone.append(numbered.pop(number))

    def _needed(self, tree, mutants):
        """The programs that judging these mutants takes."""
        cases = {case for mutant in mutants for case in self._chooser.tests(mutant)}
        return tree.needed_programs({mutant.file for mutant in mutants}, cases)

    def _judge_alone(self, mutant):
        place = self._places.get()
        try:
            self._judge_in(self._tree_at(place), mutant)
        except bounded.OutOfTime:
            self._tell(Verdict(mutant, NOT_JUDGED))
        finally:
            self._places.put(place)

    def _judge_in(self, tree, mutant):
        if not bounded.left(self._deadline):
            raise bounded.OutOfTime("build")
        tree.write({mutant.file: apply((self._root / mutant.file).read_bytes(), mutant.edits)})
        programs = self._needed(tree, [mutant])
        with self._gate.beside_others():
            output = tree.make(programs)
        if output:
            self._tell(Verdict(mutant, NOT_COMPILED))
            return
        self._judge(tree.replaced(programs), 0, mutant)

    def _judge(self, replaced, number, mutant):
        try:
            self._tell(self._verdict(replaced, number, mutant))
        except bounded.OutOfTime:
            self._tell(Verdict(mutant, NOT_JUDGED))

    def _verdict(self, replaced, number, mutant):
        unsteady, count = [], 0
        for case in self._chooser.tests(mutant):
            count += 1
            said = self._said_by(case, replaced, number)
            if said == UNSTEADY:
                unsteady.append(case.name)
            elif said == KILLED:
                self._chooser.note_kill(mutant, case)
                return Verdict(mutant, KILLED, case.name, count, tuple(unsteady))
        return Verdict(mutant, self._unnoticed(mutant), "", count, tuple(unsteady))

    def _unnoticed(self, mutant):
        """What a mutant is that no test has noticed."""
        if self._twins.are_one_program(mutant):
            return SAME
        return NOT_JUDGED if self._chooser.lacks_some() else SURVIVED

    def _said_by(self, case, replaced, number):
        """What one test says of a mutant. One that fails by chance kills nothing."""
        with self._gate.beside_others():
            result = self._run(case, replaced, number).result
            if result == sandbox.FAILED:
                result = self._run(case, replaced, number).result
                if result == sandbox.PASSED:
                    return UNSTEADY
            if result == sandbox.FAILED:
                return self._said_by_failing(case, replaced, number)
        return SURVIVED if result == sandbox.PASSED else self._said_alone_by(case, replaced, number)

    def _said_by_failing(self, case, replaced, number):
        """What a test says that failed twice. One that fails by chance with nothing changed must fail once more."""
        unchanged = self._unchanged(replaced if number else (), case)
        if unchanged == sandbox.FAILED:
            return SURVIVED
        if unchanged == UNSTEADY and self._run(case, replaced, number).result != sandbox.FAILED:
            return UNSTEADY
        return KILLED

    def _said_alone_by(self, case, replaced, number):
        """What a test says that ran out of time. That may be the machine's doing: so it runs again beside no other,
        and right behind it the unchanged program, which must need less than half of the time that there is."""
        with self._gate.alone():
            if self._run(case, replaced, number).result == sandbox.PASSED:
                return UNSTEADY
            unchanged = self._run(case, replaced if number else (), 0)
        swift = unchanged.result == sandbox.PASSED and 2 * unchanged.seconds < self._chooser.limit(case)
        return KILLED if swift else UNSTEADY

    def _run(self, case, replaced, number):
        """One run of one test. A run that the end of the time cuts short says nothing of the mutant."""
        limit = self._chooser.limit(case)
        left = bounded.left(self._deadline)
        outcome = sandbox.run(case, min(limit, left), replaced, [(schemata.VARIABLE, number)]) if left else None
        if not outcome or (outcome.result == sandbox.TIMED_OUT and left < limit):
            raise bounded.OutOfTime(case.name)
        return outcome

    def _unchanged(self, replaced, case):
        """How a test ends with nothing changed. It fails where it fails twice."""
        key = (bool(replaced), case.name)
        if key not in self._fit:
            passed = [self._run(case, replaced, 0).result == sandbox.PASSED]
            if not passed[0]:
                passed.append(self._run(case, replaced, 0).result == sandbox.PASSED)
            self._fit[key] = sandbox.PASSED if all(passed) else UNSTEADY if any(passed) else sandbox.FAILED
        if self._fit[key] == UNSTEADY:
            self.unsteady.add(case.name)
        return self._fit[key]

    def _tell(self, verdict):
        with self._lock:
            self._told(verdict)


def _is_in_header(mutant):
    return mutant.file.endswith(".h")


def _batches(mutants):
    """Parts in which no function is there too often. Those of headers, for which much is built, come last."""
    sources = [mutant for mutant in mutants if not _is_in_header(mutant)]
    headers = [mutant for mutant in mutants if _is_in_header(mutant)]
    return _parts(sources) + _parts(headers)


def _parts(mutants):
    batches, counts = [], collections.Counter()
    for mutant in mutants:
        place = (mutant.file, mutant.body)
        index = counts[place] // BODIES
        counts[place] += 1
        if index == len(batches):
            batches.append([])
        batches[index].append(mutant)
    return batches


def _by_file(numbered):
    found = {}
    for number, mutant in numbered.items():
        found.setdefault(mutant.file, []).append((number, mutant))
    return found


def _numbers_with_errors(output, tree, texts):
    """The mutants in whose lines the compiler found errors."""
    found = set()
    for path, line in re.findall(r"^(.+?):(\d+):\d+: (?:fatal )?error:", output, re.M):
        for file, text in texts.items():
            if path.endswith(file) and str(tree.directory) in path:
                found |= {number for number, first, last in text.lines if first <= int(line) <= last}
    return found

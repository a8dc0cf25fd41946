"""The coverage map: which tests reach a statement. One run of all tests makes it; it is kept beside the build, for as
long as neither the tests nor the file that it tells about change."""
import hashlib
import json
import pathlib
import tempfile
from concurrent.futures import ThreadPoolExecutor

from mutation import bounded, sandbox, schemata
from mutation.mutant import line_and_column

LIMIT = 60  # seconds for one test
BESIDE = 2  # tests for each job: much of a test is waiting


class Map:
    """Reached statements of the files that were looked at, and what each test needs when nothing is changed."""

    def __init__(self, reached, names, seconds, failing, unseen=frozenset(), unsteady=frozenset()):
        self._reached = {file: {place: [names[index] for index in indices] for place, indices in places.items()}
                         for file, places in reached.items()}
        self.seconds = seconds   # test -> seconds
        self.failing = failing   # tests that fail with nothing changed, and judge nothing
        self.unseen = unseen     # tests that there was no time for
        self.unsteady = unsteady  # tests that failed once and passed once as the map was made

    def tests(self, file, statement):
        """The tests that reach the statement; None where the map cannot tell."""
        if statement is None or file not in self._reached:
            return None
        return self._reached[file].get("{}:{}".format(*statement), [])

    def tests_of_file(self, file):
        """The tests that reach any statement of the file."""
        return {name for names in self._reached.get(file, {}).values() for name in names}


def of(files, sources, cases, tree, kept, jobs, say, deadline=bounded.FOREVER):
    """The map for these files, from the last run where it is still true. Behind the deadline no test runs."""
    digest = _digest(sources.root, cases)
    stored = _stored(kept, digest)
    hashes = {file: hashlib.sha256((sources.root / file).read_bytes()).hexdigest() for file in files}
    unseen, unsteady = set(), set()
    missing = [file for file in files if stored["hashes"].get(file) != hashes[file]]
    if missing:
        say(f"coverage map: {len(cases)} tests over {len(missing)} files")
        made = _make(missing, sources, cases, tree, jobs, deadline)
        stored["hashes"].update({file: hashes[file] for file in missing})
        stored["reached"].update(made["reached"])
        stored.update(seconds=made["seconds"], failing=made["failing"])
        unseen.update(made["unseen"])
        unsteady.update(made["unsteady"])
        if not unseen:
            kept.parent.mkdir(parents=True, exist_ok=True)
            kept.write_text(json.dumps(stored))
    wanted = {file: stored["reached"][file] for file in files}
    return Map(wanted, [case.name for case in cases], stored["seconds"], set(stored["failing"]), frozenset(unseen),
               frozenset(unsteady))


def _stored(kept, digest):
    if kept.exists():
        stored = json.loads(kept.read_text())
        if stored["tests"] == digest:
            return stored
    return {"tests": digest, "hashes": {}, "reached": {}, "seconds": {}, "failing": []}


def _digest(root, cases):
    """What a test reaches depends on the tests' text and on all of the program's."""
    digest = hashlib.sha256("\n".join(case.name for case in cases).encode())
    for folder in ("src", "tests", "lab"):
        for path in sorted(pathlib.Path(root, folder).rglob("*")):
            if path.suffix in (".h", ".cpp") and path.is_file():
                digest.update(path.read_bytes())
    return digest.hexdigest()


def _make(files, sources, cases, tree, jobs, deadline):
    statements, changed, first = sources.statements(files), {}, {}
    numbered = []  # the statement of each number
    for file in files:
        source = (sources.root / file).read_bytes()
        changed[file] = schemata.with_probes(source, statements[file], len(numbered))
        numbered += [(file, "{}:{}".format(*line_and_column(source, place[0]))) for place in statements[file]]
    if len(numbered) > schemata.STATEMENTS:
        raise RuntimeError(f"{len(numbered)} statements, and the map has room for {schemata.STATEMENTS}")
    tree.write(changed)
    programs = tree.needed_programs(changed, cases)
    output = tree.make(programs)
    if output:
        raise RuntimeError(f"the copy with notes of reached statements does not build:\n{output[-3000:]}")
    replaced = tree.replaced(programs)

    reached = {file: {} for file in files}  # indices of the cases
    seconds, failing, unseen, unsteady = {}, [], [], []
    with ThreadPoolExecutor(BESIDE * jobs) as pool:
        results = pool.map(lambda case: _watched(case, replaced, tree.directory, deadline), cases)
        for index, (outcome, found, failures) in enumerate(results):
            if not outcome:
                unseen.append(cases[index].name)
                continue
            seconds[cases[index].name] = outcome.seconds
            if outcome.result != sandbox.PASSED:
                failing.append(cases[index].name)
            elif failures:
                unsteady.append(cases[index].name)
            for number in found:
                file, place = numbered[number]
                reached[file].setdefault(place, []).append(index)
    return {"reached": reached, "seconds": seconds, "failing": failing, "unseen": unseen, "unsteady": unsteady}


def _watched(case, replaced, folder, deadline):
    """Runs a test, once more where it fails, and tells the numbers of the statements that it reached, and how many runs
    failed before; nothing where the deadline comes first."""
    for failures in range(2):
        left = bounded.left(deadline)
        if not left:
            return None, [], failures
        with tempfile.NamedTemporaryFile(prefix="reached-", dir=folder) as file:
            file.truncate(schemata.STATEMENTS)
            outcome = sandbox.run(case, min(LIMIT, left), replaced, [(schemata.MAP_FILE, file.name)], [file.name])
            found = [index for index, byte in enumerate(pathlib.Path(file.name).read_bytes()) if byte]
        if outcome.result == sandbox.TIMED_OUT and left < LIMIT:
            return None, [], failures
        if outcome.result == sandbox.PASSED:
            break
    return outcome, found, failures

"""Which tests judge a mutant, and in which order."""


def watched_file(file):
    """The file whose statements the map knows: a header's are not watched, those of the source beside it are."""
    return file[:-2] + ".cpp" if file.endswith(".h") else file


class Chooser:
    def __init__(self, cases, reached, rest):
        self._cases = [case for case in cases if case.name not in reached.failing | reached.unseen]
        self._names = {case.name: case for case in self._cases}
        self._reached = reached
        self._rest = rest
        self._kills = {}  # (file, test) -> how many mutants of the file it has killed

    def tests(self, mutant):
        """First those that reach the changed statement. A test that does not reach it runs the same instructions as
        ever; the rest of the folder's and app's follow only if asked for, or where the map cannot see the place."""
        seen = self._reached.tests(mutant.file, mutant.statement)
        names = self._reached.tests_of_file(watched_file(mutant.file)) if seen is None else seen
        first = [self._names[name] for name in names if name in self._names]
        first.sort(key=lambda case: self._order(mutant, case))
        if seen is not None and not self._rest:
            return first
        known = set(names)
        rest = [case for folder in dict.fromkeys((mutant.folder, "app")) for case in self._cases
                if case.folder == folder and case.name not in known]
        return first + rest

    def _order(self, mutant, case):
        """What has killed neighbours comes first, then the folder's own, then what is quick."""
        return (-self._kills.get((mutant.file, case.name), 0), case.folder != mutant.folder,
                self._reached.seconds.get(case.name, 1.0), case.name)

    def lacks_some(self):
        """Whether there was no time to learn what some of the tests reach."""
        return bool(self._reached.unseen)

    def note_kill(self, mutant, case):
        key = (mutant.file, case.name)
        self._kills[key] = self._kills.get(key, 0) + 1

    def limit(self, case):
        """How long a test may take, by what it takes when nothing is changed and the machine is busy."""
        return 4 + 8 * self._reached.seconds.get(case.name, 1.0)

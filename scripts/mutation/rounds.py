"""Has mutants judged: by all tests at once, or, where a change has little time, first by the tests near it."""
import dataclasses
import pathlib
import time

from mutation import bounded, choose, judge, reach, report, tree, twins

FAR_LEAST = 60  # seconds; with less left the tests of other folders are not asked
FAR_MOST = 210  # seconds that are kept for them; of a shorter time a third


@dataclasses.dataclass(frozen=True)
class Place:
    """Where and how long mutants are judged."""
    sources: object
    build: object
    directory: pathlib.Path
    jobs: int
    deadline: float
    rest: bool
    say: object

    def tree(self, name):
        return tree.Tree(self.build, self.directory / name, self.jobs, self.deadline)


def one(place, cases, mutants):
    """The verdicts of these cases; survivors are printed as they are found."""
    verdicts = []

    def told(verdict):
        verdicts.append(verdict)
        if verdict.result == judge.SURVIVED:
            print(report.survivor(verdict), flush=True)
        _say_progress(place, verdicts, mutants)

    _judge(place, _chooser(place, cases, mutants, "map.json", place.deadline), mutants, told)
    return verdicts


def near_and_far(place, cases, mutants):
    """The verdicts of the tests of the mutants' folders and of app, and of the other tests where those pass. Time is
    kept for the others; where it does not suffice, what has survived the first has survived."""
    folders = {mutant.folder for mutant in mutants} | {"app"}
    near = [case for case in cases if case.folder in folders]
    far = [case for case in cases if case.folder not in folders]
    verdicts = {}

    def told(verdict):
        verdicts[verdict.mutant] = verdict
        _say_progress(place, verdicts, mutants)

    def told_of_survivor(verdict):
        if verdict.result == judge.KILLED:
            verdicts[verdict.mutant] = verdict

    near.sort(key=lambda case: (case.folder == "app", case.name))
    chooser = _chooser(place, near, mutants, "map-near.json", _on_the_way(place.deadline, 1 / 2))
    kept = min(FAR_MOST, bounded.left(place.deadline) / 3) if far else 0
    _judge(dataclasses.replace(place, deadline=place.deadline - kept), chooser, mutants, told)
    survivors = [verdict.mutant for verdict in verdicts.values() if verdict.result == judge.SURVIVED]
    if survivors and far and bounded.left(place.deadline) > FAR_LEAST:
        place.say(f"{len(survivors)} survived the tests of {', '.join(sorted(folders))}; the others' turn")
        try:
            chooser = _chooser(place, far, survivors, "map-far.json", _on_the_way(place.deadline, 3 / 4))
            _judge(place, chooser, [mutant for mutant in survivors if chooser.tests(mutant)], told_of_survivor)
        except bounded.OutOfTime:
            place.say("no time for the tests of other folders")
    elif survivors and far:
        place.say(f"{len(survivors)} survived; no time for the tests of other folders")
    for mutant in survivors:
        if verdicts[mutant].result == judge.SURVIVED:
            print(report.survivor(verdicts[mutant]), flush=True)
    return list(verdicts.values())


def _on_the_way(deadline, part):
    """When this part of the time until the deadline is over."""
    return time.monotonic() + part * bounded.left(deadline)


def _say_progress(place, verdicts, mutants):
    if len(verdicts) % 20 == 0:
        place.say(f"{len(verdicts)} of {len(mutants)} judged")


def _chooser(place, cases, mutants, kept, map_ends):
    files = sorted({choose.watched_file(mutant.file) for mutant in mutants} & set(place.sources.files()))
    reached = reach.of(files, place.sources, cases, place.tree("map"), place.directory / kept, place.jobs, place.say,
                       map_ends)
    _name_unsteady(reached.unsteady)
    for name in sorted(reached.failing):
        place.say(f"fails with nothing changed, and judges nothing: {name}")
    if reached.unseen:
        place.say(f"no time to see what {len(reached.unseen)} of {len(cases)} tests reach")
    return choose.Chooser(cases, reached, place.rest)


def _judge(place, chooser, mutants, told):
    place.say("mutants")
    judging = judge.Judge(place.sources.root, place.tree, chooser, twins.Twins(place.build, place.deadline),
                          place.jobs, place.deadline, told)
    judging.all(mutants)
    _name_unsteady(judging.unsteady)


def _name_unsteady(names):
    for name in sorted(names):
        print(f"UNSTEADY, failed once and passed once with nothing changed: {name}", flush=True)

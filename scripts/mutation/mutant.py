"""A mutant: one change of one place, with the text that tells it to a reader and keeps it through line moves."""
import dataclasses
import hashlib


@dataclasses.dataclass(frozen=True)
class Edit:
    start: int  # bytes of the source
    end: int
    text: str


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str         # relative to the project
    lines: tuple      # numbers of the lines that the edits touch
    function: str
    operator: str
    edits: tuple      # of Edit, in the order of the source, disjoint
    old: tuple        # the lines that the edits touch, without their indentation
    new: tuple        # the same lines afterwards
    occurrence: int   # 1, or higher where a function has the same lines several times
    body: tuple       # the range of the function's body, or None where the change cannot be chosen at run time
    statement: tuple  # line and column of the statement that it is in, or None

    @property
    def key(self):
        return (self.file, self.function, self.old, self.new, self.occurrence)

    @property
    def name(self):
        return hashlib.sha256(repr(self.key).encode()).hexdigest()[:10]

    @property
    def line(self):
        return self.lines[0]

    @property
    def folder(self):
        return self.file.split("/")[1]


def rank(mutant, seed):
    """A number that only the seed and the mutant decide; samples are the first of the list sorted by it."""
    return hashlib.sha256(f"{seed} {mutant.key!r}".encode()).hexdigest()


def sample(mutants, size, seed):
    """`size` mutants; the same for the same seed, and nearly the same after a change of other places."""
    return sorted(mutants, key=lambda mutant: rank(mutant, seed))[:size]


def apply(source, edits, low=0, high=None):
    """The bytes [low, high) of the source with the edits made."""
    high = len(source) if high is None else high
    parts, position = [], low
    for edit in edits:
        parts += [source[position:edit.start], edit.text.encode()]
        position = edit.end
    return b"".join(parts + [source[position:high]])


def changed_lines(source, edits):
    """The touched lines before and after, as the reader sees them."""
    ranges = []
    for edit in edits:
        low = source.rfind(b"\n", 0, edit.start) + 1
        high = source.find(b"\n", edit.end)
        high = len(source) if high < 0 else high
        if ranges and low <= ranges[-1][1]:
            ranges[-1] = (ranges[-1][0], max(high, ranges[-1][1]), ranges[-1][2] + [edit])
        else:
            ranges.append((low, high, [edit]))
    old, new = [], []
    for low, high, inside in ranges:
        old += _lines(source[low:high])
        new += _lines(apply(source, inside, low, high))
    return tuple(old), tuple(new)


def _lines(text):
    stripped = (line.strip() for line in text.decode().split("\n"))
    return [line for line in stripped if line not in ("", ";")]


def line_and_column(source, offset):
    return source.count(b"\n", 0, offset) + 1, offset - source.rfind(b"\n", 0, offset)


def diff(mutant):
    """The change as the lines that go and the lines that come."""
    return [f"- {line}" for line in mutant.old] + [f"+ {line}" for line in mutant.new]


def heading(mutant):
    """Where the change is. The line number is for the reader; a list of mutants is read without it."""
    again = f" #{mutant.occurrence}" if mutant.occurrence > 1 else ""
    return f"{mutant.file}:{mutant.line} {mutant.function}{again}"

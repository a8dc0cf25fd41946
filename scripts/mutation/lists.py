"""Written lists of mutants: those that nobody can notice, each with its reason, or any that are to be run.

    src/gp/GPList.cpp GPList::removeObject(GPObject *) #2
    - the lines that go
    + the lines that come
    The reason, in as many lines as it needs.

An empty line ends an entry; a line that begins with # is a comment. Function and text are the key, so that an entry
stays true when lines move. Behind the path `:LINE` may stand, which is not looked at. "#2" tells apart what stands
several times in one function."""
import dataclasses
import re

GONE = "there is no such mutant any more"
HEADING = re.compile(r"(src/[^\s:]+)(?::\d+)? (.+?)(?: #(\d+))?$")


@dataclasses.dataclass(frozen=True)
class Entry:
    key: tuple
    reason: str
    line: int  # of the list, where it begins
    end: int   # where it ends


class ListError(Exception):
    """A list that cannot be read."""


def read(path):
    entries, block = [], []
    lines = path.read_text().splitlines() if path.exists() else []
    for number, line in enumerate([*lines, ""], 1):
        if line.startswith("#"):
            continue
        if line.strip():
            block.append((number, line))
        elif block:
            entries.append(_entry(path, block))
            block = []
    return entries


def _entry(path, block):
    number, first = block[0]
    heading = HEADING.match(first)
    old = tuple(line[2:] for _, line in block[1:] if line.startswith("- "))
    new = tuple(line[2:] for _, line in block[1:] if line.startswith("+ "))
    if not heading or not old:
        raise ListError(f"{path}:{number}: no place and change")
    file, function, occurrence = heading.groups()
    reason = " ".join(line.strip() for _, line in block[1:] if not line.startswith(("- ", "+ ")))
    return Entry((file, function, old, new, int(occurrence or 1)), reason, number, block[-1][0])


def resolved(entries, known):
    """The mutants that a list names, and what there is to say of the entries whose mutant is gone."""
    found = [known[entry.key] for entry in entries if entry.key in known]
    return found, [f"{_place(entry)}: {GONE}" for entry in entries if entry.key not in known]


def touched(entries, own_lines, changed, existing):
    """The entries that a change may have made wrong: it touches them, or what is listed twice with them, or their
    file, or has taken that away."""
    own = {entry.key for entry in entries if not own_lines.isdisjoint(range(entry.line, entry.end + 1))}
    return [entry for entry in entries
            if entry.key in own or entry.key[0] in changed or entry.key[0] not in existing]


def problems(entries, known):
    """What is wrong with a list of equivalents: entries without a reason, twice, or that are no mutants any more."""
    found, seen = [], set()
    for entry in entries:
        place = _place(entry)
        if not entry.reason:
            found.append(f"{place}: no reason is given")
        if entry.key in seen:
            found.append(f"{place}: listed twice")
        if entry.key not in known:
            found.append(f"{place}: {GONE}")
        seen.add(entry.key)
    return found


def _place(entry):
    return f"line {entry.line}: {entry.key[0]} {entry.key[1]}"

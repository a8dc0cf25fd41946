"""Finds the mutants of source files, and the statements that the coverage map knows."""
import hashlib
import json
import multiprocessing
import pathlib
import shlex
from concurrent.futures import ProcessPoolExecutor, TimeoutError

from mutation import bounded, operators, syntax
from mutation.mutant import Edit, Mutant, changed_lines, line_and_column

# A change of these files may change what is found.
OWN_CODE = [pathlib.Path(__file__).with_name(name) for name in ("places.py", "operators.py", "syntax.py", "mutant.py")]


def is_judged(file):
    """Whether mutants are made of a file: what a Mac alone compiles is not built here."""
    parts = pathlib.PurePath(file).parts
    return parts[0] == "src" and parts[-1].endswith((".h", ".cpp")) and "macos" not in parts[2:3]


class Sources:
    """The files of src/ that are compiled on this system, and how clang reads them."""

    def __init__(self, root, build, cache, jobs, deadline=bounded.FOREVER):
        self.root = pathlib.Path(root)
        self._deadline = deadline
        self._arguments = _compile_arguments(self.root, build)
        self._cache = pathlib.Path(cache)
        self._jobs = jobs

    def files(self, folders=None):
        """All files, or those of some folders, as paths relative to the project."""
        own = [path.relative_to(self.root) for path in sorted((self.root / "src").rglob("*"))]
        return [str(path) for path in own if is_judged(path) and (not folders or path.parts[1] in folders)]

    def mutants(self, files):
        """The mutants of these files."""
        return [found for file in self._all(files) for found in file["mutants"]]

    def statements(self, files):
        """For each file the places (offset, end, needs braces) of the statements that can be watched."""
        return {name: file["statements"] for name, file in zip(files, self._all(files))}

    def arguments(self, file):
        return self._arguments.get(file) or self._arguments[""]

    def _all(self, files):
        missing = [file for file in files if not self._kept(file).exists()]
        try:
            self._read_anew(missing)
        except TimeoutError:
            raise bounded.OutOfTime("clang's tree") from None
        return [_read(json.loads(self._kept(file).read_text())) for file in files]

    def _read_anew(self, files):
        with ProcessPoolExecutor(self._jobs) as pool:
            try:
                for file, found in zip(files, pool.map(_find, [str(self.root)] * len(files), files,
                                                       [self.arguments(file) for file in files],
                                                       timeout=bounded.left(self._deadline))):
                    self._kept(file).parent.mkdir(parents=True, exist_ok=True)
                    self._kept(file).write_text(json.dumps(found))
            except BaseException:
                for process in multiprocessing.active_children():
                    process.kill()  # or the pool waits for what each is reading
                raise

    def _kept(self, file):
        digest = hashlib.sha256(file.encode() + (self.root / file).read_bytes())
        for path in OWN_CODE:
            digest.update(path.read_bytes())
        return self._cache / digest.hexdigest()


def _compile_arguments(root, build):
    """The compiler's words for each source file; those of a header are any file's."""
    found = {}
    for entry in json.loads((pathlib.Path(build) / "compile_commands.json").read_text()):
        path = pathlib.Path(entry["file"])
        if not path.is_relative_to(root / "src"):
            continue
        words = [word for word in shlex.split(entry["command"]) if word.startswith(("-I", "-D", "-std", "-isystem"))]
        found[str(path.relative_to(root))] = ["-std=gnu++17", "-x", "c++", *words]
    found[""] = next(iter(found.values()))
    return found


def _find(root, file, arguments):
    source, scopes = syntax.scopes(str(pathlib.Path(root) / file), arguments)
    return {"mutants": [vars_of(mutant) for mutant in mutants_of(file, source, scopes)],
            "statements": [place for scope in scopes for place in watchable(scope, source)]}


def _lines_of(source, edits):
    return tuple(sorted({line for edit in edits
                         for line in range(line_and_column(source, edit.start)[0],
                                           line_and_column(source, max(edit.end - 1, edit.start))[0] + 1)}))


def mutants_of(file, source, scopes):
    """All mutants of a file's scopes, each change once."""
    seen, counts, found = set(), {}, []
    for scope in scopes:
        for node in scope.node.walk():
            for operator, make in operators.ALL.items():
                for edits in make(node, source):
                    mutant = _mutant(file, source, scope, node, operator, edits, seen, counts)
                    if mutant:
                        found.append(mutant)
    return found


def _mutant(file, source, scope, node, operator, edits, seen, counts):
    edits = sorted(edits, key=lambda edit: (edit.start, edit.end))
    old, new = changed_lines(source, edits)
    lines = _lines_of(source, edits)
    if old == new or (lines[0], old, new) in seen:
        return None
    seen.add((lines[0], old, new))
    key = (scope.name, old, new)
    counts[key] = counts.get(key, 0) + 1
    body = scope.body if scope.body and not scope.constant else None
    if body and not (body.start < edits[0].start and edits[-1].end < body.end):
        body = None
    statement = _statement(node, body) if body else None
    return Mutant(file=file, lines=lines, function=scope.name, operator=operator, edits=tuple(edits), old=old, new=new,
                  occurrence=counts[key], body=(body.start, body.end) if body else None,
                  statement=line_and_column(source, statement.start) if statement else None)


def _statement(node, body):
    """The innermost statement that is watched and holds the node; a block's is its first."""
    if node.kind == "COMPOUND_STMT" and node.children:
        node = node.children[0]
    while node and node is not body:
        if _is_watched(node):
            return node
        node = node.parent
    return None


def _is_watched(node):
    outer = node.parent
    if not outer or node.kind in ("COMPOUND_STMT", "CASE_STMT", "DEFAULT_STMT", "LABEL_STMT", "NULL_STMT"):
        return False
    if outer.kind in ("CASE_STMT", "DEFAULT_STMT"):
        return node is outer.children[-1]
    return outer.kind == "COMPOUND_STMT" or syntax.stands_alone(node)


def watchable(scope, source):
    if not scope.body or scope.constant:
        return []
    found = {}
    for node in scope.body.walk():
        end = syntax.end_of_statement(source, node)
        # What a macro makes is watched where its semicolon stands behind it; all of it begins at one place.
        if _is_watched(node) and (node.kind != "MACRO" or end != node.end):
            found[node.start] = (node.start, end, syntax.stands_alone(node))
    return list(found.values())


def vars_of(mutant):
    values = dict(vars(mutant))
    values["edits"] = [(edit.start, edit.end, edit.text) for edit in mutant.edits]
    return values


def _read(found):
    mutants = []
    for values in found["mutants"]:
        tuples = {name: tuple(values[name]) if values[name] is not None else None
                  for name in ("lines", "old", "new", "body", "statement")}
        mutants.append(Mutant(**{**values, **tuples, "edits": tuple(Edit(*edit) for edit in values["edits"])}))
    return {"mutants": mutants, "statements": found["statements"]}

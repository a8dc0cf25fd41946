"""The lines that a change touches, and since when.

  python3 -m mutation.changes FOLDER...     the source files there that the change at hand touches, most changed first
"""
import pathlib
import re
import subprocess
import sys

NOTE = ".ci/landed"
HOURS = 4  # longer than one change takes from its first commit to its last
NOTHING = "4b825dc642cb6eb9a060e54bf8d69288fbee4904"  # the tree without a file, which every repository knows


# What a user's own settings must not change.
PLAIN = ("--unified=0", "--inter-hunk-context=0", "--no-color", "--no-ext-diff", "--no-textconv", "--find-renames",
         "--src-prefix=a/", "--dst-prefix=b/")


def lines_since(root, commit, *paths, gaps=False):
    """For each file below the paths the lines that the work tree has and the commit has not; none for a file that only
    lost some. With `gaps` the lines at either side of lost ones are taken too."""
    found, file = _lines_unknown_to_git(root, *paths), None
    diff = _git(root, "diff", *PLAIN, commit, "--", *paths)
    for line in diff.splitlines():
        if line.startswith("+++ "):
            file = line[6:] if line.startswith("+++ b/") else None
        hunk = re.match(r"@@ -\S+ \+(\d+)(?:,(\d+))? @@", line)
        if hunk and file:
            first, count = int(hunk.group(1)), int(hunk.group(2) or 1)
            last = first + (count or 2 * gaps)
            found.setdefault(file, set()).update(range(first, last))
    return found


def _lines_unknown_to_git(root, *paths):
    """All lines of the files that nobody has added yet."""
    names = _git(root, "ls-files", "--others", "--exclude-standard", "--", *paths).splitlines()
    return {name: set(range(1, len(pathlib.Path(root, name).read_bytes().splitlines()) + 1)) for name in names}


def sources_since(root, commit, *folders):
    """The source files in the folders that show a change, those with the most changed lines first: those that it
    touches, and for a header one that includes it, the one of its name where there is one."""
    sizes = {}
    for file, lines in lines_since(root, commit, *folders).items():
        source = _includer(root, file, folders) if file.endswith(".h") else file
        if source and source.endswith(".cpp"):
            sizes[source] = sizes.get(source, 0) + len(lines)
    return sorted(sizes, key=lambda source: (-sizes[source], source))


def _includer(root, header, folders):
    path = pathlib.PurePath(header)
    words = ["grep", "-l", "-F", f'{path.parent.name}/{path.name}"', "--", *folders]
    done = subprocess.run(["git", "-C", str(root), *words], capture_output=True, text=True)
    found = [name for name in done.stdout.splitlines() if name.endswith(".cpp")]
    return min(found, key=lambda name: (pathlib.PurePath(name).stem != path.stem, name), default=None)


def last_landed(root):
    """The commit that the change began with, and how that is known: the branch that it goes to, else the note that
    goes along with the change, else the commits of the last hours before the newest. Where the clone does not reach
    back that far, all that there is has changed."""
    head = _git(root, "rev-parse", "HEAD").strip()
    target = _commit(root, "origin/HEAD") or _commit(root, "origin/main") or _commit(root, "origin/master")
    base = _common_ancestor(root, target, head) if target else None
    if base and base != head:
        return base, "where origin is"
    noted = _noted(root)
    if noted and _is_ancestor(root, noted, head):
        return noted, f"as {NOTE} says"
    why = f"{NOTE} names no commit of this history"
    newest = int(_git(root, "show", "-s", "--format=%ct", head))
    oldest = _git(root, "rev-list", f"--since={newest - HOURS * 3600}", head).split()[-1]
    before = _commit(root, oldest + "~1")
    return (before, f"{why}: the commits of {HOURS} hours") if before else (NOTHING, f"{why}, nor does it go back: all of it")


def _commit(root, name):
    done = subprocess.run(["git", "-C", str(root), "rev-parse", "--verify", "--quiet", name + "^{commit}"],
                          capture_output=True, text=True)
    return done.stdout.strip() or None


def _noted(root):
    """The commit that the note names by its id; a name that moves says nothing of what has landed."""
    note = pathlib.Path(root, NOTE)
    text = note.read_text().strip() if note.exists() else ""
    return _commit(root, text) if re.fullmatch("[0-9a-f]{40,64}", text) else None


def _common_ancestor(root, one, other):
    """None where the clone does not reach back to it."""
    done = subprocess.run(["git", "-C", str(root), "merge-base", one, other], capture_output=True, text=True)
    return done.stdout.strip() or None


def _is_ancestor(root, old, new):
    return subprocess.run(["git", "-C", str(root), "merge-base", "--is-ancestor", old, new]).returncode == 0


def _git(root, *words):
    return subprocess.run(["git", "-C", str(root), "-c", "core.quotePath=false", *words], check=True, capture_output=True,
                          text=True).stdout


if __name__ == "__main__":
    TOP = pathlib.Path(__file__).resolve().parent.parent.parent
    BEGAN, HOW = last_landed(TOP)
    print(f"changes since {BEGAN[:12]}, {HOW}", file=sys.stderr)
    print("\n".join(sources_since(TOP, BEGAN, *sys.argv[1:])))

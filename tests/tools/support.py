"""What the tests of the tools share."""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "scripts"))

try:
    from mutation import operators, places, syntax
except ImportError:
    operators = places = syntax = None  # clang's bindings belong to the packages of the slower checks

from mutation.mutant import Edit, Mutant, changed_lines  # noqa: E402

needs_clang = unittest.skipUnless(places, "clang's Python bindings are not installed")
needs_git = unittest.skipUnless(shutil.which("git"), "git is not installed, which nobody needs who unpacks an archive")

PROLOGUE = """
struct GPMutex { void lock(); void unlock(); };
struct GPMutexLock { explicit GPMutexLock(GPMutex*); ~GPMutexLock(); void unlock(); };
struct GPObject { GPObject* retain(); int release(); int count(); bool isEmpty(); };
template <class T> struct Owned { static Owned adopt(T*); static Owned retain(T*); };
struct Configuration { static bool isLogLevel(int); };
extern GPMutex* mutex;
extern GPObject* object;
extern int a, b, c;
extern bool ready, open;
int call(int);
int both(int, int);
void first();
void second();
void mixed(int, const char*, int);
"""


def mutants(text):
    """The mutants of a file that begins with the prologue."""
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "Example.cpp")
        path.write_text(PROLOGUE + text)
        source, scopes = syntax.scopes(str(path), ["-std=c++17"])
        return places.mutants_of("src/gp/Example.cpp", source, scopes)


def changes(operator, body, function="void example()"):
    """What one operator makes of a function with this body: pairs of the old and the new lines, as one text each."""
    return [(" ".join(mutant.old), " ".join(mutant.new)) for mutant in mutants(f"{function} {{\n{body}\n}}\n")
            if mutant.operator == operator]


def results(operator, body, function="void example()"):
    return [new for _, new in changes(operator, body, function)]


def a_mutant(source=b"int f() { return 1; }", at=(17, 18), text="2", function="f()", file="src/gp/Example.cpp", occurrence=1):
    """A mutant of a source of one's own."""
    edits = (Edit(*at, text),)
    old, new = changed_lines(source, edits)
    return Mutant(file=file, lines=(1,), function=function, operator="constant", edits=edits, old=old, new=new,
                  occurrence=occurrence, body=(8, len(source)), statement=(1, 11))


def git(folder, *words, date="2020-01-01T00:00:00Z"):
    identity = ["-c", "user.name=Test", "-c", "user.email=test@localhost"]
    environment = {"GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date, "PATH": "/usr/bin:/bin", "HOME": str(folder),
                   "GIT_CONFIG_NOSYSTEM": "1"}
    return subprocess.run(["git", "-C", str(folder), *identity, *words], check=True, capture_output=True, text=True,
                          env=environment).stdout.strip()

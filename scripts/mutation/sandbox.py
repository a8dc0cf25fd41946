"""Runs one test behind bubblewrap. A changed program runs with the rights of the tests, and nobody knows what the
change makes it do: so it sees the machine read-only, has a temporary folder, a network and process numbers of its
own, and whatever it leaves behind ends with it."""
import contextlib
import dataclasses
import os
import pathlib
import signal
import subprocess
import threading
import time

from mutation import bounded

PASSED, FAILED, TIMED_OUT = "passed", "failed", "timed out"

# Bounds above what any test needs; one makes an empty file of 2 GiB.
MEMORY = 4 << 30
FILE_SIZE = 3 << 30
KEPT = 1 << 16  # bytes of what a test says; a changed program may say it without end


class NotBegun(Exception):
    """A test whose program did not run, be it for its walls; that says nothing of the program."""


@dataclasses.dataclass(frozen=True)
class Outcome:
    result: str
    seconds: float
    output: str = ""


def available():
    """Whether this machine lets bubblewrap make its namespaces."""
    try:
        return subprocess.run(_walls() + ["true"], capture_output=True).returncode == 0
    except FileNotFoundError:
        return False


def run(case, limit, replaced=(), variables=(), writable=()):
    """Runs a case, at most `limit` seconds. `replaced` are pairs (program, the program in its place), `variables`
    pairs (name, value), `writable` files that it may write."""
    words = _walls()
    for path in writable:
        words += ["--bind", str(path), str(path)]
    for old, new in replaced:
        words += ["--ro-bind", str(new), str(old)]
    for name, value in [*(pair.split("=", 1) for pair in case.environment), *variables]:
        words += ["--setenv", name, str(value)]
    words += ["--chdir", case.directory, "prlimit", f"--data={MEMORY}", f"--fsize={FILE_SIZE}", *case.command]
    started = time.monotonic()
    status, output = _run(words, limit)
    if status and output.startswith(("bwrap: ", "prlimit: ")):
        raise NotBegun(f"{case.name}: {output.strip()}")
    result = TIMED_OUT if status is None else FAILED if status else PASSED
    return Outcome(result, time.monotonic() - started, output)


def _run(words, limit):
    """A command's status, None where the time was over, and the beginning of what it said."""
    process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True)
    said = []
    reader = threading.Thread(target=lambda: said.append(_beginning(process.stdout)))
    reader.start()
    try:
        status = bounded.waited(process.wait, time.monotonic() + limit, words[-1])
    except BaseException as wrong:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)  # which takes all of its world along
        process.wait()
        if bounded.was_asked() or not isinstance(wrong, bounded.OutOfTime):
            raise  # that says nothing of the program
        status = None
    reader.join()
    return status, said[0].decode(errors="replace")


def _beginning(stream):
    with stream:
        kept = stream.read(KEPT)
        while stream.read1(KEPT):
            pass
    return kept


def _walls():
    words = ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "--unshare-pid", "--unshare-net",
             "--unshare-ipc", "--die-with-parent", "--setenv", "TMPDIR", "/tmp"]
    for folder in ("/tmp", "/var/tmp"):
        words += ["--perms", "1777", "--tmpfs", folder]  # some tests go on as a user without rights
    if os.getuid() == 0:
        words += ["--cap-add", "ALL"]  # tests make namespaces of their own
    root = pathlib.Path(__file__).resolve().parent.parent.parent
    if root.is_relative_to("/tmp") or root.is_relative_to("/var/tmp"):
        words += ["--ro-bind", str(root), str(root)]
    return words

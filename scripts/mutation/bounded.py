"""Commands that end when the time of a run does, and all that they have started with them."""
import contextlib
import os
import pathlib
import signal
import subprocess
import time

FOREVER = 1e9  # a deadline that never comes
GRACE = 3.0  # seconds that a command has to end by itself
LONGEST = 86400.0  # seconds; what the system takes for a time-out has bounds


class OutOfTime(Exception):
    """The time of the run was over before something was done."""


def left(deadline):
    """Seconds until a deadline of the monotonic clock, at least 0."""
    return min(max(deadline - time.monotonic(), 0.0), LONGEST)


def end_when_asked():
    """Lets the request to end a run end what it has started, as a key on the terminal does."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)


def run(words, deadline, cwd=None):
    """A command's exit status and all that it prints."""
    if not left(deadline):
        raise OutOfTime(words[0])
    process = subprocess.Popen(words, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors="replace", start_new_session=True)
    try:
        output, _ = process.communicate(timeout=left(deadline))
    except BaseException as wrong:
        _end(process)
        raise OutOfTime(words[0]) if isinstance(wrong, subprocess.TimeoutExpired) else wrong
    return process.returncode, output


def _end(process):
    """Ends a command and its session. ninja gives what it starts groups of their own; asked kindly, it ends them and
    removes what they have half written."""
    os.killpg(process.pid, signal.SIGTERM)
    kindly = time.monotonic() + GRACE
    while _session(process.pid) and time.monotonic() < kindly:
        time.sleep(0.01)
    while members := _session(process.pid):
        for member in members:
            with contextlib.suppress(ProcessLookupError):
                os.kill(member, signal.SIGKILL)
        time.sleep(0.01)
    process.communicate()


def _session(leader):
    """The living processes of a session, whose leader nobody has waited for yet."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            state, _, _, session, *_ = path.read_text(errors="replace").rpartition(")")[2].split()
            if int(session) == leader and state not in "ZX":
                found.append(int(path.parent.name))
    return found

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
LOOK = 0.2  # seconds between two looks whether the run has been asked to end

_asked = False  # to end the run


class OutOfTime(Exception):
    """The time of the run was over before something was done."""


def left(deadline):
    """Seconds until a deadline of the monotonic clock, at least 0. None are left of a run that was asked to end."""
    return 0.0 if _asked else min(max(deadline - time.monotonic(), 0.0), LONGEST)


def end_when_asked():
    """Lets the request to end a run, and the key on the terminal, end what it has started, on whichever thread."""
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, _end_all)


def _end_all(number, frame):
    global _asked
    _asked = True
    signal.default_int_handler(number, frame)


def was_asked():
    """Whether the run has been asked to end."""
    return _asked


def waited(wait, deadline, name):
    """What a process's wait or communicate answers. Signals come to the main thread alone, so the others look."""
    while some := min(left(deadline), LOOK):
        with contextlib.suppress(subprocess.TimeoutExpired):
            return wait(timeout=some)
    raise OutOfTime(name)


def run(words, deadline, cwd=None):
    """A command's exit status and all that it prints."""
    if not left(deadline):
        raise OutOfTime(words[0])
    process = subprocess.Popen(words, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors="replace", start_new_session=True)
    try:
        output, _ = waited(process.communicate, deadline, words[0])
    except BaseException:
        _end(process)
        raise
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

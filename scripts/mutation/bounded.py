"""Commands that end when the time of a run does, and all that they have started with them."""
import os
import signal
import subprocess
import time

FOREVER = 1e9  # a deadline that never comes
LONGEST = 86400.0  # seconds; what the system takes for a time-out has bounds


class OutOfTime(Exception):
    """The time of the run was over before something was done."""


def left(deadline):
    """Seconds until a deadline of the monotonic clock, at least 0."""
    return min(max(deadline - time.monotonic(), 0.0), LONGEST)


def run(words, deadline, cwd=None):
    """A command's exit status and all that it prints."""
    process = subprocess.Popen(words, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               start_new_session=True)
    try:
        output, _ = process.communicate(timeout=left(deadline))
    except BaseException as wrong:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        raise OutOfTime(words[0]) if isinstance(wrong, subprocess.TimeoutExpired) else wrong
    return process.returncode, output

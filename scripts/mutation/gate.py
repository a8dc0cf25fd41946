"""Runs that go on beside each other, and such as want the machine for themselves."""
import contextlib
import threading


class Gate:
    def __init__(self):
        self._changed = threading.Condition()
        self._running = 0
        self._wishes = 0  # to be alone, the one that is fulfilled among them
        self._alone = False

    @contextlib.contextmanager
    def beside_others(self):
        """Begins when nobody is alone or waits to be."""
        with self._changed:
            self._changed.wait_for(lambda: self._wishes == 0)
            self._running += 1
        try:
            yield
        finally:
            with self._changed:
                self._running -= 1
                self._changed.notify_all()

    @contextlib.contextmanager
    def alone(self):
        """Begins when all others have ended. Not inside of `beside_others`, which would wait for itself."""
        with self._changed:
            self._wishes += 1
            self._changed.wait_for(lambda: self._running == 0 and not self._alone)
            self._alone = True
        try:
            yield
        finally:
            with self._changed:
                self._alone = False
                self._wishes -= 1
                self._changed.notify_all()

    def is_wanted_by_one(self):
        """Whether somebody is alone or waits to be."""
        with self._changed:
            return self._wishes > 0

    def is_taken_by_one(self):
        with self._changed:
            return self._alone

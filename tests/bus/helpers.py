"""Helpers of the bus tests."""

import threading
import time


def wait_until(predicate, timeout=5.0):
    """Polls `predicate` until it holds; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.005)


class Recorder:
    """A callback that records its calls and the thread they ran on."""

    def __init__(self, effect=None):
        self.calls = []
        self.threads = set()
        self.effect = effect
        self._lock = threading.Lock()

    def __call__(self, *args):
        with self._lock:
            self.calls.append(args)
            self.threads.add(threading.get_ident())
        if self.effect is not None:
            return self.effect(*args)
        return None

    def wait(self, n=1, timeout=10.0):
        """The calls so far once there are `n` of them; fails the test if they never come."""
        assert wait_until(lambda: len(self.calls) >= n, timeout), "expected {} calls, got {}".format(
            n, len(self.calls)
        )
        return list(self.calls)

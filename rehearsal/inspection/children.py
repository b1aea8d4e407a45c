"""Calls a function for many items in processes of their own, which a hostile item may crash or exhaust."""

import contextlib
import ctypes
import json
import os
import resource
import selectors
import signal
import time

MEMORY = 768 * 1024 * 1024  # bytes beyond those of this process
PROCESSOR_SECONDS = 120
SECONDS = 600
RESULT = 4 * 1024 * 1024  # bytes of a result
PR_SET_PDEATHSIG = 1


def each(function, items):
    """The results of function(item), which are JSON, in the order of the items; None where it did not end well."""
    items = list(items)
    results = [None] * len(items)
    crew = _Crew()
    try:
        waiting = list(enumerate(items))[::-1]
        while waiting or crew.is_at_work():
            while waiting and crew.has_room():
                number, item = waiting.pop()
                crew.start(number, function, item)
            for number, result in crew.ended():
                results[number] = result
    finally:
        crew.end()
    return results


class _Crew:
    def __init__(self):
        self._most = len(os.sched_getaffinity(0))
        self._selector = selectors.DefaultSelector()

    def is_at_work(self):
        return bool(self._selector.get_map())

    def has_room(self):
        return len(self._selector.get_map()) < self._most

    def start(self, number, function, item):
        reader, writer = os.pipe()
        child = os.fork()
        if child == 0:
            _work(function, item, writer)
        os.close(writer)
        self._selector.register(reader, selectors.EVENT_READ, [number, child, b"", time.monotonic() + SECONDS])

    def ended(self):
        """Yields the number and the result of each that has ended meanwhile."""
        for key, _ in self._selector.select(1):
            data = os.read(key.fd, 65536)
            if data and len(key.data[2]) < RESULT:
                key.data[2] += data
                continue
            number, _, text, _ = key.data
            self._dismiss(key)
            try:
                yield number, json.loads(text)
            except ValueError:
                yield number, None
        for key in list(self._selector.get_map().values()):
            if key.data[3] < time.monotonic():
                self._dismiss(key)
                yield key.data[0], None

    def end(self):
        for key in list(self._selector.get_map().values()):
            self._dismiss(key)
        self._selector.close()

    def _dismiss(self, key):
        with contextlib.suppress(ProcessLookupError):
            os.kill(key.data[1], signal.SIGKILL)
        os.waitpid(key.data[1], 0)
        self._selector.unregister(key.fd)
        os.close(key.fd)


def _work(function, item, writer):
    """In the child: never returns."""
    status = 1
    try:
        ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        with open("/proc/self/statm", encoding="ascii") as pages:
            used = int(pages.read().split()[0]) * resource.getpagesize()
        resource.setrlimit(resource.RLIMIT_AS, (used + MEMORY, used + MEMORY))
        resource.setrlimit(resource.RLIMIT_CPU, (PROCESSOR_SECONDS, PROCESSOR_SECONDS))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))  # no file is written
        data = json.dumps(function(item)).encode()
        while data:
            data = data[os.write(writer, data):]
        status = 0
    finally:
        os._exit(status)

"""Readers that come and go."""

from __future__ import annotations

import collections
import enum
import math
import os
import select
import threading
import time
from types import TracebackType
from typing import Deque, Dict, Iterator, List, NamedTuple, NoReturn, Optional, Type

from . import _library, lowlevel


class EventKind(enum.Enum):
    """What happened to a reader."""

    CONNECT = lowlevel.GVUSB_EVENT_CONNECT
    """It was connected."""
    DISCONNECT = lowlevel.GVUSB_EVENT_DISCONNECT
    """It was disconnected."""


class Event(NamedTuple):
    """A reader was connected or disconnected."""

    kind: EventKind
    """What happened."""
    id: int
    """The device ID; 0 at a disconnect in hot-plug mode 2, where it is unknown."""
    handle: int
    """At a disconnect in hot-plug mode 1 the handle, if the reader was open; otherwise meaningless or 0."""

    def __str__(self) -> str:
        return f"{self.kind.name.lower()} {self.id:X}"


class Queue:
    """Events, and a file descriptor that is readable as long as one of them, or the end, waits."""

    def __init__(self) -> None:
        # Not closed by `close`, because another thread may be waiting for it.
        self._read_end, self._write_end = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
        self._lock = threading.Lock()
        self._events: Deque[Event] = collections.deque()
        self.closed = False

    def __del__(self) -> None:
        for end in (getattr(self, "_read_end", -1), getattr(self, "_write_end", -1)):
            if end >= 0:
                os.close(end)

    def fileno(self) -> int:
        return self._read_end

    def push(self, event: Event) -> None:
        with self._lock:
            if not self.closed:
                self._signal()
                self._events.append(event)

    def close(self) -> None:
        with self._lock:
            if not self.closed:
                self._signal()
                self.closed = True

    def _signal(self) -> None:
        if not self._events and not self.closed:
            os.write(self._write_end, b"!")

    def take(self) -> Optional[Event]:
        """The next event, if there is one."""
        with self._lock:
            if not self._events:
                return None
            event = self._events.popleft()
            if not self._events and not self.closed:
                os.read(self._read_end, 1)
            return event

    def wait(self, timeout: Optional[float]) -> bool:
        """Wait for an event or the end. Return whether there is one."""
        poll = select.poll()
        poll.register(self._read_end, select.POLLIN)
        return bool(poll.poll(None if timeout is None else math.ceil(max(timeout, 0) * 1000)))


# The queues of the monitors. One handler for each kind of event fills them; it is registered with the first monitor, and
# removed when the interpreter ends.
_queues: Dict[int, Queue] = {}
_registrations: List[lowlevel.GVUSB_EVENT_INIT] = []
_registering = threading.Lock()


def _handler(kind: EventKind) -> lowlevel.EventHandler:
    def handle(device_handle: int, device_id: int, _text: bytes) -> None:
        event = Event(kind, device_id, device_handle)
        for queue in list(_queues.values()):
            queue.push(event)

    return handle


def _register() -> None:
    with _registering:
        for kind in list(EventKind)[len(_registrations):]:
            registration = lowlevel.GVUSB_EVENT_INIT.of(kind.value, _handler(kind))
            lowlevel.GVUSB_AddEventHandler(0, registration)
            _registrations.append(registration)


def _forked() -> None:
    global _registering
    _registering = threading.Lock()
    _queues.clear()


_library.on_fork.append(_forked)


class Monitor:
    """Queues the events of readers that come and go, from its creation until close(), and iterates over them.

        with gvusb.Monitor() as monitor:
            for event in monitor:
                print(event)
                gvusb.scan()

    Which changes are reported depends on the hot-plug mode; docs/hot-plug.md describes them. In mode 1, the default, a
    change is reported once until the next scan: scan first, and after each event. In mode 2, events arrive only while a
    thread handles libusb's events or waits for a transfer.

    Any thread may use an object; each event goes to one of several threads that read. The queue has no limit. Ctrl-C ends
    waiting at once.
    """

    def __init__(self) -> None:
        """Start to queue events. Must not be called in an event handler of gvusb.lowlevel (RuntimeError)."""
        self._queue = Queue()
        _library.refuse()
        _register()
        _queues[id(self._queue)] = self._queue

    def read(self, timeout: Optional[float] = None) -> Optional[Event]:
        """Return the next event. Wait for it, for at most `timeout` seconds; without that, as long as it takes.

        Return None if the time is over, or the monitor was closed and its last event has been read.
        """
        end = None if timeout is None else time.monotonic() + timeout
        queue = self._queue
        while True:
            _library.refuse()
            event = queue.take()
            if event is not None or queue.closed:
                return event
            left = None if end is None else end - time.monotonic()
            if not queue.wait(left) and left is not None and left <= 0:
                return None

    def wait(self, timeout: Optional[float] = None) -> bool:
        """Wait for an event or for close(), for at most `timeout` seconds. Return whether read() would return at once."""
        _library.refuse()
        return self._queue.wait(timeout)

    def fileno(self) -> int:
        """A file descriptor for select, selectors and event loops: readable as long as read() would return at once.

        Only wait for it: do not read or close it.
        """
        return self._queue.fileno()

    def close(self) -> None:
        """End the monitor. Events that it has queued can still be read; then iterating ends. Does not wait."""
        _queues.pop(id(self._queue), None)
        if not self._queue.closed and _library.is_usable():
            self._queue.close()

    @property
    def closed(self) -> bool:
        """Whether the monitor was closed."""
        return self._queue.closed

    def __iter__(self) -> Iterator[Event]:
        return self

    def __next__(self) -> Event:
        event = self.read()
        if event is None:
            raise StopIteration
        return event

    def __enter__(self) -> Monitor:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    def __del__(self) -> None:
        queue = getattr(self, "_queue", None)
        if queue is not None:
            _queues.pop(id(queue), None)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a monitor cannot be copied or pickled: it belongs to its process")

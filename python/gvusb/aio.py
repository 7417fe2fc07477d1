"""The interface of gvusb for asyncio.

    import asyncio
    from gvusb import aio

    async def main():
        async with await aio.open() as reader:
            print(await reader.transceive(b"\\x02\\x00\\x07\\xff\\x01", timeout=0.5))

    asyncio.run(main())

Each reader has a thread of its own, which makes one call after the other, so a reader that does not answer holds up no
other reader, provided that gvusb.driver.set_parallel(True) has switched parallel mode on.

Cancelling. No thread uses a reader on behalf of an await that has ended. A call that has not begun when its await is
cancelled is not made. One that has begun is ended at once in parallel mode, if it is an exchange; otherwise the await ends, by
CancelledError, when the call ends: as soon as its time is over, at the latest. As after a time-out, the next call may receive
the answer of a cancelled one.

Exceptions, units and arguments are those of gvusb. Use an object in the event loop that it was made in.
"""

from __future__ import annotations

import asyncio
import concurrent.futures
import threading
from types import TracebackType
from typing import Any, Callable, List, NoReturn, Optional, Set, Type, TypeVar, Union

from . import _library, _monitor, _readers
from ._errors import ErrorCode, error_of
from ._monitor import Event
from ._readers import DEFAULT_SIZE, BytesLike, ScanEntry

__all__ = ["Monitor", "Reader", "open", "open_all", "scan"]

_Result = TypeVar("_Result")

# How often the library is asked again to end a call: the call may not have reached the reader before.
_CANCEL_INTERVAL = 0.01


def _in_thread(function: Callable[..., _Result], *arguments: Any) -> concurrent.futures.Future[_Result]:
    """Start to call a function in a thread that ends with it."""
    _library.refuse()
    executor = concurrent.futures.ThreadPoolExecutor(1, "gvusb")
    try:
        return executor.submit(function, *arguments)
    finally:
        executor.shutdown(wait=False)


async def _settled(future: asyncio.Future[Any], timeout: Optional[float] = None) -> None:
    """Wait until a call has ended, even if this is cancelled."""
    try:
        await asyncio.wait([future], timeout=timeout)
    except asyncio.CancelledError:
        pass  # is raised when the call has ended


async def _result(
    call: concurrent.futures.Future[_Result],
    cancel: Optional[Callable[[], bool]] = None,
    drop: Optional[Callable[[_Result], object]] = None,
) -> _Result:
    """Await a call in a thread. When cancelled, wait for its end; `cancel` brings it about, and `drop` gets its result."""
    future = asyncio.wrap_future(call)
    try:
        return await asyncio.shield(future)
    except asyncio.CancelledError:
        if not call.cancel():
            while not future.done():
                if cancel is not None:
                    cancelling = asyncio.wrap_future(_in_thread(cancel))
                    while not cancelling.done():
                        await _settled(cancelling)
                    if cancelling.exception() is not None or not cancelling.result():
                        cancel = None
                await _settled(future, _CANCEL_INTERVAL if cancel is not None else None)
            if not future.cancelled() and future.exception() is None and drop is not None:
                dropping = asyncio.wrap_future(_in_thread(drop, future.result()))
                while not dropping.done():
                    await _settled(dropping)
        raise


class Reader:
    """An open reader, from gvusb.aio.open() or gvusb.aio.open_all(). Close it by `async with` or close()."""

    def __init__(self, reader: _readers.Reader) -> None:
        """Own an open reader. Waits like the properties of gvusb.Reader, so do this before other calls are under way."""
        self._reader = reader
        self._executor = concurrent.futures.ThreadPoolExecutor(1, "gvusb-reader")
        # The call that the reader's thread is making. Changed and used under the lock, so that cancelling one call does not end
        # the next one.
        self._current: Optional[object] = None
        self._current_lock = threading.Lock()
        self.id = reader.id
        """The device ID; 0 if it is unknown."""
        self.name = reader.name
        """The device name."""
        self.family = reader.family
        """The family name."""
        self.interface_type = reader.interface_type
        """The interface type."""

    async def _call(self, function: Callable[..., _Result], *arguments: Any) -> _Result:
        _library.refuse()
        mark = object()
        try:
            call = self._executor.submit(lambda: self._marked(mark, function, *arguments))
        except RuntimeError:
            if not self.closed:
                raise  # the interpreter is ending
            raise error_of(ErrorCode.NOT_OPENED) from None
        return await _result(call, lambda: self._cancel_call(mark))

    def _marked(self, mark: object, function: Callable[..., _Result], *arguments: Any) -> _Result:
        """Make a call in the reader's thread."""
        # Holding the record's lock, so that no other call on the reader is under way.
        with self._reader._checked().lock:
            with self._current_lock:
                self._current = mark
            try:
                return function(*arguments)
            finally:
                with self._current_lock:
                    self._current = None

    def _cancel_call(self, mark: object) -> bool:
        with self._current_lock:
            return self._current is not mark or self._reader.cancel()

    async def transceive(self, frame: BytesLike, size: int = DEFAULT_SIZE, *, timeout: Optional[float] = None) -> bytes:
        """Send a frame and return the answer, as gvusb.Reader.transceive() does."""
        return await self._call(lambda: self._reader.transceive(frame, size, timeout=timeout))

    async def transceive_into(self, frame: BytesLike, buffer: Any, *, timeout: Optional[float] = None) -> int:
        """Send a frame and receive the answer into a buffer, as gvusb.Reader.transceive_into() does."""
        return await self._call(lambda: self._reader.transceive_into(frame, buffer, timeout=timeout))

    async def transmit(self, frame: BytesLike, *, timeout: Optional[float] = None) -> None:
        """Send a frame, as gvusb.Reader.transmit() does."""
        await self._call(lambda: self._reader.transmit(frame, timeout=timeout))

    async def receive(self, size: int = DEFAULT_SIZE, *, timeout: Optional[float] = None) -> bytes:
        """Receive a frame, as gvusb.Reader.receive() does."""
        return await self._call(lambda: self._reader.receive(size, timeout=timeout))

    async def receive_into(self, buffer: Any, *, timeout: Optional[float] = None) -> int:
        """Receive a frame into a buffer, as gvusb.Reader.receive_into() does."""
        return await self._call(lambda: self._reader.receive_into(buffer, timeout=timeout))

    async def get(self, key: str) -> str:
        """Read a parameter, as gvusb.Reader.get() does."""
        return await self._call(self._reader.get, key)

    async def set(self, key: str, value: Union[str, int] = "") -> None:
        """Change a parameter, as gvusb.Reader.set() does."""
        await self._call(self._reader.set, key, value)

    async def type_number(self) -> str:
        """Read the type number from the reader."""
        return await self._call(self._reader.type_number)

    async def get_timeout(self) -> float:
        """Return how many seconds a transfer may take, if a call does not say otherwise."""
        return await self._call(lambda: self._reader.timeout)

    async def set_timeout(self, seconds: float) -> None:
        """Set how many seconds a transfer may take. See gvusb.Reader.timeout."""
        await self._call(setattr, self._reader, "timeout", seconds)

    async def present(self) -> bool:
        """Test whether the reader is still there."""
        return await self._call(self._reader.present)

    async def reset(self) -> None:
        """Reset the reader."""
        await self._call(self._reader.reset)

    async def reset_pipe(self) -> None:
        """Clear a halt of both bulk endpoints."""
        await self._call(self._reader.reset_pipe)

    async def close(self) -> None:
        """Close the reader, unless another object refers to it. Calls that wait for their turn raise NotOpenError.

        Cancelling does not stop it: the await ends when the reader is closed.
        """
        if not self.closed:
            await _result(_in_thread(self._close))

    def _close(self) -> None:
        try:
            self._reader.close()
        finally:
            self._executor.shutdown(wait=True)

    @property
    def closed(self) -> bool:
        """Whether this object is closed."""
        return self._reader.closed

    @property
    def handle(self) -> int:
        """The handle, for the functions of gvusb.lowlevel."""
        return self._reader.handle

    async def __aenter__(self) -> Reader:
        self._reader._checked()
        return self

    async def __aexit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        await self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a reader cannot be copied or pickled: it belongs to its process")

    def __repr__(self) -> str:
        return f"<gvusb.aio.Reader {self.name!r}{', closed' if self.closed else ''}>"


def _closed_on_failure(readers: List[_readers.Reader]) -> List[Reader]:
    try:
        return [Reader(reader) for reader in readers]
    except BaseException:
        for reader in readers:
            reader.close()
        raise


def _close_all(readers: List[Reader]) -> None:
    for reader in readers:
        reader._close()


async def scan(*, family: Optional[str] = None, name: Optional[str] = None, id: Optional[int] = None) -> List[ScanEntry]:
    """Find the readers on the bus, as gvusb.scan() does."""
    return await _result(_in_thread(lambda: _readers.scan(family=family, name=name, id=id)))


async def open(id: Optional[int] = None, *, family: Optional[str] = None, name: Optional[str] = None) -> Reader:
    """Open a reader, as gvusb.open() does. If this is cancelled, the reader is closed again."""
    call = _in_thread(lambda: _closed_on_failure([_readers.open(id, family=family, name=name)]))
    return (await _result(call, drop=_close_all))[0]


async def open_all(
    *, family: Optional[str] = None, name: Optional[str] = None, id: Optional[int] = None
) -> List[Reader]:
    """Scan, and open every reader found, as gvusb.open_all() does. If this is cancelled, they are closed again."""
    call = _in_thread(lambda: _closed_on_failure(_readers.open_all(family=family, name=name, id=id)))
    return await _result(call, drop=_close_all)


class Monitor:
    """Queues the events of readers that come and go, from its creation until close(), and iterates over them.

        with aio.Monitor() as monitor:
            async for event in monitor:
                print(event)
                await aio.scan()

    gvusb.Monitor says which changes are reported. It uses no thread; cancelling a read loses no event.
    """

    def __init__(self) -> None:
        """Start to queue events."""
        self._monitor = _monitor.Monitor()
        self._waiting: Set[asyncio.Future[None]] = set()

    async def read(self) -> Optional[Event]:
        """Return the next event, or None if the monitor was closed and its last event has been read."""
        while not self._monitor.wait(0):
            loop = asyncio.get_running_loop()
            if not self._waiting:
                loop.add_reader(self._monitor.fileno(), self._wake)
            ready = loop.create_future()
            self._waiting.add(ready)
            try:
                await ready
            finally:
                self._waiting.discard(ready)
                if not self._waiting:
                    loop.remove_reader(self._monitor.fileno())
        return self._monitor.read(0)

    def _wake(self) -> None:
        for ready in self._waiting:
            if not ready.done():
                ready.set_result(None)

    def close(self) -> None:
        """End the monitor. Events that it has queued can still be read; then iterating ends."""
        self._monitor.close()

    @property
    def closed(self) -> bool:
        """Whether the monitor was closed."""
        return self._monitor.closed

    def __aiter__(self) -> Monitor:
        return self

    async def __anext__(self) -> Event:
        event = await self.read()
        if event is None:
            raise StopAsyncIteration
        return event

    def __enter__(self) -> Monitor:
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

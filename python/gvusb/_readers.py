"""Finding readers, opening them, and exchanging frames with them."""

from __future__ import annotations

import collections
import ctypes
import math
import threading
import warnings
from types import TracebackType
from typing import Any, Callable, Deque, Dict, List, NamedTuple, NoReturn, Optional, Type, Union

from . import _library
from ._errors import ErrorCode, NotFoundError, as_text, check, error_of, number_in
from ._library import GVUSB_SCANSEARCH

BytesLike = Union[bytes, bytearray, memoryview]
"""What a frame may be: any object with a contiguous buffer. Type checkers know these."""

DEFAULT_SIZE = 4096
"""How many bytes are received at most, unless a call says otherwise: the longest answer by control transfer."""

_LONGEST_MS = 0xFFFFFFFF
_PROTOCOL = ctypes.c_char_p(b"TESK-RCI2")
_SCAN_FIRST, _SCAN_ALL, _SCAN_SEARCH = 1, 3, 0x10000
_BY_FAMILY, _BY_NAME, _BY_ID = 1, 2, 4


# Buffers.


def _frame_of(data: Any) -> bytes:
    """A copy of a frame that is not bytes. It cannot change while it is sent."""
    try:
        view = memoryview(data)
    except TypeError:
        raise TypeError(f"a frame must be a bytes-like object, not {type(data).__name__}") from None
    if not view.c_contiguous:
        raise BufferError("a frame must be contiguous; bytes() makes a contiguous copy")
    return bytes(view)


def _length_of(frame: bytes) -> int:
    # The C function takes 32 bits. It refuses a frame of this length.
    return min(len(frame), 0xFFFFFFFF)


def _buffer_of(buffer: Any) -> Any:
    """An array in the memory of the caller's buffer, which cannot be resized as long as the array exists."""
    try:
        view = memoryview(buffer)
    except TypeError:
        raise TypeError(f"a buffer must be a bytes-like object, not {type(buffer).__name__}") from None
    if view.readonly:
        raise TypeError(f"a buffer must be writable; {type(buffer).__name__} is not")
    if not view.c_contiguous:
        raise BufferError("a buffer must be contiguous")
    return (ctypes.c_char * min(view.nbytes, 0x7FFFFFFF)).from_buffer(buffer)


def _milliseconds(seconds: float) -> bytes:
    """The value of "TIMEOUT": whole milliseconds, rounded up."""
    if not 0 < seconds <= _LONGEST_MS / 1000:  # also not a number
        raise error_of(ErrorCode.OUT_OF_RANGE)
    # Not more than a nanosecond is lost to the limits of floating-point numbers.
    return b"%d" % math.ceil(round(seconds * 1000, 6))


# Which readers are open. Several objects can refer to one of them; the last one closes it.


class _Record:
    """An open reader."""

    __slots__ = ("handle", "owners", "lock", "is_closing", "closed")

    def __init__(self, handle: int) -> None:
        self.handle = handle
        self.owners = 0
        # Held during each call that uses the reader's "TIMEOUT". A handler may be called in an exchange, and make another.
        self.lock = threading.RLock()
        self.is_closing = False
        self.closed = threading.Event()


_records: Dict[int, _Record] = {}
# Records that objects have lost that were not closed. The garbage collector may run anywhere, so it takes no lock.
_forgotten: Deque[_Record] = collections.deque()


class _Table:
    """The lock of `_records`. It is not held while a reader is closed. Locked after `_scanning`.

    A handler that the library calls in a scan may lock it once more.
    """

    def __init__(self) -> None:
        self._lock = threading.RLock()
        self._depth = 0

    def __enter__(self) -> None:
        self._lock.acquire()
        self._depth += 1

    def __exit__(self, *_: object) -> None:
        self._depth -= 1
        self._lock.release()
        if _forgotten:
            self.close_forgotten()

    def close_forgotten(self) -> None:
        """Close the readers of lost objects, now or when the thread that holds the lock releases it."""
        while _forgotten and self._lock.acquire(blocking=False):
            unused = []
            try:
                if self._depth > 0:
                    return  # this thread holds the lock, in the middle of a change
                while _forgotten:
                    record = _forgotten.popleft()
                    if _disown(record):
                        unused.append(record)
            finally:
                self._lock.release()
            for record in unused:
                _close(record)


_table = _Table()
# Held from a scan until its result is read.
_scanning = threading.RLock()


def _forked() -> None:
    """Replace the locks, which other threads may have held."""
    global _table, _scanning
    _table, _scanning = _Table(), threading.RLock()
    for record in _records.values():
        record.lock = threading.RLock()


_library.on_fork.append(_forked)


def _own(handle: int) -> Optional[_Record]:
    """The record of an open reader, with one more owner; None if the reader is being closed. Requires `_table`."""
    record = _records.get(handle)
    if record is None:
        record = _records[handle] = _Record(handle)
    if record.is_closing:
        return None
    record.owners += 1
    return record


def _disown(record: _Record) -> bool:
    """Return whether this was the last owner. Requires `_table`."""
    record.owners -= 1
    record.is_closing = record.owners == 0
    return record.is_closing


def _forget_record(record: _Record) -> None:
    with _table:
        if _records.get(record.handle) is record:
            del _records[record.handle]
    record.closed.set()


def _close(record: _Record) -> int:
    """Close a reader that has no owner."""
    try:
        return int(_library.library().close_device(record.handle))
    except _library.ProcessError:
        return 0  # the library closes it, or it belongs to the parent
    finally:
        _forget_record(record)


def _opened(call: Callable[[], int]) -> Reader:
    """Open a reader by a call that returns its handle."""
    while True:
        with _table:
            handle = check(call())
            record = _own(handle)
            if record is not None:
                return Reader._of(record)
            record = _records[handle]
        record.closed.wait()  # another thread closes what this call has found open


class Reader:
    """An open reader, from gvusb.open() or gvusb.open_all(). Closes it at the end of a with block or by close().

    Two objects can refer to the same reader, for example after gvusb.open() and gvusb.open_all(); the last one closes it.
    An object that is forgotten closes its reader too, with a ResourceWarning.

    Any thread may use an object, also while another thread closes it. Calls on one reader run one after the other. Calls on
    different readers run at the same time if gvusb.driver.set_parallel() has switched parallel mode on; by default they
    wait for each other. Methods raise NotOpenError after close().

    Ctrl-C during a call raises KeyboardInterrupt when the call ends: as soon as its time is over, at the latest. An answer
    that has arrived is lost then.
    """

    __slots__ = ("_record", "_lib", "__weakref__")

    _record: Optional[_Record]
    _lib: _library.Library

    def __init__(self, *, handle: int) -> None:
        """Own a reader that was opened by a function of gvusb.lowlevel.

        handle: its handle.
        """
        self._record = None
        self._lib = _library.library()
        while self._record is None:
            with _table:
                self._record = _own(number_in(handle, -0x80000000, 0x7FFFFFFF, "a handle"))
                closing = _records[handle]
            if self._record is None:
                closing.closed.wait()

    @classmethod
    def _of(cls, record: _Record) -> Reader:
        reader = cls.__new__(cls)
        reader._record = record
        reader._lib = _library.library()
        return reader

    def _checked(self) -> _Record:
        record = self._record
        if record is None:
            raise error_of(ErrorCode.NOT_OPENED)
        return record

    # Opening and closing.

    def close(self) -> None:
        """Close the reader, unless another object refers to it. Does nothing if this object is closed.

        Waits for a call on this reader that is under way, by default for any call. Calls that wait for their turn raise
        NotOpenError.
        """
        with _table:
            record, self._record = self._record, None
            is_last = record is not None and _disown(record)
        if record is not None and is_last:
            check(_close(record))

    def release(self) -> int:
        """Give the reader up without closing it. Return the handle, for the functions of gvusb.lowlevel."""
        with _table:
            record, self._record = self._checked(), None
            is_last = _disown(record)
        if is_last:
            _forget_record(record)
        return record.handle

    def __enter__(self) -> Reader:
        self._checked()
        return self

    def __exit__(
        self, kind: Optional[Type[BaseException]], error: Optional[BaseException], trace: Optional[TracebackType]
    ) -> None:
        self.close()

    # At the end of the interpreter, names of this module may be gone.
    def __del__(self, _is_usable: Callable[[], bool] = _library.is_usable) -> None:
        record = getattr(self, "_record", None)
        if record is not None and _is_usable():
            warnings.warn(f"gvusb.Reader with handle {record.handle} was not closed", ResourceWarning, source=self)
            self._record = None
            _forgotten.append(record)
            _table.close_forgotten()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a reader cannot be copied or pickled: it belongs to its process")

    def __repr__(self) -> str:
        record = self._record
        return "<gvusb.Reader, closed>" if record is None else f"<gvusb.Reader, handle {record.handle}>"

    @property
    def closed(self) -> bool:
        """Whether this object is closed."""
        return self._record is None

    @property
    def handle(self) -> int:
        """The handle, for the functions of gvusb.lowlevel."""
        return self._checked().handle

    # Exchanging frames.

    def transceive(self, frame: BytesLike, size: int = DEFAULT_SIZE, *, timeout: Optional[float] = None) -> bytes:
        """Send a frame and return the answer, which may be empty. No other call reaches the reader in between.

        frame: bytes, bytearray, memoryview or any other contiguous buffer; at most 4096 bytes over control transfers.
        size: how many bytes to receive at most. Choose a multiple of 512. Over bulk endpoints, the next receive() returns
        the rest of a longer answer; over control transfers, the rest is cut off.
        timeout: how many seconds sending and receiving may take each, from 0.001 and rounded up to milliseconds; by
        default the reader's `timeout`.

        Raises TimeoutError if the time is over. What arrives later, the next call receives: receive and drop it first.
        Raises NotPresentError if the reader was unplugged, BusyError if another program uses it, TransferError for other
        failures, and ParameterError for an empty frame or a size of 0.
        """
        if type(frame) is not bytes:
            frame = _frame_of(frame)
        answer = _library.new_buffer(size)
        count = self._exchange(timeout, self._lib.transceive, 0, frame, _length_of(frame), answer, size)
        return answer[:count]  # type: ignore[no-any-return]

    def transceive_into(self, frame: BytesLike, buffer: Any, *, timeout: Optional[float] = None) -> int:
        """Send a frame and receive the answer into a buffer of the caller's. Return the number of bytes.

        buffer: a bytearray, memoryview or any other writable contiguous buffer. The whole buffer is filled with zeros
        before the answer arrives. The rest is as in transceive().
        """
        if type(frame) is not bytes:
            frame = _frame_of(frame)
        answer = _buffer_of(buffer)
        return self._exchange(timeout, self._lib.transceive, 0, frame, _length_of(frame), answer, len(answer))

    def transmit(self, frame: BytesLike, *, timeout: Optional[float] = None) -> None:
        """Send a frame. Arguments and exceptions are as in transceive()."""
        if type(frame) is not bytes:
            frame = _frame_of(frame)
        self._exchange(timeout, self._lib.transmit, frame, _length_of(frame))

    def receive(self, size: int = DEFAULT_SIZE, *, timeout: Optional[float] = None) -> bytes:
        """Receive a frame, or the rest of one, and return it. Arguments and exceptions are as in transceive()."""
        answer = _library.new_buffer(size)
        count = self._exchange(timeout, self._lib.receive, answer, size)
        return answer[:count]  # type: ignore[no-any-return]

    def receive_into(self, buffer: Any, *, timeout: Optional[float] = None) -> int:
        """Receive a frame, or the rest of one, into a buffer of the caller's. Return the number of bytes."""
        answer = _buffer_of(buffer)
        return self._exchange(timeout, self._lib.receive, answer, len(answer))

    def _exchange(self, timeout: Optional[float], function: Callable[..., Any], *arguments: Any) -> int:
        record = self._record
        if record is None:
            raise error_of(ErrorCode.NOT_OPENED)
        milliseconds = None if timeout is None else _milliseconds(timeout)
        with record.lock:
            if record.is_closing:
                raise error_of(ErrorCode.NOT_OPENED)
            if milliseconds is None:
                count: int = function(record.handle, _PROTOCOL, *arguments)
            else:
                count = self._exchange_within(milliseconds, function, record.handle, arguments)
        if count < 0:
            raise error_of(count)
        return count

    def _exchange_within(self, milliseconds: bytes, function: Callable[..., Any], handle: int, arguments: Any) -> int:
        """Make a call with another "TIMEOUT". Requires the reader's lock."""
        before = ctypes.create_string_buffer(_library.PARAMETER_SIZE)
        code: int = self._lib.get_device_para(handle, b"TIMEOUT", before)
        if code != 0:
            return code
        if before.value == milliseconds:
            return int(function(handle, _PROTOCOL, *arguments))
        try:
            code = self._lib.set_device_para(handle, b"TIMEOUT", milliseconds)
            return code if code != 0 else int(function(handle, _PROTOCOL, *arguments))
        finally:
            # A reader that has been unplugged and closed meanwhile has no time-out any more.
            self._lib.set_device_para(handle, b"TIMEOUT", before.value)

    # Settings.

    def get(self, key: str) -> str:
        """Read a parameter by its key, such as "TIMEOUT"; GVUSB_GetDevicePara in gvusb.h lists the keys.

        Waits for a call on this reader that is under way, by default for any call. Raises ParameterError for an unknown
        key, and for "PRESENT", which would block forever: use present().
        """
        if key.upper() == "PRESENT":
            raise error_of(ErrorCode.UNKNOWN_PARAMETER)
        record = self._checked()
        with record.lock:
            return get_parameter(self._usable(record), key)

    def set(self, key: str, value: Union[str, int] = "") -> None:
        """Change a parameter by its key; GVUSB_SetDevicePara in gvusb.h lists the keys and values.

        Waits like get(). Raises ParameterError if the key is unknown or the value is out of range.
        """
        record = self._checked()
        with record.lock:
            set_parameter(self._usable(record), key, value)

    @staticmethod
    def _usable(record: _Record) -> int:
        """The handle. 0 and -1 have another meaning where parameters are read and written."""
        if record.is_closing:
            raise error_of(ErrorCode.NOT_OPENED)
        if record.handle <= 0:
            raise error_of(ErrorCode.NULL_HANDLE if record.handle == 0 else ErrorCode.NEGATIVE_HANDLE)
        return record.handle

    @property
    def id(self) -> int:
        """The device ID; 0 if it is unknown. Waits like get()."""
        return int(self.get("DEVICE-ID"), 16)

    @property
    def name(self) -> str:
        """The device name. Waits like get()."""
        return self.get("DEVICENAME")

    @property
    def family(self) -> str:
        """The family name. Waits like get()."""
        return self.get("FAMILYNAME")

    @property
    def interface_type(self) -> str:
        """The interface type. Waits like get()."""
        return self.get("INTERFACE")

    def type_number(self) -> str:
        """Read the type number from the reader. Waits like get(). Raises DescriptorError if that fails."""
        return self.get("TYPENUMBER")

    @property
    def timeout(self) -> float:
        """How many seconds a transfer may take, if a call does not say otherwise: 1.0 at first.

        From 0.001 to 4294967.295, rounded up to milliseconds; ParameterError otherwise. It is 1.0 again when the reader
        has been unplugged and has come back. Waits like get().
        """
        return int(self.get("TIMEOUT")) / 1000

    @timeout.setter
    def timeout(self, seconds: float) -> None:
        self.set("TIMEOUT", _milliseconds(seconds).decode())

    def present(self) -> bool:
        """Test whether the reader is still there, by reading its device ID. Waits like get()."""
        record = self._checked()
        with record.lock:
            if record.is_closing:
                raise error_of(ErrorCode.NOT_OPENED)
            return check(self._lib.is_device_present(record.handle)) != 0

    def reset(self) -> None:
        """Reset the reader. Raises TransferError if it refuses. Waits like get()."""
        self.set("RESETDEVICE")

    def reset_pipe(self) -> None:
        """Clear a halt of both bulk endpoints. It has no effect before the first exchange, or over control transfers."""
        self.set("RESETPIPE")

    def cancel(self) -> bool:
        """End the calls that other threads make on this reader. Do not wait.

        They raise TransferError. Return False, without an effect, if parallel mode is off.
        """
        return self._lib.cancel(self._usable(self._checked()))


def get_parameter(handle: int, key: str) -> str:
    """Read a parameter of a reader or of the driver."""
    value = ctypes.create_string_buffer(_library.PARAMETER_SIZE)
    check(_library.library().get_device_para(handle, as_text(key), value))
    return value.value.decode("latin-1")


def set_parameter(handle: int, key: str, value: Union[str, int]) -> None:
    """Change a parameter of a reader or of the driver."""
    check(_library.library().set_device_para(handle, as_text(key), as_text(str(value))))


# Finding readers.


def _search_of(
    family: Optional[str], name: Optional[str], device_id: Optional[int]
) -> Optional[GVUSB_SCANSEARCH]:
    given = [wanted is not None for wanted in (family, name, device_id)]
    if sum(given) > 1:
        raise TypeError("a search is by family, by name or by device ID, not by several of them")
    search = GVUSB_SCANSEARCH()
    if family is not None:
        search.mask, search.famName = _BY_FAMILY, _name_of(family, 25)
    elif name is not None:
        search.mask, search.devName = _BY_NAME, _name_of(name, 50)
    elif device_id is not None:
        search.mask, search.devId = _BY_ID, b"%X" % _checked_id(device_id)
    return search if any(given) else None


def _name_of(text: str, longest: int) -> bytes:
    name = text.encode("latin-1", "replace")
    if len(name) > longest or b"\0" in name:
        raise error_of(ErrorCode.OUT_OF_RANGE)
    return name


def _checked_id(device_id: int) -> int:
    if not 0 <= device_id <= 0xFFFFFFFF:
        raise error_of(ErrorCode.OUT_OF_RANGE)
    return device_id


def _scan(function: Callable[..., Any], option: int, search: Optional[GVUSB_SCANSEARCH]) -> int:
    return int(function(option, None) if search is None else function(option | _SCAN_SEARCH, search))


class ScanEntry(NamedTuple):
    """A reader that a scan has found: a copy of what identifies it."""

    id: int
    """The device ID; 0 if it is unknown."""
    name: str
    """The device name."""
    family: str
    """The family name."""
    interface_type: str
    """The interface type."""

    def open(self) -> Reader:
        """Open the reader, as gvusb.open() does with its ID. Of two readers with one ID, that is the first one."""
        return open(self.id)


def _entry_text(index: int, key: bytes) -> str:
    value = ctypes.create_string_buffer(_library.PARAMETER_SIZE)
    code = _library.library().get_scan_list_para(index, key, value)
    if code != 0:
        raise error_of(code)
    return value.value.decode("latin-1")


def scan(*, family: Optional[str] = None, name: Optional[str] = None, id: Optional[int] = None) -> List[ScanEntry]:
    """Find the readers on the bus. Return them in the order of the bus; an empty list if there is none.

    family, name, id: find only the readers with this family name (at most 25 characters), device name (at most 50) or
    device ID. Give at most one of them.

    Any thread. Waits for other scans, by default also for calls on readers.
    """
    search = _search_of(family, name, id)
    with _scanning:
        library = _library.library()
        code = _scan(library.scan, _SCAN_ALL, search)
        if code == ErrorCode.NO_DEVICE_FOUND:
            return []
        check(code)
        return [
            ScanEntry(
                int(_entry_text(index, b"DEVICE-ID"), 16),
                _entry_text(index, b"DEVICENAME"),
                _entry_text(index, b"FAMILYNAME"),
                _entry_text(index, b"INTERFACE"),
            )
            for index in range(library.get_scan_list_size())
        ]


def open(id: Optional[int] = None, *, family: Optional[str] = None, name: Optional[str] = None) -> Reader:
    """Open a reader: the one with a device ID, or the first one found with this family name or device name, or of all.

    With an ID, it scans only if the last scan has not found the reader; otherwise it scans first. If the reader is open
    already, the new object refers to the same open reader.

    Raises NotFoundError if there is no such reader, PermissionError if it may not be opened, and DescriptorError if its
    configuration cannot be set or read. Any thread. Waits for the opening of other readers, and for scans that it needs.
    """
    library = _library.library()
    if id is None:
        search = _search_of(family, name, None)
        with _scanning:
            return _opened(lambda: _scan(library.scan_and_open, _SCAN_FIRST, search))
    _search_of(family, name, id)  # only one of them
    device_id = id
    try:
        return _opened(lambda: int(library.open_device(device_id)))
    except NotFoundError as error:
        if error.code != ErrorCode.NOT_SCANNED:
            raise
    with _scanning:
        library.scan(_SCAN_ALL, None)
        return _opened(lambda: int(library.open_device(device_id)))


def open_all(*, family: Optional[str] = None, name: Optional[str] = None, id: Optional[int] = None) -> List[Reader]:
    """Scan, and open every reader found. Return them in the order of the bus; an empty list if there is none.

    If one of them cannot be opened, close those that were opened here, and raise as open() does. The arguments are those
    of scan().
    """
    search = _search_of(family, name, id)
    readers: List[Reader] = []
    try:
        with _scanning:
            check(_open_all(search, readers))
    except BaseException:
        for reader in readers:
            reader.close()
        raise
    return readers


def _open_all(search: Optional[GVUSB_SCANSEARCH], readers: List[Reader]) -> int:
    """Open the readers that a scan finds, and return the last failure of one of them."""
    library = _library.library()
    while True:
        closing = None
        with _table:
            code = _scan(library.scan_and_open, _SCAN_ALL, search)
            if code == ErrorCode.NO_DEVICE_FOUND:
                return 0
            for index in range(library.get_scan_list_size()):
                handle = int(_entry_text(index, b"DEVICEHND"))
                if handle > 0:
                    record = _own(handle)
                    if record is None:
                        closing = _records[handle]
                        break
                    readers.append(Reader._of(record))
        if closing is None:
            return code
        # Another thread closes a reader that was found open.
        while readers:
            readers.pop().close()
        closing.closed.wait()

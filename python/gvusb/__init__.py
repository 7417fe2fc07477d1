"""Find, open and talk to USB RFID readers. The Python interface of libgvusb.so.7.

    import gvusb

    with gvusb.open() as reader:
        print(reader.name, reader.transceive(b"\\x02\\x00\\x07\\xff\\x01", timeout=0.5).hex())

- scan(), open(), open_all(), Reader: readers and frames
- Monitor: readers that come and go
- gvusb.aio: the same for asyncio
- gvusb.driver: settings for all readers
- Error and the classes made from it, ErrorCode: failures
- gvusb.lowlevel: the functions of gvusb.h
- load(): which libgvusb.so.7 is used

Times are in seconds. Failures raise exceptions made from Error. Every function may be called from any thread, and in the
process that has loaded the library: a child of fork, in which the library must not be called, gets ProcessError instead.
The library is loaded by the first call that needs it.

Some classes have the name of the built-in class that they are made from, such as TimeoutError: name them with the module,
and do not import them by "from gvusb import *", which leaves them out.
"""

from __future__ import annotations

from . import driver, lowlevel
from ._errors import BusyError, DescriptorError, Error, ErrorCode, InternalError, NotFoundError, NotOpenError
from ._errors import IndexError as IndexError
from ._errors import MemoryError as MemoryError
from ._errors import NotPresentError, ParameterError
from ._errors import PermissionError as PermissionError
from ._errors import TimeoutError as TimeoutError
from ._errors import TransferError, UnsupportedError
from ._library import LibraryError, ProcessError, load
from ._monitor import Event, EventKind, Monitor
from ._readers import DEFAULT_SIZE, BytesLike, Reader, ScanEntry, open_all, scan
from ._readers import open as open

__version__ = "7.1.0"


def version() -> str:
    """Return the version of the library that the program runs with, such as "07.01.00"."""
    return lowlevel.GVUSB_GetDLLVersion()


# Without the names of built-in functions and classes.
__all__ = [
    "DEFAULT_SIZE",
    "BusyError",
    "BytesLike",
    "DescriptorError",
    "Error",
    "ErrorCode",
    "Event",
    "EventKind",
    "InternalError",
    "LibraryError",
    "Monitor",
    "NotFoundError",
    "NotOpenError",
    "NotPresentError",
    "ParameterError",
    "ProcessError",
    "Reader",
    "ScanEntry",
    "TransferError",
    "UnsupportedError",
    "driver",
    "load",
    "lowlevel",
    "open_all",
    "scan",
    "version",
]

"""Loads libgvusb.so.7, and calls it only as long as that is safe.

The C library forbids two things that are easily done in Python: calls in a child of fork, and calls that are still under way
when the process ends. Every call passes through `_guarded`, which refuses the first and counts those that are under way.
"""

from __future__ import annotations

import atexit
import ctypes
import os
import sysconfig
import threading
import time
from typing import Any, Callable, Dict, List, Optional, Union

SONAME = "libgvusb.so.7"
OLDEST = (7, 1)
GVUSB_DRIVER = -1
UNKNOWN_PARAMETER = -1150
PARAMETER_SIZE = 256
TEXT_SIZE = 57

# What names a file for `load`.
Path = Union[str, "os.PathLike[str]"]


class LibraryError(ImportError):
    """libgvusb.so.7 cannot be loaded, or is too old."""


class ProcessError(RuntimeError):
    """The library must not be called: in a child of fork, or while the interpreter ends."""


def new_buffer(size: int) -> Any:
    """An array of bytes, whose slices are bytes."""
    if not 0 <= size <= 0x7FFFFFFF:
        raise ValueError(f"size is {size}; it must be from 0 to {0x7FFFFFFF}")
    return (ctypes.c_char * size)()


class GVUSB_SCANSEARCH(ctypes.Structure):
    """What a scan searches for: a GVUSB_SEARCH_... constant as the mask, and the text for it, as bytes."""

    _fields_ = [
        ("mask", ctypes.c_int32),
        ("famName", ctypes.c_char * 25),
        ("devName", ctypes.c_char * 50),
        ("devId", ctypes.c_char * 25),
    ]


EventCallback = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_uint, ctypes.c_char_p)


class EventInit(ctypes.Structure):
    """The record GVUSB_EVENT_INIT."""

    _fields_ = [
        ("uiEvent", ctypes.c_uint32),
        ("uiReserved1", ctypes.c_uint32),
        ("uiCallbackType", ctypes.c_uint32),
        ("uiReserved2", ctypes.c_uint32),
        ("cbFct", EventCallback),
    ]


_int, _uint, _text = ctypes.c_int, ctypes.c_uint, ctypes.c_char_p
_search, _event = ctypes.POINTER(GVUSB_SCANSEARCH), ctypes.POINTER(EventInit)

# The threads with a call under way, once for each call. Appending and removing are atomic.
_calls: List[int] = []
# Why calls are refused.
_refusal: Optional[str] = None
_at_exit = False


def _guarded(function: Any) -> Callable[..., Any]:
    def call(*arguments: Any) -> Any:
        _calls.append(threading.get_ident())
        try:
            # Only now, so that no call begins unseen after calls have been refused.
            if _refusal is not None:
                refuse()
            return function(*arguments)
        finally:
            _calls.remove(threading.get_ident())

    return call


def refuse() -> None:
    """Raise an exception if the library must not be called."""
    if _refusal is None:
        return
    if _at_exit and threading.current_thread() is not threading.main_thread():
        raise SystemExit  # ends a daemon thread silently, as the interpreter would do a moment later
    raise ProcessError(_refusal)


def loaded() -> Optional[Library]:
    """The library if it is loaded."""
    return _library


def is_usable() -> bool:
    """Whether the library is loaded and may be called."""
    return _library is not None and _refusal is None


class Library:
    """The functions of gvusb.h, which return what the C functions return."""

    def __init__(self, name: str) -> None:
        try:
            self._loaded = ctypes.CDLL(name)
        except OSError as error:
            raise LibraryError(
                f"{error}. Install the package libgvusb7; or name the file, or the prefix that it is installed in, by the "
                "environment variable GVUSB_LIBRARY or by gvusb.load()"
            ) from None
        self.name = name
        self.get_dll_version = self._function("GVUSB_GetDLLVersion", result=_text)
        version: bytes = self.get_dll_version() or b""
        if tuple(int(number) for number in version.split(b".") if number.isdigit()) < OLDEST:
            oldest = ".".join(str(number) for number in OLDEST)
            raise LibraryError(f"{name} has version {version.decode('latin-1')}; this package needs {oldest} or later")
        self.scan = self._function("GVUSB_Scan", _int, _search)
        self.scan_and_open = self._function("GVUSB_ScanAndOpen", _int, _search)
        self.get_scan_list_para = self._function("GVUSB_GetScanListPara", _int, _text, _text)
        self.get_scan_list_size = self._function("GVUSB_GetScanListSize")
        self.clear_scan_list = self._function("GVUSB_ClearScanList")
        self.open_device = self._function("GVUSB_OpenDevice", _uint)
        self.close_device = self._function("GVUSB_CloseDevice", _int)
        self.is_device_present = self._function("GVUSB_IsDevicePresent", _int)
        self.get_device_list = self._function("GVUSB_GetDeviceList", _int)
        self.get_device_hnd = self._function("GVUSB_GetDeviceHnd", _uint)
        self.transceive = self._function("GVUSB_Transceive", _int, _text, _int, _text, _uint, _text, _uint)
        self.transmit = self._function("GVUSB_Transmit", _int, _text, _text, _uint)
        self.receive = self._function("GVUSB_Receive", _int, _text, _text, _uint)
        self.get_device_para = self._function("GVUSB_GetDevicePara", _int, _text, _text)
        self.set_device_para = self._function("GVUSB_SetDevicePara", _int, _text, _text)
        self.add_event_handler = self._function("GVUSB_AddEventHandler", _int, _event)
        self.del_event_handler = self._function("GVUSB_DelEventHandler", _int, _event)
        self.get_last_error = self._function("GVUSB_GetLastError", _int, ctypes.POINTER(_int), _text)
        self.get_error_text = self._function("GVUSB_GetErrorText", _int, _text)
        self.get_drv_version = self._function("GVUSB_GetDrvVersion")
        self._texts: Dict[int, str] = {}

    def _function(self, name: str, *arguments: Any, result: Any = ctypes.c_int) -> Callable[..., Any]:
        try:
            function = getattr(self._loaded, name)
        except AttributeError:
            raise LibraryError(f"{self.name} is not {SONAME}: it has no function {name}") from None
        function.argtypes = arguments
        function.restype = result
        return _guarded(function)

    def remember_texts(self, codes: List[int]) -> None:
        """Get the texts of these codes, because doing so later would change the last error."""
        for code in codes:
            text = ctypes.create_string_buffer(TEXT_SIZE)
            self.get_error_text(code, text)
            self._texts[code] = text.value.decode("latin-1")

    def text_of(self, code: int) -> str:
        """The library's text for a code."""
        if code not in self._texts:
            self.remember_texts([code])
        return self._texts[code]

    def cancel(self, handle: int) -> bool:
        """End the calls that are under way on a reader, in parallel mode. Return whether it is on."""
        return self._cancel(handle, self.get_device_para, self.set_device_para)

    def cancel_all_at_exit(self) -> bool:
        """End all calls that are under way, in parallel mode, although calls are refused. Return whether it is on."""
        return self._cancel(0, self.unguarded("GVUSB_GetDevicePara"), self.unguarded("GVUSB_SetDevicePara"))

    def unguarded(self, name: str) -> Callable[..., Any]:
        """A function that also works when calls are refused."""
        function: Callable[..., Any] = getattr(self._loaded, name)
        return function

    def _cancel(self, handle: int, get: Callable[..., int], set_: Callable[..., int]) -> bool:
        # By default, the call would wait for the transfer that it is to end.
        mode = ctypes.create_string_buffer(PARAMETER_SIZE)
        if get(GVUSB_DRIVER, b"PARALLEL", mode) != 0 or mode.value != b"1":
            return False
        return bool(set_(handle, b"CANCEL", b"") != UNKNOWN_PARAMETER)


_library: Optional[Library] = None
_loading = threading.Lock()
# Called with a library that has just been loaded.
on_load: List[Callable[[Library], None]] = []
# Called before the interpreter ends, with the function that removes a handler, and again when no call is under way.
on_exit: List[Callable[[Callable[..., Any]], None]] = []
# Called in a child of fork.
on_fork: List[Callable[[], None]] = []


def _file_of(path: str) -> str:
    """The library's file, given this file or a prefix."""
    if not os.path.isdir(path):
        return path
    multiarch = sysconfig.get_config_var("MULTIARCH") or ""
    for folder in ("", "lib", os.path.join("lib", multiarch), "lib64"):
        file = os.path.join(path, folder, SONAME)
        if os.path.exists(file):
            return file
    raise LibraryError(f"there is no {SONAME} in {path} or in its folders lib and lib64")


def _require_main_interpreter() -> None:
    # Threads of the library call Python in the main interpreter only.
    current = ctypes.pythonapi.PyInterpreterState_Get
    number = ctypes.pythonapi.PyInterpreterState_GetID
    current.restype = ctypes.c_void_p
    number.argtypes, number.restype = (ctypes.c_void_p,), ctypes.c_int64
    if number(current()) != 0:
        raise LibraryError("gvusb works in the main interpreter only, not in a subinterpreter")


def load(path: Optional[Path] = None) -> None:
    """Load libgvusb.so.7 now, instead of with the first call that needs it.

    path: the file, or the prefix that the library is installed in. Without it, the environment variable GVUSB_LIBRARY
    names one of them, and without that the system's search finds libgvusb.so.7.

    Raises LibraryError if the library is missing, is too old, or has been loaded from another file before. Any thread.
    """
    global _library
    with _loading:
        name = _file_of(os.fspath(path or os.environ.get("GVUSB_LIBRARY") or SONAME))
        if _library is not None:
            if path is not None and name != _library.name:
                raise LibraryError(f"{_library.name} has been loaded before, so {name} cannot be")
            return
        _require_main_interpreter()
        loaded = Library(name)
        for function in on_load:
            function(loaded)
        _library = loaded


def library() -> Library:
    """The library, which is loaded if it has not been."""
    if _library is None:
        load()
    assert _library is not None
    return _library


def _others() -> List[int]:
    """The calls that other threads have under way. Calls of this thread cannot be."""
    return [thread for thread in list(_calls) if thread != threading.get_ident()]


@atexit.register
def _end() -> None:
    """Let no call be under way when the library ends."""
    global _refusal, _at_exit
    loaded = _library
    if loaded is None or _refusal is not None:
        return
    for function in on_exit:
        function(loaded.del_event_handler)
    _at_exit = True
    _refusal = "the interpreter is ending"
    while _others():
        loaded.cancel_all_at_exit()
        time.sleep(0.002)
    for function in on_exit:
        function(loaded.unguarded("GVUSB_DelEventHandler"))


def _forked() -> None:
    """Refuse calls in a child of fork, in which the library's locks may be held forever."""
    global _refusal, _loading
    _loading = threading.Lock()
    _calls.clear()
    if _library is not None:
        _refusal = "a child of fork must not use the readers of its parent; start it by the method 'spawn' or 'forkserver'"
        for function in on_fork:
            function()


os.register_at_fork(after_in_child=_forked)

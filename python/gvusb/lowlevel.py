"""The functions of libgvusb.so.7 and the constants of gvusb.h, under the same names.

Functions return what the C functions return, except that a negative code raises gvusb.Error. What the C functions write into
a buffer is returned: GVUSB_GetDevicePara returns the value, GVUSB_Receive the bytes. Numbers that do not fit into the
argument of the C function raise OverflowError. gvusb.h describes the functions, their codes and what they wait for.

    from gvusb import lowlevel
    handle = lowlevel.GVUSB_ScanAndOpen(lowlevel.GVUSB_SCAN_FIRST)
    print(lowlevel.GVUSB_Transceive(handle, bytes.fromhex("02 00 07 FF 01")).hex())
    lowlevel.GVUSB_CloseDevice(handle)

Every function may be called from any thread. A program may mix them with the classes of gvusb: gvusb.Reader(handle=...)
owns a reader that was opened here, and Reader.release() gives one up.
"""

from __future__ import annotations

import ctypes
import threading
from typing import Callable, Dict, Optional, Tuple, Union

from . import _library
from ._errors import as_text, check, error_of, number_in
from ._library import GVUSB_SCANSEARCH as GVUSB_SCANSEARCH

GVUSB_OK = 0
GVUSB_ERR_EMPTY_DEVICE_LIST = -1100
GVUSB_ERR_EMPTY_SCAN_LIST = -1101
GVUSB_ERR_NULL_POINTER = -1102
GVUSB_ERR_NO_MEMORY = -1103
GVUSB_ERR_SET_CONFIGURATION = -1104
GVUSB_ERR_KERNEL_FUNCTION = -1105
GVUSB_ERR_UNSUPPORTED_OPTION = -1106
GVUSB_ERR_UNSUPPORTED_METHOD = -1107
GVUSB_ERR_NO_CONFIGURATION = -1108
GVUSB_ERR_LIBUSB_API = -1109
GVUSB_ERR_NO_GAVO_DEVICE = -1110
GVUSB_ERR_SEARCH_MISMATCH = -1111
GVUSB_ERR_NO_DEVICE_FOUND = -1112
GVUSB_ERR_ALREADY_SCANNED = -1113
GVUSB_ERR_SCAN_LIST_OVERFLOW = -1114
GVUSB_ERR_NO_CURRENT_ENTRY = -1115
GVUSB_ERR_UNKNOWN_DEVICE_HANDLE = -1120
GVUSB_ERR_NULL_HANDLE = -1121
GVUSB_ERR_NEGATIVE_HANDLE = -1122
GVUSB_ERR_HANDLE_NOT_FOUND = -1123
GVUSB_ERR_TIMEOUT = -1130
GVUSB_ERR_NO_SEND_DATA = -1131
GVUSB_ERR_UNKNOWN_INTERFACE = -1132
GVUSB_ERR_UNKNOWN_DIRECTION = -1133
GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL = -1134
GVUSB_ERR_SEND_LENGTH = -1135
GVUSB_ERR_UNKNOWN_DESCRIPTOR = -1136
GVUSB_ERR_NOT_PRESENT = -1137
GVUSB_ERR_TRANSMIT_PROCESS = -1138
GVUSB_ERR_BULK_TRANSFER = -1139
GVUSB_ERR_NOT_SCANNED = -1140
GVUSB_ERR_NOT_IN_SCAN_LIST = -1141
GVUSB_ERR_DEVICE_LIST_HANDLE = -1142
GVUSB_ERR_CANNOT_OPEN = -1143
GVUSB_ERR_NOT_OPENED = -1144
GVUSB_ERR_CANNOT_CLAIM = -1145
GVUSB_ERR_WRONG_DEVICE = -1146
GVUSB_ERR_UNKNOWN_PARAMETER = -1150
GVUSB_ERR_OUT_OF_RANGE = -1151
GVUSB_ERR_ODD_PARAMETER = -1152
GVUSB_ERR_INDEX_OUT_OF_RANGE = -1153
GVUSB_ERR_UNKNOWN_SCAN_OPTION = -1154
GVUSB_ERR_UNKNOWN_ERROR_CODE = -1155
GVUSB_ERR_PARAMETER_SYNTAX = -1156
GVUSB_ERR_PARAMETER_NOT_AVAILABLE = -1157
GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH = -1160
GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH = -1161
GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH = -1162
GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH = -1163
GVUSB_ERR_HID_DESCRIPTOR_LENGTH = -1164
GVUSB_ERR_STRING_DESCRIPTOR_LENGTH = -1165
GVUSB_ERR_DEVICE_DESCRIPTOR_READ = -1166
GVUSB_ERR_CONFIG_DESCRIPTOR_READ = -1167
GVUSB_ERR_STRING_DESCRIPTOR_READ = -1168
GVUSB_ERR_TOO_MANY_INTERFACES = -1170
GVUSB_ERR_TOO_MANY_ENDPOINTS = -1171
GVUSB_ERR_TOO_MANY_STRINGS = -1172
GVUSB_ERR_CONTROL_TRANSFER = -1180
GVUSB_ERR_INTERNAL = -1199

GVUSB_NO_SCAN_LIST_ENTRY = 1115  # positive, unlike every other failure

GVUSB_SCAN_FIRST = 1
GVUSB_SCAN_NEXT = 2
GVUSB_SCAN_ALL = 3
GVUSB_SCAN_ALL_15 = 15
GVUSB_SCAN_SEARCH = 0x10000
GVUSB_SCAN_NOTHING = 0x20000

GVUSB_SEARCH_FAMILY_NAME = 0x1
GVUSB_SEARCH_DEVICE_NAME = 0x2
GVUSB_SEARCH_DEVICE_ID = 0x4

GVUSB_DRIVER = -1
GVUSB_ALL_DEVICES = 0

GVUSB_TEXT_SIZE = 57
GVUSB_PARAMETER_SIZE = 256
GVUSB_KEY_SIZE = 128

GVUSB_PROTOCOL = "TESK-RCI2"

GVUSB_EVENT_CONNECT = 1
GVUSB_EVENT_DISCONNECT = 2
GVUSB_CALLBACK_FUNCTION = 3

EventHandler = Callable[[int, int, bytes], None]
"""An event handler: function(handle, device ID, text). GVUSB_EventCallback in gvusb.h says what it gets."""


class GVUSB_EVENT_INIT:
    """The registration of an event handler: GVUSB_EVENT_INIT.of(GVUSB_EVENT_CONNECT, function)."""

    def __init__(
        self,
        uiEvent: int,
        uiReserved1: int = 0,
        uiCallbackType: int = GVUSB_CALLBACK_FUNCTION,
        uiReserved2: int = 0,
        cbFct: Optional[EventHandler] = None,
    ) -> None:
        callback = _library.EventCallback(0) if cbFct is None else _library.EventCallback(_marking(cbFct))
        self._record = _library.EventInit(uiEvent, uiReserved1, uiCallbackType, uiReserved2, callback)

    @classmethod
    def of(cls, event: int, function: EventHandler) -> GVUSB_EVENT_INIT:
        """The registration of a function for GVUSB_EVENT_CONNECT or GVUSB_EVENT_DISCONNECT."""
        return cls(event, cbFct=function)


_this_thread = threading.local()
# The registrations that the library knows. It calls their functions, so they must stay.
_registered: Dict[int, GVUSB_EVENT_INIT] = {}


def _marking(function: EventHandler) -> EventHandler:
    """A function that also notes that the thread is in a handler."""

    def call(handle: int, device_id: int, text: bytes) -> None:
        before = getattr(_this_thread, "in_handler", False)
        _this_thread.in_handler = True
        try:
            function(handle, device_id, text)
        finally:
            _this_thread.in_handler = before

    return call


def in_handler() -> bool:
    """Whether this thread is in an event handler."""
    return getattr(_this_thread, "in_handler", False)


def _require_no_handler() -> None:
    if in_handler():
        raise RuntimeError("an event handler must not add or remove handlers: it would wait for itself")


def _remove_handlers(remove: Callable[..., int]) -> None:
    """Let no thread of the library call Python when the interpreter has ended."""
    while _registered:
        remove(0, _registered.popitem()[1]._record)


_library.on_exit.append(_remove_handlers)


def _handle(handle: int) -> int:
    return number_in(handle, -0x80000000, 0x7FFFFFFF, "the number")


def _unsigned(value: int) -> int:
    return number_in(value, 0, 0xFFFFFFFF, "the number")


def GVUSB_Scan(scan_option: int, search: Optional[GVUSB_SCANSEARCH] = None) -> int:
    """Find the readers on the bus, and replace the content of the scan list by them."""
    return check(_library.library().scan(_handle(scan_option), search))


def GVUSB_ScanAndOpen(scan_option: int, search: Optional[GVUSB_SCANSEARCH] = None) -> int:
    """Scan, and open what was found. Return the handle, or 0 for all readers."""
    return check(_library.library().scan_and_open(_handle(scan_option), search))


def GVUSB_GetScanListPara(index: int, key: Optional[str]) -> str:
    """Read a parameter of an entry of the scan list. Raises gvusb.IndexError if there is no such entry."""
    value = ctypes.create_string_buffer(GVUSB_PARAMETER_SIZE)
    code = _library.library().get_scan_list_para(_handle(index), as_text(key), value)
    if code != GVUSB_OK:
        raise error_of(code)
    return value.value.decode("latin-1")


def GVUSB_GetScanListSize() -> int:
    """Count the entries of the scan list."""
    return int(_library.library().get_scan_list_size())


def GVUSB_ClearScanList() -> int:
    """Empty the scan list."""
    return check(_library.library().clear_scan_list())


def GVUSB_OpenDevice(device_id: int) -> int:
    """Open the reader of the scan list with a device ID. Return its handle."""
    return check(_library.library().open_device(_unsigned(device_id)))


def GVUSB_CloseDevice(handle: int) -> int:
    """Close a reader."""
    return check(_library.library().close_device(_handle(handle)))


def GVUSB_IsDevicePresent(handle: int) -> bool:
    """Test whether an open reader is still there."""
    return bool(check(_library.library().is_device_present(_handle(handle))))


def GVUSB_GetDeviceList(handle: int) -> int:
    """Return the handle of the open reader after this one, or 0."""
    return int(_library.library().get_device_list(_handle(handle)))


def GVUSB_GetDeviceHnd(device_id: int) -> int:
    """Return the handle of the open reader with a device ID."""
    return check(_library.library().get_device_hnd(_unsigned(device_id)))


def GVUSB_Transceive(
    handle: int, frame: Optional[bytes], size: int = 4096, interface_name: Optional[str] = GVUSB_PROTOCOL
) -> bytes:
    """Send a frame and return the answer, which may have up to `size` bytes."""
    answer = _library.new_buffer(size)
    length = 0 if frame is None else len(frame)
    function = _library.library().transceive
    count = check(function(_handle(handle), as_text(interface_name), 0, frame, _unsigned(length), answer, size))
    return answer[:count]  # type: ignore[no-any-return]


def GVUSB_Transmit(handle: int, frame: Optional[bytes], interface_name: Optional[str] = GVUSB_PROTOCOL) -> int:
    """Send a frame."""
    length = 0 if frame is None else len(frame)
    return check(_library.library().transmit(_handle(handle), as_text(interface_name), frame, _unsigned(length)))


def GVUSB_Receive(handle: int, size: int = 4096, interface_name: Optional[str] = GVUSB_PROTOCOL) -> bytes:
    """Receive a frame, or the rest of one, of up to `size` bytes."""
    answer = _library.new_buffer(size)
    count = check(_library.library().receive(_handle(handle), as_text(interface_name), answer, size))
    return answer[:count]  # type: ignore[no-any-return]


def GVUSB_GetDevicePara(handle: int, key: Optional[str]) -> str:
    """Read a parameter of a reader or of the driver. Do not read "PRESENT", which blocks forever."""
    value = ctypes.create_string_buffer(GVUSB_PARAMETER_SIZE)
    check(_library.library().get_device_para(_handle(handle), as_text(key), value))
    return value.value.decode("latin-1")


def GVUSB_SetDevicePara(handle: int, key: Optional[str], value: Union[str, int, None]) -> int:
    """Change a parameter of a reader, of all readers or of the driver."""
    text = None if value is None else as_text(str(value))
    return check(_library.library().set_device_para(_handle(handle), as_text(key), text))


def GVUSB_AddEventHandler(handle: int, registration: Optional[GVUSB_EVENT_INIT]) -> int:
    """Register an event handler, and keep the registration until GVUSB_DelEventHandler removes it.

    The function runs in a thread of the library. What it raises is reported by sys.unraisablehook. When the interpreter
    ends, all handlers are removed, which waits until none is running.
    """
    _require_no_handler()
    if registration is None:
        return check(_library.library().add_event_handler(_handle(handle), None))
    is_new = id(registration) not in _registered
    _registered[id(registration)] = registration
    code = _library.library().add_event_handler(_handle(handle), registration._record)
    if code != GVUSB_OK and is_new:
        _registered.pop(id(registration), None)
    return check(code)


def GVUSB_DelEventHandler(handle: int, registration: Optional[GVUSB_EVENT_INIT]) -> int:
    """Remove a registration. Afterwards, its function is not called."""
    _require_no_handler()
    if registration is None:
        return check(_library.library().del_event_handler(_handle(handle), None))
    check(_library.library().del_event_handler(_handle(handle), registration._record))
    _registered.pop(id(registration), None)
    return GVUSB_OK


def GVUSB_GetLastError(handle: int) -> Tuple[int, str]:
    """Return the last error as (code, text): that of a reader, or for 0 the manager's."""
    code = ctypes.c_int()
    text = ctypes.create_string_buffer(GVUSB_TEXT_SIZE)
    _library.library().get_last_error(_handle(handle), ctypes.byref(code), text)
    return code.value, text.value.decode("latin-1")


def GVUSB_GetErrorText(code: int) -> str:
    """Return the text of a code, also of an unknown one."""
    text = ctypes.create_string_buffer(GVUSB_TEXT_SIZE)
    _library.library().get_error_text(_handle(code), text)
    return text.value.decode("latin-1")


def GVUSB_GetDLLVersion() -> str:
    """Return the version of the library, such as "07.01.00"."""
    version: bytes = _library.library().get_dll_version()
    return version.decode("latin-1")


def GVUSB_GetDrvVersion() -> int:
    """Not supported: raises gvusb.UnsupportedError."""
    return check(_library.library().get_drv_version())

"""The codes of the library, and an exception class for each family of them."""

from __future__ import annotations

import builtins
import enum
import errno
from typing import Any, Dict, Optional, Tuple, Type, Union

from . import _library


class ErrorCode(enum.IntEnum):
    """The codes of gvusb.h. Their names lack the prefix: ErrorCode.TIMEOUT is GVUSB_ERR_TIMEOUT."""

    EMPTY_DEVICE_LIST = -1100
    EMPTY_SCAN_LIST = -1101
    NULL_POINTER = -1102
    NO_MEMORY = -1103
    SET_CONFIGURATION = -1104
    KERNEL_FUNCTION = -1105
    UNSUPPORTED_OPTION = -1106
    UNSUPPORTED_METHOD = -1107
    NO_CONFIGURATION = -1108
    LIBUSB_API = -1109
    NO_GAVO_DEVICE = -1110
    SEARCH_MISMATCH = -1111
    NO_DEVICE_FOUND = -1112
    ALREADY_SCANNED = -1113
    SCAN_LIST_OVERFLOW = -1114
    NO_CURRENT_ENTRY = -1115
    UNKNOWN_DEVICE_HANDLE = -1120
    NULL_HANDLE = -1121
    NEGATIVE_HANDLE = -1122
    HANDLE_NOT_FOUND = -1123
    TIMEOUT = -1130
    NO_SEND_DATA = -1131
    UNKNOWN_INTERFACE = -1132
    UNKNOWN_DIRECTION = -1133
    RECEIVE_BUFFER_TOO_SMALL = -1134
    SEND_LENGTH = -1135
    UNKNOWN_DESCRIPTOR = -1136
    NOT_PRESENT = -1137
    TRANSMIT_PROCESS = -1138
    BULK_TRANSFER = -1139
    NOT_SCANNED = -1140
    NOT_IN_SCAN_LIST = -1141
    DEVICE_LIST_HANDLE = -1142
    CANNOT_OPEN = -1143
    NOT_OPENED = -1144
    CANNOT_CLAIM = -1145
    WRONG_DEVICE = -1146
    UNKNOWN_PARAMETER = -1150
    OUT_OF_RANGE = -1151
    ODD_PARAMETER = -1152
    INDEX_OUT_OF_RANGE = -1153
    UNKNOWN_SCAN_OPTION = -1154
    UNKNOWN_ERROR_CODE = -1155
    PARAMETER_SYNTAX = -1156
    PARAMETER_NOT_AVAILABLE = -1157
    DEVICE_DESCRIPTOR_LENGTH = -1160
    CONFIG_DESCRIPTOR_LENGTH = -1161
    INTERFACE_DESCRIPTOR_LENGTH = -1162
    ENDPOINT_DESCRIPTOR_LENGTH = -1163
    HID_DESCRIPTOR_LENGTH = -1164
    STRING_DESCRIPTOR_LENGTH = -1165
    DEVICE_DESCRIPTOR_READ = -1166
    CONFIG_DESCRIPTOR_READ = -1167
    STRING_DESCRIPTOR_READ = -1168
    TOO_MANY_INTERFACES = -1170
    TOO_MANY_ENDPOINTS = -1171
    TOO_MANY_STRINGS = -1172
    CONTROL_TRANSFER = -1180
    INTERNAL = -1199
    NO_SCAN_LIST_ENTRY = 1115
    """GVUSB_NO_SCAN_LIST_ENTRY, which is positive, unlike every other failure."""


def text_of(code: int) -> str:
    """The library's text for a code, such as "GVUSB: (-1130) timeout"."""
    loaded = _library.loaded()
    try:
        if loaded is not None:
            return loaded.text_of(code)
    except _library.ProcessError:
        pass  # an unknown code, whose text only the library could make
    return f"GVUSB: ({int(code)}) {name_of(code)}"


def name_of(code: int) -> str:
    """The name of a code in gvusb.h, such as "GVUSB_ERR_TIMEOUT"; the number for a code without a name."""
    try:
        name = ErrorCode(code).name
    except ValueError:
        return str(int(code))
    return ("GVUSB_" if code > 0 else "GVUSB_ERR_") + name


class Error(Exception):
    """A failed call. Each family of codes has a class of its own, made from this one."""

    code: Union[ErrorCode, int]
    """The code: a member of ErrorCode, which equals its number."""
    text: str
    """The library's text for the code."""

    _errno = errno.EIO

    def __init__(self, code: int) -> None:
        try:
            self.code = ErrorCode(code)
        except ValueError:
            self.code = code
        self.text = text_of(code)
        if isinstance(self, OSError):
            OSError.__init__(self, self._errno, self.text)
        else:
            super().__init__(self.text)

    @property
    def name(self) -> str:
        """The name of the code in gvusb.h, such as "GVUSB_ERR_TIMEOUT"."""
        return name_of(self.code)

    def __str__(self) -> str:
        return self.text

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self.name})"

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (int(self.code),)


class TimeoutError(Error, builtins.TimeoutError):  # noqa: A001
    """Sending or receiving took too long. The next exchange may receive the late answer."""

    _errno = errno.ETIMEDOUT


class NotPresentError(Error, OSError):
    """The reader was unplugged."""

    _errno = errno.ENODEV


class TransferError(Error, OSError):
    """A transfer failed, or the reader refused a request."""


class DescriptorError(Error, OSError):
    """The reader's configuration could not be set, or one of its descriptors could not be read."""


class PermissionError(Error, builtins.PermissionError):  # noqa: A001
    """libusb refused to open the reader, mostly for lack of permission. `gvusb doctor` finds the reason."""

    _errno = errno.EACCES


class BusyError(Error, OSError):
    """Another program or driver uses the reader."""

    _errno = errno.EBUSY


class NotFoundError(Error, LookupError):
    """No such reader was found."""


class IndexError(NotFoundError, builtins.IndexError):  # noqa: A001
    """The scan list has no such entry. Only functions of gvusb.lowlevel raise it."""


class NotOpenError(Error, ValueError):
    """The reader is closed, or a handle is not that of an open reader."""


class ParameterError(Error, ValueError):
    """An argument, a parameter or its value is not accepted."""


class UnsupportedError(Error, NotImplementedError):
    """The library does not support this. Only functions of gvusb.lowlevel raise it."""


class MemoryError(Error, builtins.MemoryError):  # noqa: A001
    """The library ran out of memory."""


class InternalError(Error, RuntimeError):
    """The library contradicts itself, or has ended."""


_Class = Type[Error]
_CLASSES: Dict[_Class, Tuple[ErrorCode, ...]] = {
    TimeoutError: (ErrorCode.TIMEOUT,),
    NotPresentError: (ErrorCode.NOT_PRESENT,),
    TransferError: (
        ErrorCode.TRANSMIT_PROCESS,
        ErrorCode.BULK_TRANSFER,
        ErrorCode.CONTROL_TRANSFER,
        ErrorCode.PARAMETER_NOT_AVAILABLE,
    ),
    DescriptorError: (
        ErrorCode.SET_CONFIGURATION,
        ErrorCode.NO_CONFIGURATION,
        ErrorCode.UNKNOWN_DESCRIPTOR,
        ErrorCode.DEVICE_DESCRIPTOR_LENGTH,
        ErrorCode.CONFIG_DESCRIPTOR_LENGTH,
        ErrorCode.INTERFACE_DESCRIPTOR_LENGTH,
        ErrorCode.ENDPOINT_DESCRIPTOR_LENGTH,
        ErrorCode.HID_DESCRIPTOR_LENGTH,
        ErrorCode.STRING_DESCRIPTOR_LENGTH,
        ErrorCode.DEVICE_DESCRIPTOR_READ,
        ErrorCode.CONFIG_DESCRIPTOR_READ,
        ErrorCode.STRING_DESCRIPTOR_READ,
        ErrorCode.TOO_MANY_INTERFACES,
        ErrorCode.TOO_MANY_ENDPOINTS,
        ErrorCode.TOO_MANY_STRINGS,
    ),
    PermissionError: (ErrorCode.CANNOT_OPEN,),
    BusyError: (ErrorCode.CANNOT_CLAIM,),
    NotFoundError: (
        ErrorCode.EMPTY_DEVICE_LIST,
        ErrorCode.EMPTY_SCAN_LIST,
        ErrorCode.NO_GAVO_DEVICE,
        ErrorCode.SEARCH_MISMATCH,
        ErrorCode.NO_DEVICE_FOUND,
        ErrorCode.NO_CURRENT_ENTRY,
        ErrorCode.NOT_SCANNED,
        ErrorCode.NOT_IN_SCAN_LIST,
        ErrorCode.WRONG_DEVICE,
    ),
    IndexError: (ErrorCode.INDEX_OUT_OF_RANGE, ErrorCode.NO_SCAN_LIST_ENTRY),
    NotOpenError: (
        ErrorCode.UNKNOWN_DEVICE_HANDLE,
        ErrorCode.NULL_HANDLE,
        ErrorCode.NEGATIVE_HANDLE,
        ErrorCode.HANDLE_NOT_FOUND,
        ErrorCode.DEVICE_LIST_HANDLE,
        ErrorCode.NOT_OPENED,
    ),
    ParameterError: (
        ErrorCode.NULL_POINTER,
        ErrorCode.NO_SEND_DATA,
        ErrorCode.UNKNOWN_INTERFACE,
        ErrorCode.UNKNOWN_DIRECTION,
        ErrorCode.RECEIVE_BUFFER_TOO_SMALL,
        ErrorCode.SEND_LENGTH,
        ErrorCode.UNKNOWN_PARAMETER,
        ErrorCode.OUT_OF_RANGE,
        ErrorCode.ODD_PARAMETER,
        ErrorCode.UNKNOWN_SCAN_OPTION,
        ErrorCode.PARAMETER_SYNTAX,
    ),
    UnsupportedError: (ErrorCode.UNSUPPORTED_OPTION, ErrorCode.UNSUPPORTED_METHOD),
    MemoryError: (ErrorCode.NO_MEMORY,),
    InternalError: (
        ErrorCode.KERNEL_FUNCTION,
        ErrorCode.LIBUSB_API,
        ErrorCode.ALREADY_SCANNED,
        ErrorCode.SCAN_LIST_OVERFLOW,
        ErrorCode.UNKNOWN_ERROR_CODE,
        ErrorCode.INTERNAL,
    ),
}
_class_of = {int(code): class_ for class_, codes in _CLASSES.items() for code in codes}

_library.on_load.append(lambda loaded: loaded.remember_texts([int(code) for code in ErrorCode]))


def error_of(code: int) -> Error:
    """The exception for a code, of the class of its family; Error for an unknown code."""
    return _class_of.get(code, Error)(code)


def check(result: int) -> int:
    """Raise the exception for a code, or return what is not a code."""
    if result < 0:
        raise error_of(result)
    return result


def number_in(value: int, least: int, most: int, what: str) -> int:
    """A number that fits into an argument of a C function, which would take the rest of its bits otherwise."""
    if not least <= value <= most:
        raise OverflowError(f"{what} is {value}; it must be from {least} to {most}")
    return value


def as_text(key: Optional[str]) -> Optional[bytes]:
    """A text for an argument of a C function."""
    if key is None:
        return None
    text = key.encode("latin-1", "replace")
    if b"\0" in text:
        raise ValueError("a text contains a zero")
    return text

"""USB RFID readers from Python: the functions of libgvusb.so.7 and the constants of gvusb.h, under the same names.

Functions return what the C functions return, except that a negative code raises GvusbError. What the C
functions write into a buffer is returned: GVUSB_GetDevicePara returns the value, GVUSB_Receive the bytes.

    import gvusb
    handle = gvusb.GVUSB_ScanAndOpen(gvusb.GVUSB_SCAN_FIRST)
    print(gvusb.GVUSB_Transceive(handle, bytes.fromhex("02 00 07 FF 01")).hex())
    gvusb.GVUSB_CloseDevice(handle)

Every function may be called from any thread. The environment variable GVUSB_LIBRARY names a file to load
instead of the installed libgvusb.so.7.
"""

import ctypes
import os

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


class GVUSB_SCANSEARCH(ctypes.Structure):
    """What a scan searches for: a GVUSB_SEARCH_... constant as the mask, and the text for it, as bytes."""

    _fields_ = [
        ("mask", ctypes.c_int32),
        ("famName", ctypes.c_char * 25),
        ("devName", ctypes.c_char * 50),
        ("devId", ctypes.c_char * 25),
    ]


_Callback = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_uint, ctypes.c_char_p)


class GVUSB_EVENT_INIT(ctypes.Structure):
    """An event handler: GVUSB_EVENT_INIT.of(GVUSB_EVENT_CONNECT, function(handle, device_id, text)).

    The function runs in a thread of the library. Keep a reference to the record while it is registered.
    """

    _fields_ = [
        ("uiEvent", ctypes.c_uint32),
        ("uiReserved1", ctypes.c_uint32),
        ("uiCallbackType", ctypes.c_uint32),
        ("uiReserved2", ctypes.c_uint32),
        ("cbFct", _Callback),
    ]

    @classmethod
    def of(cls, event, function):
        return cls(event, 0, GVUSB_CALLBACK_FUNCTION, 0, _Callback(function))


class GvusbError(Exception):
    """A failed call, with the code that it returned and the library's text for it."""

    def __init__(self, code):
        super().__init__(GVUSB_GetErrorText(code))
        self.code = code


_library = ctypes.CDLL(os.environ.get("GVUSB_LIBRARY", "libgvusb.so.7"))


def _declare(name, *arguments, result=ctypes.c_int):
    function = getattr(_library, name)
    function.argtypes = arguments
    function.restype = result
    return function


_int, _uint, _text = ctypes.c_int, ctypes.c_uint, ctypes.c_char_p
_search, _event = ctypes.POINTER(GVUSB_SCANSEARCH), ctypes.POINTER(GVUSB_EVENT_INIT)

_scan = _declare("GVUSB_Scan", _int, _search)
_scan_and_open = _declare("GVUSB_ScanAndOpen", _int, _search)
_get_scan_list_para = _declare("GVUSB_GetScanListPara", _int, _text, _text)
_get_scan_list_size = _declare("GVUSB_GetScanListSize")
_clear_scan_list = _declare("GVUSB_ClearScanList")
_open_device = _declare("GVUSB_OpenDevice", _uint)
_close_device = _declare("GVUSB_CloseDevice", _int)
_is_device_present = _declare("GVUSB_IsDevicePresent", _int)
_get_device_list = _declare("GVUSB_GetDeviceList", _int)
_get_device_hnd = _declare("GVUSB_GetDeviceHnd", _uint)
_transceive = _declare("GVUSB_Transceive", _int, _text, _int, _text, _uint, _text, _uint)
_transmit = _declare("GVUSB_Transmit", _int, _text, _text, _uint)
_receive = _declare("GVUSB_Receive", _int, _text, _text, _uint)
_get_device_para = _declare("GVUSB_GetDevicePara", _int, _text, _text)
_set_device_para = _declare("GVUSB_SetDevicePara", _int, _text, _text)
_add_event_handler = _declare("GVUSB_AddEventHandler", _int, _event)
_del_event_handler = _declare("GVUSB_DelEventHandler", _int, _event)
_get_last_error = _declare("GVUSB_GetLastError", _int, ctypes.POINTER(_int), _text)
_get_error_text = _declare("GVUSB_GetErrorText", _int, _text)
_get_dll_version = _declare("GVUSB_GetDLLVersion", result=_text)
_get_drv_version = _declare("GVUSB_GetDrvVersion")


def _check(result):
    if result < 0:
        raise GvusbError(result)
    return result


def GVUSB_Scan(scan_option, search=None):
    return _check(_scan(scan_option, search))


def GVUSB_ScanAndOpen(scan_option, search=None):
    return _check(_scan_and_open(scan_option, search))


def GVUSB_GetScanListPara(index, key):
    value = ctypes.create_string_buffer(GVUSB_PARAMETER_SIZE)
    if _check(_get_scan_list_para(index, key.encode(), value)) == GVUSB_NO_SCAN_LIST_ENTRY:
        raise IndexError(f"the scan list has no entry {index}")
    return value.value.decode("latin-1")


def GVUSB_GetScanListSize():
    return _get_scan_list_size()


def GVUSB_ClearScanList():
    return _check(_clear_scan_list())


def GVUSB_OpenDevice(device_id):
    return _check(_open_device(device_id))


def GVUSB_CloseDevice(handle):
    return _check(_close_device(handle))


def GVUSB_IsDevicePresent(handle):
    return bool(_check(_is_device_present(handle)))


def GVUSB_GetDeviceList(handle):
    return _get_device_list(handle)


def GVUSB_GetDeviceHnd(device_id):
    return _check(_get_device_hnd(device_id))


def GVUSB_Transceive(handle, frame, size=4096, interface_name=GVUSB_PROTOCOL):
    """Send a frame and return the answer, which may have up to `size` bytes."""
    answer = ctypes.create_string_buffer(size)
    name = interface_name.encode()
    count = _check(_transceive(handle, name, 0, frame, len(frame), answer, size))
    return answer.raw[:count]


def GVUSB_Transmit(handle, frame, interface_name=GVUSB_PROTOCOL):
    return _check(_transmit(handle, interface_name.encode(), frame, len(frame)))


def GVUSB_Receive(handle, size=4096, interface_name=GVUSB_PROTOCOL):
    answer = ctypes.create_string_buffer(size)
    count = _check(_receive(handle, interface_name.encode(), answer, size))
    return answer.raw[:count]


def GVUSB_GetDevicePara(handle, key):
    value = ctypes.create_string_buffer(GVUSB_PARAMETER_SIZE)
    _check(_get_device_para(handle, key.encode(), value))
    return value.value.decode("latin-1")


def GVUSB_SetDevicePara(handle, key, value):
    return _check(_set_device_para(handle, key.encode(), str(value).encode()))


def GVUSB_AddEventHandler(handle, registration):
    return _check(_add_event_handler(handle, registration))


def GVUSB_DelEventHandler(handle, registration):
    return _check(_del_event_handler(handle, registration))


def GVUSB_GetLastError(handle):
    """Return the last error as (code, text)."""
    code = ctypes.c_int()
    text = ctypes.create_string_buffer(GVUSB_TEXT_SIZE)
    _get_last_error(handle, ctypes.byref(code), text)
    return code.value, text.value.decode()


def GVUSB_GetErrorText(code):
    text = ctypes.create_string_buffer(GVUSB_TEXT_SIZE)
    _get_error_text(code, text)
    return text.value.decode()


def GVUSB_GetDLLVersion():
    return _get_dll_version().decode()


def GVUSB_GetDrvVersion():
    return _check(_get_drv_version())

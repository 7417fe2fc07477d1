#include "api/error_text.h"

#include "base/relaxed.h"
#include "gvusb.h"
#include "manager/gvdrvhnd.h"

#include <cstdio>

char g_cGvusbErrorText[256] = {};

// Applications compare these texts, so wording, spelling and capitals must not change.
const char* GvUsbErrorText::getErrorText(int code) {
    switch (code) {
    case GVUSB_OK:
        return "GVUSB: OK";
    case GVUSB_ERR_EMPTY_DEVICE_LIST:
        return "GVUSB: (-1100) empty device list";
    case GVUSB_ERR_EMPTY_SCAN_LIST:
        return "GVUSB: (-1101) empty scan list";
    case GVUSB_ERR_NULL_POINTER:
        return "GVUSB: (-1102) pointer is NULL";
    case GVUSB_ERR_NO_MEMORY:
        return "GVUSB: (-1103) no more memory";
    case GVUSB_ERR_SET_CONFIGURATION:
        return "GVUSB: (-1104) The USB configuration could not be set";
    case GVUSB_ERR_KERNEL_FUNCTION:
        return "GVUSB: (-1105) Error in Kernel-Function";
    case GVUSB_ERR_UNSUPPORTED_OPTION:
        return "GVUSB: (-1106) unsupported option";
    case GVUSB_ERR_UNSUPPORTED_METHOD:
        return "GVUSB: (-1107) unsupported method";
    case GVUSB_ERR_NO_CONFIGURATION:
        return "GVUSB: (-1108) device has no configuration";
    case GVUSB_ERR_LIBUSB_API:
        return "GVUSB: (-1109) libUSB-API not available";
    case GVUSB_ERR_NO_GAVO_DEVICE:
        return "GVUSB: (-1110) no gavo device";
    case GVUSB_ERR_SEARCH_MISMATCH:
        return "GVUSB: (-1111) search mismatch";
    case GVUSB_ERR_NO_DEVICE_FOUND:
        return "GVUSB: (-1112) no device found";
    case GVUSB_ERR_ALREADY_SCANNED:
        return "GVUSB: (-1113) device is already scanned";
    case GVUSB_ERR_SCAN_LIST_OVERFLOW:
        return "GVUSB: (-1114) scanlist overflow";
    case GVUSB_ERR_UNKNOWN_DEVICE_HANDLE:
        return "GVUSB: (-1120) unknown device handle";
    case GVUSB_ERR_NULL_HANDLE:
        return "GVUSB: (-1121) device handle is null";
    case GVUSB_ERR_NEGATIVE_HANDLE:
        return "GVUSB: (-1122) device handle is negative";
    case GVUSB_ERR_HANDLE_NOT_FOUND:
        return "GVUSB: (-1123) no device handle found";
    case GVUSB_ERR_TIMEOUT:
        return "GVUSB: (-1130) timeout";
    case GVUSB_ERR_NO_SEND_DATA:
        return "GVUSB: (-1131) no send data";
    case GVUSB_ERR_UNKNOWN_INTERFACE:
        return "GVUSB: (-1132) unknown interface";
    case GVUSB_ERR_UNKNOWN_DIRECTION:
        return "GVUSB: (-1133) unknown direction";
    case GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL:
        return "GVUSB: (-1134) receive buffer is too small";
    case GVUSB_ERR_SEND_LENGTH:
        return "GVUSB: (-1135) send data length is fault";
    case GVUSB_ERR_UNKNOWN_DESCRIPTOR:
        return "GVUSB: (-1136) unknown descriptor type";
    case GVUSB_ERR_NOT_PRESENT:
        return "GVUSB: (-1137) device is not present";
    case GVUSB_ERR_TRANSMIT_PROCESS:
        return "GVUSB: (-1138) error in transmit process";
    case GVUSB_ERR_BULK_TRANSFER:
        return "GVUSB: (-1139) bulk transfer error";
    case GVUSB_ERR_NOT_SCANNED:
        return "GVUSB: (-1140) device not scanned";
    case GVUSB_ERR_NOT_IN_SCAN_LIST:
        return "GVUSB: (-1141) device is not in scanlist";
    case GVUSB_ERR_DEVICE_LIST_HANDLE:
        return "GVUSB: (-1142) device list handle is null";
    case GVUSB_ERR_CANNOT_OPEN:
        return "GVUSB: (-1143) device cannot be opened";
    case GVUSB_ERR_NOT_OPENED:
        return "GVUSB: (-1144) device is not opened";
    case GVUSB_ERR_CANNOT_CLAIM:
        return "GVUSB: (-1145) interface cannot be claimed";
    case GVUSB_ERR_WRONG_DEVICE:
        return "GVUSB: (-1146) wrong device, another device was expected";
    case GVUSB_ERR_UNKNOWN_PARAMETER:
        return "GVUSB: (-1150) unknown parameter";
    case GVUSB_ERR_OUT_OF_RANGE:
        return "GVUSB: (-1151) parameter out of range";
    case GVUSB_ERR_ODD_PARAMETER:
        return "GVUSB: (-1152) odd parameter string";
    case GVUSB_ERR_INDEX_OUT_OF_RANGE:
        return "GVUSB: (-1153) index out of range";
    case GVUSB_ERR_UNKNOWN_SCAN_OPTION:
        return "GVUSB: (-1154) unknown scan option";
    case GVUSB_ERR_UNKNOWN_ERROR_CODE:
        return "GVUSB: (-1155) unknown error code";
    case GVUSB_ERR_PARAMETER_SYNTAX:
        return "GVUSB: (-1156) parameter syntax error";
    case GVUSB_ERR_PARAMETER_NOT_AVAILABLE:
        return "GVUSB: (-1157) parameter not available";
    case GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1160) device descriptor length is fault";
    case GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1161) configuration descriptor length is fault";
    case GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1162) interface descriptor length is fault";
    case GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1163) endpoint descriptor length is fault";
    case GVUSB_ERR_HID_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1164) HID descriptor length is fault";
    case GVUSB_ERR_STRING_DESCRIPTOR_LENGTH:
        return "GVUSB: (-1165) string descriptor length is fault";
    case GVUSB_ERR_DEVICE_DESCRIPTOR_READ:
        return "GVUSB: (-1166) device descriptor read error";
    case GVUSB_ERR_CONFIG_DESCRIPTOR_READ:
        return "GVUSB: (-1167) configuration descriptor read error";
    case GVUSB_ERR_STRING_DESCRIPTOR_READ:
        return "GVUSB: (-1168) string descriptor read error";
    case GVUSB_ERR_TOO_MANY_INTERFACES:
        return "GVUSB: (-1170) device has to much interfaces";
    case GVUSB_ERR_TOO_MANY_ENDPOINTS:
        return "GVUSB: (-1171) device has to much endpoints";
    case GVUSB_ERR_TOO_MANY_STRINGS:
        return "GVUSB: (-1172) device has to much strings";
    case GVUSB_ERR_CONTROL_TRANSFER:
        return "GVUSB: (-1180) control transfer error";
    case GVUSB_ERR_INTERNAL:
        return "GVUSB: (-1199) Internal error";
    default:
        return nullptr;
    }
}

UnknownErrorText::UnknownErrorText(int code) noexcept {
    std::snprintf(text, sizeof text, "GVUSB: Unknown Error: 0x%X (%d)", static_cast<unsigned int>(code),
                  code);
    relaxed::storeText(g_cGvusbErrorText, text);
    g_GvUsbMan.SetLastError(GVUSB_ERR_UNKNOWN_ERROR_CODE);
}

const char* GvusbGetErrorText(int code) {
    if (const char* known = GvUsbErrorText::getErrorText(code)) {
        return known;
    }
    const UnknownErrorText unknown(code);
    return g_cGvusbErrorText;
}

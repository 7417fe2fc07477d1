#include "api/error_text.h"

#include "base/relaxed.h"
#include "gvusb.h"
#include "manager/gvdrvhnd.h"

#include <cstdio>

char g_cGvusbErrorText[256] = {};

namespace {

struct ErrorText {
    int code;
    const char* text;
};

// Applications compare these texts, so wording, spelling and capitals must not change.
constexpr ErrorText errorTexts[] = {
    {GVUSB_OK, "GVUSB: OK"},
    {GVUSB_ERR_EMPTY_DEVICE_LIST, "GVUSB: (-1100) empty device list"},
    {GVUSB_ERR_EMPTY_SCAN_LIST, "GVUSB: (-1101) empty scan list"},
    {GVUSB_ERR_NULL_POINTER, "GVUSB: (-1102) pointer is NULL"},
    {GVUSB_ERR_NO_MEMORY, "GVUSB: (-1103) no more memory"},
    {GVUSB_ERR_SET_CONFIGURATION, "GVUSB: (-1104) The USB configuration could not be set"},
    {GVUSB_ERR_KERNEL_FUNCTION, "GVUSB: (-1105) Error in Kernel-Function"},
    {GVUSB_ERR_UNSUPPORTED_OPTION, "GVUSB: (-1106) unsupported option"},
    {GVUSB_ERR_UNSUPPORTED_METHOD, "GVUSB: (-1107) unsupported method"},
    {GVUSB_ERR_NO_CONFIGURATION, "GVUSB: (-1108) device has no configuration"},
    {GVUSB_ERR_LIBUSB_API, "GVUSB: (-1109) libUSB-API not available"},
    {GVUSB_ERR_NO_GAVO_DEVICE, "GVUSB: (-1110) no gavo device"},
    {GVUSB_ERR_SEARCH_MISMATCH, "GVUSB: (-1111) search mismatch"},
    {GVUSB_ERR_NO_DEVICE_FOUND, "GVUSB: (-1112) no device found"},
    {GVUSB_ERR_ALREADY_SCANNED, "GVUSB: (-1113) device is already scanned"},
    {GVUSB_ERR_SCAN_LIST_OVERFLOW, "GVUSB: (-1114) scanlist overflow"},
    {GVUSB_ERR_UNKNOWN_DEVICE_HANDLE, "GVUSB: (-1120) unknown device handle"},
    {GVUSB_ERR_NULL_HANDLE, "GVUSB: (-1121) device handle is null"},
    {GVUSB_ERR_NEGATIVE_HANDLE, "GVUSB: (-1122) device handle is negative"},
    {GVUSB_ERR_HANDLE_NOT_FOUND, "GVUSB: (-1123) no device handle found"},
    {GVUSB_ERR_TIMEOUT, "GVUSB: (-1130) timeout"},
    {GVUSB_ERR_NO_SEND_DATA, "GVUSB: (-1131) no send data"},
    {GVUSB_ERR_UNKNOWN_INTERFACE, "GVUSB: (-1132) unknown interface"},
    {GVUSB_ERR_UNKNOWN_DIRECTION, "GVUSB: (-1133) unknown direction"},
    {GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL, "GVUSB: (-1134) receive buffer is too small"},
    {GVUSB_ERR_SEND_LENGTH, "GVUSB: (-1135) send data length is fault"},
    {GVUSB_ERR_UNKNOWN_DESCRIPTOR, "GVUSB: (-1136) unknown descriptor type"},
    {GVUSB_ERR_NOT_PRESENT, "GVUSB: (-1137) device is not present"},
    {GVUSB_ERR_TRANSMIT_PROCESS, "GVUSB: (-1138) error in transmit process"},
    {GVUSB_ERR_BULK_TRANSFER, "GVUSB: (-1139) bulk transfer error"},
    {GVUSB_ERR_NOT_SCANNED, "GVUSB: (-1140) device not scanned"},
    {GVUSB_ERR_NOT_IN_SCAN_LIST, "GVUSB: (-1141) device is not in scanlist"},
    {GVUSB_ERR_DEVICE_LIST_HANDLE, "GVUSB: (-1142) device list handle is null"},
    {GVUSB_ERR_CANNOT_OPEN, "GVUSB: (-1143) device cannot be opened"},
    {GVUSB_ERR_NOT_OPENED, "GVUSB: (-1144) device is not opened"},
    {GVUSB_ERR_CANNOT_CLAIM, "GVUSB: (-1145) interface cannot be claimed"},
    {GVUSB_ERR_WRONG_DEVICE, "GVUSB: (-1146) wrong device, another device was expected"},
    {GVUSB_ERR_UNKNOWN_PARAMETER, "GVUSB: (-1150) unknown parameter"},
    {GVUSB_ERR_OUT_OF_RANGE, "GVUSB: (-1151) parameter out of range"},
    {GVUSB_ERR_ODD_PARAMETER, "GVUSB: (-1152) odd parameter string"},
    {GVUSB_ERR_INDEX_OUT_OF_RANGE, "GVUSB: (-1153) index out of range"},
    {GVUSB_ERR_UNKNOWN_SCAN_OPTION, "GVUSB: (-1154) unknown scan option"},
    {GVUSB_ERR_UNKNOWN_ERROR_CODE, "GVUSB: (-1155) unknown error code"},
    {GVUSB_ERR_PARAMETER_SYNTAX, "GVUSB: (-1156) parameter syntax error"},
    {GVUSB_ERR_PARAMETER_NOT_AVAILABLE, "GVUSB: (-1157) parameter not available"},
    {GVUSB_ERR_DEVICE_DESCRIPTOR_LENGTH, "GVUSB: (-1160) device descriptor length is fault"},
    {GVUSB_ERR_CONFIG_DESCRIPTOR_LENGTH, "GVUSB: (-1161) configuration descriptor length is fault"},
    {GVUSB_ERR_INTERFACE_DESCRIPTOR_LENGTH, "GVUSB: (-1162) interface descriptor length is fault"},
    {GVUSB_ERR_ENDPOINT_DESCRIPTOR_LENGTH, "GVUSB: (-1163) endpoint descriptor length is fault"},
    {GVUSB_ERR_HID_DESCRIPTOR_LENGTH, "GVUSB: (-1164) HID descriptor length is fault"},
    {GVUSB_ERR_STRING_DESCRIPTOR_LENGTH, "GVUSB: (-1165) string descriptor length is fault"},
    {GVUSB_ERR_DEVICE_DESCRIPTOR_READ, "GVUSB: (-1166) device descriptor read error"},
    {GVUSB_ERR_CONFIG_DESCRIPTOR_READ, "GVUSB: (-1167) configuration descriptor read error"},
    {GVUSB_ERR_STRING_DESCRIPTOR_READ, "GVUSB: (-1168) string descriptor read error"},
    {GVUSB_ERR_TOO_MANY_INTERFACES, "GVUSB: (-1170) device has to much interfaces"},
    {GVUSB_ERR_TOO_MANY_ENDPOINTS, "GVUSB: (-1171) device has to much endpoints"},
    {GVUSB_ERR_TOO_MANY_STRINGS, "GVUSB: (-1172) device has to much strings"},
    {GVUSB_ERR_CONTROL_TRANSFER, "GVUSB: (-1180) control transfer error"},
    {GVUSB_ERR_INTERNAL, "GVUSB: (-1199) Internal error"},
};

} // namespace

const char* GvUsbErrorText::getErrorText(int code) {
    for (const ErrorText& known : errorTexts) {
        if (known.code == code) {
            return known.text;
        }
    }
    return nullptr;
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

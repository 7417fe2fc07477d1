#include "recorder/call_texts.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

namespace recorder {

namespace {

constexpr std::array<std::string_view, recording_functions> names = {
    "GVUSB_Scan",           "GVUSB_ScanAndOpen",   "GVUSB_GetScanListPara", "GVUSB_GetScanListSize",
    "GVUSB_ClearScanList",  "GVUSB_OpenDevice",    "GVUSB_CloseDevice",     "GVUSB_IsDevicePresent",
    "GVUSB_GetDeviceList",  "GVUSB_GetDeviceHnd",  "GVUSB_Transceive",      "GVUSB_Transmit",
    "GVUSB_Receive",        "GVUSB_GetDevicePara", "GVUSB_SetDevicePara",   "GVUSB_AddEventHandler",
    "GVUSB_DelEventHandler"};

std::string_view nameOf(const recording_entry& entry) {
    const auto index = static_cast<std::size_t>(entry.numbers[0]);
    if (index >= names.size()) {
        return "unknown";
    }
    return names[index];
}

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

std::string hexadecimal(std::int32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%X", static_cast<unsigned>(number));
    return text.data();
}

std::string bytes(std::int32_t number) {
    return std::to_string(static_cast<unsigned>(number)) + " bytes";
}

std::string argumentsOf(const recording_entry& entry, std::string_view text) {
    std::string first = std::to_string(entry.numbers[1]);
    switch (entry.numbers[0]) {
    case recording_scan:
    case recording_scan_and_open:
        return first + ", mask " + hexadecimal(entry.numbers[2]);
    case recording_get_scan_list_para:
    case recording_get_device_para:
        return first + ", " + quoted(text);
    case recording_set_device_para: {
        const auto equals = text.find('=');
        return equals == std::string_view::npos
                   ? first
                   : first + ", " + quoted(text.substr(0, equals)) + ", " + quoted(text.substr(equals + 1));
    }
    case recording_get_scan_list_size:
    case recording_clear_scan_list:
        return "";
    case recording_open_device:
    case recording_get_device_hnd:
        return hexadecimal(entry.numbers[1]);
    case recording_transceive:
        return first + ", " + quoted(text) + ", sends " + bytes(entry.numbers[2]) + ", room for " +
               bytes(entry.numbers[3]);
    case recording_transmit:
        return first + ", " + quoted(text) + ", sends " + bytes(entry.numbers[2]);
    case recording_receive:
        return first + ", " + quoted(text) + ", room for " + bytes(entry.numbers[2]);
    case recording_add_event_handler:
    case recording_del_event_handler:
        return first + ", event " + std::to_string(entry.numbers[2]);
    default:
        return first;
    }
}

} // namespace

capture::Json callRemark(const recording_entry& entry, std::string_view text) {
    return {{"type", "call"}, {"function", nameOf(entry)}, {"arguments", argumentsOf(entry, text)}};
}

capture::Json returnRemark(const recording_entry& entry, std::string_view text) {
    capture::Json value = {{"type", "return"}, {"function", nameOf(entry)}, {"result", entry.result}};
    if (!text.empty()) {
        value["value"] = std::string(text);
    }
    return value;
}

} // namespace recorder

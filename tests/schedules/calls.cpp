#include "calls.h"

#include "gvusb.h"
#include "manager/gvdrvhnd.h"
#include "scheduler.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace schedules {
namespace {

constexpr const char* notOpened = "-1144"; // GVUSB_ERR_NOT_OPENED

using Text = std::array<char, GVUSB_PARAMETER_SIZE>;

std::string with(int code, std::string_view text) {
    return std::to_string(code) + (code >= 0 ? " " + std::string(text) : "");
}

std::string handleOrCode(int result, const Targets& targets) {
    return result > 0 ? handleText(result, targets) : std::to_string(result);
}

std::string transceive(const Target& target, const Targets& /*targets*/) {
    const std::array<unsigned char, 3> frame = {static_cast<unsigned char>(target.devId), 2, 3};
    std::array<unsigned char, 16> answer = {};
    const int result = GVUSB_Transceive(target.handle, GVUSB_PROTOCOL, 0, frame.data(), frame.size(),
                                        answer.data(), answer.size());
    return result > 0 ? std::to_string(result) + " " + std::to_string(answer[0]) : std::to_string(result);
}

template <bool inSteps>
std::string transceiveTwice(const Target& target, const Targets& targets) {
    const std::string first = transceive(target, targets);
    if constexpr (inSteps) {
        pause();
    }
    return first + ", " + transceive(target, targets);
}

std::string transmit(const Target& target, const Targets& /*targets*/) {
    const std::array<unsigned char, 2> frame = {9, 9};
    return std::to_string(GVUSB_Transmit(target.handle, GVUSB_PROTOCOL, frame.data(), frame.size()));
}

std::string receive(const Target& target, const Targets& /*targets*/) {
    std::array<unsigned char, 16> answer = {};
    const int result = GVUSB_Receive(target.handle, GVUSB_PROTOCOL, answer.data(), answer.size());
    return result > 0 ? std::to_string(result) + " " + std::to_string(answer[0]) : std::to_string(result);
}

std::string scanAndOpenInSteps(const Target& /*target*/, const Targets& /*targets*/) {
    if (const int code = GVUSB_Scan(GVUSB_SCAN_ALL, nullptr); code < 0) {
        return std::to_string(code);
    }
    int lastFailure = GVUSB_OK;
    for (int i = 0; i < GVUSB_GetScanListSize(); ++i) {
        pause();
        if (const int code = g_GvUsbMan.OpenDevice(i); code < 0) {
            lastFailure = code;
        }
    }
    return std::to_string(lastFailure);
}

std::string get(const Target& target, const char* key) {
    Text value = {};
    return with(GVUSB_GetDevicePara(target.handle, key, value.data()), value.data());
}

std::string set(int handle, const char* key, const char* value) {
    return std::to_string(GVUSB_SetDevicePara(handle, key, value));
}

void ignoreEvent(int /*devHnd*/, unsigned /*devId*/, const char* /*text*/) {
}

GVUSB_EVENT_INIT registration() {
    return {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &ignoreEvent};
}

GVUSB_SCANSEARCH searchFor(unsigned devId) {
    GVUSB_SCANSEARCH search = {};
    search.mask = GVUSB_SEARCH_DEVICE_ID;
    std::snprintf(search.devId, sizeof search.devId, "%X", devId);
    return search;
}

} // namespace

std::string handleText(int handle, const Targets& targets) {
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (handle == targets[i].handle) {
            return "handle " + std::to_string(i + 1);
        }
    }
    return handle > 0 ? "new handle" : std::to_string(handle);
}

const std::vector<Call>& calls() {
    using T = const Target&;
    using All = const Targets&;
    static const std::vector<Call> all = {
        {.name = "Transceive", .run = transceive, .whenClosed = notOpened, .canBeEnded = true},
        {.name = "Transceive.twice",
         .run = transceiveTwice<false>,
         .whenClosed = notOpened,
         .runInSteps = transceiveTwice<true>,
         .canBeEnded = true,
         .isSeveralCalls = true},
        {.name = "Transmit", .run = transmit, .whenClosed = notOpened, .canBeEnded = true},
        {.name = "Receive", .run = receive, .whenClosed = notOpened, .canBeEnded = true},
        {"CloseDevice", [](T target, All) { return std::to_string(GVUSB_CloseDevice(target.handle)); }},
        {"OpenDevice",
         [](T target, All targets) { return handleOrCode(GVUSB_OpenDevice(target.devId), targets); }},
        {"OpenDevice.second",
         [](T, All targets) { return handleOrCode(GVUSB_OpenDevice(targets[1].devId), targets); }},
        {"Scan", [](T, All) { return std::to_string(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr)); }},
        {"Scan.first",
         [](T target, All) {
             GVUSB_SCANSEARCH search = searchFor(target.devId);
             return std::to_string(GVUSB_Scan(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search));
         }},
        {"Scan.next", [](T, All) { return std::to_string(GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr)); }},
        {"ScanAndOpen",
         [](T, All targets) { return handleOrCode(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), targets); },
         nullptr, scanAndOpenInSteps},
        {"ScanAndOpen.first",
         [](T target, All targets) {
             GVUSB_SCANSEARCH search = searchFor(target.devId);
             return handleOrCode(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search), targets);
         },
         nullptr,
         [](T target, All targets) {
             GVUSB_SCANSEARCH search = searchFor(target.devId);
             const int code = GVUSB_Scan(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search);
             pause();
             return handleOrCode(code < 0 ? code : g_GvUsbMan.OpenDevice(0), targets);
         }},
        {"ClearScanList", [](T, All) { return std::to_string(GVUSB_ClearScanList()); }},
        {"GetScanListSize", [](T, All) { return std::to_string(GVUSB_GetScanListSize()); }},
        {"GetScanListPara",
         [](T, All) {
             Text value = {};
             return with(GVUSB_GetScanListPara(0, "DEVICE-ID", value.data()), value.data());
         }},
        {"IsDevicePresent",
         [](T target, All) { return std::to_string(GVUSB_IsDevicePresent(target.handle)); }, "0"},
        {"GetDeviceList", [](T, All targets) { return handleOrCode(GVUSB_GetDeviceList(0), targets); }},
        {"GetDeviceHnd",
         [](T target, All targets) { return handleOrCode(GVUSB_GetDeviceHnd(target.devId), targets); }},
        {"GetDevicePara.TIMEOUT", [](T target, All) { return get(target, "TIMEOUT"); }},
        {"GetDevicePara.DEVICE-ID", [](T target, All) { return get(target, "DEVICE-ID"); }},
        {"SetDevicePara.TIMEOUT", [](T target, All) { return set(target.handle, "TIMEOUT", "77"); }},
        {"SetDevicePara.RESETDEVICE", [](T target, All) { return set(target.handle, "RESETDEVICE", ""); },
         notOpened},
        {"SetDevicePara.RESETPIPE", [](T target, All) { return set(target.handle, "RESETPIPE", ""); },
         notOpened},
        {.name = "SetDevicePara.CANCEL",
         .run = [](T target, All) { return set(target.handle, "CANCEL", ""); },
         .whenClosed = notOpened,
         .endsCalls = true},
        {"SetDevicePara.all", [](T, All) { return set(GVUSB_ALL_DEVICES, "TIMEOUT", "88"); }},
        {"GetLastError",
         [](T target, All) {
             int code = 0;
             std::array<char, GVUSB_TEXT_SIZE> text = {};
             return with(GVUSB_GetLastError(target.handle, &code, text.data()), std::to_string(code));
         }},
        {"GetErrorText",
         [](T, All) {
             std::array<char, GVUSB_TEXT_SIZE> text = {};
             return with(GVUSB_GetErrorText(GVUSB_ERR_HANDLE_NOT_FOUND, text.data()), text.data());
         }},
        {"GetDLLVersion", [](T, All) { return std::string(GVUSB_GetDLLVersion()); }},
        {"GetDrvVersion", [](T, All) { return std::to_string(GVUSB_GetDrvVersion()); }},
        {"AddEventHandler",
         [](T, All) {
             GVUSB_EVENT_INIT one = registration();
             return std::to_string(GVUSB_AddEventHandler(0, &one));
         }},
        {"DelEventHandler",
         [](T, All) {
             GVUSB_EVENT_INIT one = registration();
             return std::to_string(GVUSB_DelEventHandler(0, &one));
         }},
    };
    return all;
}

} // namespace schedules

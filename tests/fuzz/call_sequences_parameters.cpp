#include "call_sequences_parameters.h"

#include "call_sequences_attempt.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <strings.h>

namespace call_sequences {
namespace {

constexpr const char* tooLong =
    "TIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUT"
    "TIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUTTIMEOUT";

constexpr std::array<const char*, 17> readKeys = {
    "DEVICEHND",    "DEVICE-ID",          "device-id", "TIMEOUT",  "DEVICENAME", "FAMILYNAME",
    "INTERFACE",    "TYPENUMBER",         "RESETPIPE", "",         tooLong,      "DEVICE-ID ",
    "HOTPLUG-MODE", "HOTPLUG-UPDATERATE", nullptr,     "PARALLEL", "CANCEL"};

constexpr std::array<const char*, 13> writeKeys = {"TIMEOUT",
                                                   "timeout",
                                                   "RESETPIPE",
                                                   "ResetDevice",
                                                   "HOTPLUG-UPDATERATE",
                                                   "HOTPLUG-SUSPEND",
                                                   "DEVICEHND",
                                                   "HOTPLUG-MODE",
                                                   "",
                                                   tooLong,
                                                   nullptr,
                                                   "PARALLEL",
                                                   "CANCEL"};

constexpr std::array<const char*, 14> writeValues = {
    "1",  "0", "10",   "9", "250", "-1", "", "x", " 77 ms", "4294967296", "99999999999999999999",
    "+5", "2", nullptr};

constexpr std::array<const char*, 4> deviceTexts = {"TIMEOUT", "DEVICENAME", "FAMILYNAME", "INTERFACE"};

GVDevice* recordOf(int devHnd) {
    for (GVDevice* const record : manager_lists::deviceList()) {
        if (record != nullptr && record->devHnd == devHnd) {
            return record;
        }
    }
    return nullptr;
}

bool isKey(const char* key, const char* known) {
    return strcasecmp(key, known) == 0;
}

std::string formatted(const char* format, unsigned number) {
    char text[16];
    std::snprintf(text, sizeof text, format, number);
    return text;
}

void checkWriting(const Session& session, GVDevice& record, const char* key, int result) {
    const bool open = manager_lists::isOpen(record);
    if (isKey(key, "TIMEOUT")) {
        expect(result == 0 || result == GVUSB_ERR_OUT_OF_RANGE, "the result for the time-out");
    } else if (isKey(key, "RESETPIPE")) {
        expectEqual(result, open ? 0 : int{GVUSB_ERR_NOT_OPENED}, "the result for the endpoints");
    } else if (isKey(key, "CANCEL") && g_GvUsbMan.IsParallel()) {
        expectEqual(result, 0, "the result of ending calls");
    } else if (isKey(key, "RESETDEVICE")) {
        const Device* const device = session.bus.find(record.usbdev);
        const bool refused = result == GVUSB_ERR_PARAMETER_NOT_AVAILABLE;
        expect(open ? result == 0 || refused : result == GVUSB_ERR_NOT_OPENED, "the result of a reset");
        expect(!open || session.mayFail() || refused != device->plugged,
               "a reset succeeds or fails unexpectedly");
    } else {
        expectEqual(result, int{GVUSB_ERR_UNKNOWN_PARAMETER}, "the result for an unknown key");
    }
}

void checkDriverWriting(const char* key, int result) {
    const bool known =
        isKey(key, "HOTPLUG-UPDATERATE") || isKey(key, "HOTPLUG-SUSPEND") || isKey(key, "PARALLEL");
    expect(known ? result == 0 || result == GVUSB_ERR_OUT_OF_RANGE : result == GVUSB_ERR_UNKNOWN_PARAMETER,
           "the result for the driver's parameter");
}

// A call for all readers stops at the first one that fails and returns its code.
void checkWritingAll(const Session& session, const char* key, int result, int lastErrorBefore) {
    const manager_lists::Devices list = manager_lists::deviceList();
    GVDevice* last = nullptr;
    for (GVDevice* const record : list) {
        last = record != nullptr ? record : last;
        if (record != nullptr && relaxed::load(record->lastError) != 0) {
            break;
        }
    }
    if (last == nullptr) {
        expectEqual(result, lastErrorBefore, "the result without any reader");
    } else {
        checkWriting(session, *last, key, result);
    }
}

} // namespace

ReadKey::ReadKey(Input& input)
    : m_text(input.oneOf(readKeys)) {
}

ParameterValue::ParameterValue(Input& input)
    : m_buffer(input.number(16) == 15 ? nullptr : new char[GVUSB_PARAMETER_SIZE]()) {
}

void checkReading(const Session& session, GVDevice& record, const ReadKey& key, const ParameterValue& value,
                  int result) {
    const bool open = manager_lists::isOpen(record);
    const char* const text = key.text();
    if (isKey(text, "TYPENUMBER")) {
        expect(open ? result == 0 || result == GVUSB_ERR_STRING_DESCRIPTOR_READ
                    : result == GVUSB_ERR_NOT_OPENED,
               "the result for the type number");
        expect(!open || result != 0 || session.bus.find(record.usbdev)->plugged,
               "an unplugged reader returns its type number");
    } else if (isKey(text, "DEVICEHND")) {
        expectEqual(result, 0, "the result for the handle");
        const int devHnd = open ? record.devHnd : 0;
        expect(value.buffer() == std::to_string(devHnd), "the text of the handle is wrong");
    } else if (isKey(text, "DEVICE-ID")) {
        expectEqual(result, 0, "the result for the device ID");
        expect(value.buffer() == formatted("%X", record.devId), "the text of the device ID is wrong");
    } else if (std::ranges::any_of(deviceTexts, [&](const char* known) { return isKey(text, known); })) {
        expectEqual(result, 0, "the result for a text of the reader");
    } else {
        expectEqual(result, int{GVUSB_ERR_UNKNOWN_PARAMETER}, "the result for an unknown key");
    }
}

void getDevicePara(Session& session) {
    const int devHnd = chooseHandle(session);
    const ReadKey key(session.input);
    const ParameterValue value(session.input);
    const auto result =
        attempt(session, [&] { return GVUSB_GetDevicePara(devHnd, key.text(), value.buffer()); });
    if (!result) {
        return;
    }
    expectLastError(*result);
    if (devHnd < GVUSB_DRIVER) {
        expectEqual(*result, int{GVUSB_ERR_NEGATIVE_HANDLE}, "the result for a negative handle");
    } else if (key.text() == nullptr || value.buffer() == nullptr) {
        expectEqual(*result, int{GVUSB_ERR_NULL_POINTER}, "the result for a null pointer");
    } else if (devHnd == GVUSB_DRIVER) {
        const bool known = isKey(key.text(), "HOTPLUG-MODE") || isKey(key.text(), "PARALLEL");
        expectEqual(*result, known ? 0 : int{GVUSB_ERR_UNKNOWN_PARAMETER}, "the result of the driver");
        const char* const expected = !isKey(key.text(), "PARALLEL") ? "2"
                                     : g_GvUsbMan.IsParallel()      ? "1"
                                                                    : "0";
        expect(!known || std::strcmp(value.buffer(), expected) == 0, "the mode is wrong");
    } else if (devHnd == GVUSB_ALL_DEVICES && session.model.readers().empty()) {
        expectEqual(*result, int{GVUSB_ERR_EMPTY_DEVICE_LIST}, "the result without any reader");
    } else {
        GVDevice* const record =
            recordOf(devHnd == GVUSB_ALL_DEVICES ? session.model.readers().front().devHnd : devHnd);
        if (record == nullptr) {
            expectEqual(*result, int{GVUSB_ERR_HANDLE_NOT_FOUND}, "the result for an unknown handle");
        } else {
            checkReading(session, *record, key, value, *result);
        }
    }
}

void setDevicePara(Session& session) {
    const int devHnd = chooseHandle(session);
    const char* const key = session.input.oneOf(writeKeys);
    const char* const value = session.input.oneOf(writeValues);
    const int before = manager_lists::lastError();
    const auto result = attempt(session, [&] { return GVUSB_SetDevicePara(devHnd, key, value); });
    if (!result) {
        return;
    }
    expectLastError(*result);
    if (devHnd < GVUSB_DRIVER) {
        expectEqual(*result, int{GVUSB_ERR_NEGATIVE_HANDLE}, "the result for a negative handle");
    } else if (key == nullptr || value == nullptr) {
        expectEqual(*result, int{GVUSB_ERR_NULL_POINTER}, "the result for a null pointer");
    } else if (devHnd == GVUSB_DRIVER) {
        checkDriverWriting(key, *result);
    } else if (devHnd == GVUSB_ALL_DEVICES) {
        checkWritingAll(session, key, *result, before);
    } else if (GVDevice* const record = recordOf(devHnd)) {
        checkWriting(session, *record, key, *result);
    } else {
        expectEqual(*result, int{GVUSB_ERR_HANDLE_NOT_FOUND}, "the result for an unknown handle");
    }
}

} // namespace call_sequences

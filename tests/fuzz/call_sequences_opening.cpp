// Opening, closing and finding readers by handle and device ID; last errors and texts.

#include "call_sequences_attempt.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace call_sequences {
namespace {

bool stillAnswers(const Session& session, const OpenReader& reader) {
    const Device* const device = session.bus.find(reader.usbDevice);
    return reader.open && device != nullptr && device->plugged;
}

} // namespace

void openDevice(Session& session) {
    const unsigned devId = session.input.oneOf(deviceIds);
    const int before = manager_lists::lastError();
    const manager_lists::Devices list = manager_lists::scanList();
    const auto entry = std::ranges::find_if(
        list, [&](const GVDevice* record) { return record != nullptr && record->devId == devId; });
    const OpenReader* const already = session.model.findId(devId);
    const int openHandle = already == nullptr ? 0 : already->devHnd;
    const auto result = attempt(session, [&] { return GVUSB_OpenDevice(devId); });
    session.model.follow({.opens = true});
    if (!result) {
        return;
    }
    if (entry == list.end()) {
        expectEqual(*result, int{GVUSB_ERR_NOT_SCANNED}, "the result for a reader that is not scanned");
        expectLastError(*result);
    } else if (openHandle != 0) {
        expectEqual(*result, openHandle, "the handle of an open reader");
        expectLastError(before);
    } else {
        const OpenReader* const reader = session.model.findHandle(*result);
        expect(reader == nullptr || (reader->devId == devId && reader->open), "another reader is open");
        const bool refused = *result == GVUSB_ERR_CANNOT_OPEN ||
                             *result == GVUSB_ERR_CONFIG_DESCRIPTOR_READ ||
                             *result == GVUSB_ERR_SET_CONFIGURATION;
        expect(reader != nullptr || refused, "opening fails with an unknown code");
        const Device* const device = session.bus.find((*entry)->usbdev);
        expect(!refused || session.mayFail() || !device->plugged || !device->opens,
               "opening fails for no reason");
        expectLastError(std::min(*result, 0));
    }
}

void closeDevice(Session& session) {
    const int devHnd = chooseHandle(session);
    const bool known = session.model.findHandle(devHnd) != nullptr;
    const auto result = attempt(session, [&] { return GVUSB_CloseDevice(devHnd); });
    if (result) {
        const int invalid = invalidHandleCode(devHnd);
        const int expected = known ? 0 : int{GVUSB_ERR_HANDLE_NOT_FOUND};
        expectEqual(*result, invalid != 0 ? invalid : expected, "the result of closing");
        expectLastError(*result);
    }
    // The reader is closed even if memory ran out, because only the log allocates.
    session.model.remove(devHnd);
    session.model.follow({});
}

void isDevicePresent(Session& session) {
    const int devHnd = chooseHandle(session);
    const auto result = attempt(session, [&] { return GVUSB_IsDevicePresent(devHnd); });
    if (!result) {
        return;
    }
    expectLastError(std::min(*result, 0));
    const OpenReader* const reader = session.model.findHandle(devHnd);
    if (const int invalid = invalidHandleCode(devHnd); invalid != 0) {
        expectEqual(*result, invalid, "the result for an invalid handle");
    } else if (reader == nullptr) {
        expectEqual(*result, int{GVUSB_ERR_HANDLE_NOT_FOUND}, "the result for an unknown handle");
    } else {
        expect(*result == 0 || (*result == 1 && stillAnswers(session, *reader)), "the presence is wrong");
    }
}

void getDeviceList(Session& session) {
    const int devHnd = chooseHandle(session);
    const int before = manager_lists::lastError();
    const auto result = attempt(session, [&] { return GVUSB_GetDeviceList(devHnd); });
    const auto& readers = session.model.readers();
    auto next = readers.begin();
    if (devHnd > 0) {
        next = std::ranges::find(readers, devHnd, &OpenReader::devHnd);
        next = next == readers.end() ? next : std::next(next);
    }
    expectEqual(result.value_or(-1), next == readers.end() ? 0 : next->devHnd, "the next handle");
    expectLastError(before);
}

void getDeviceHnd(Session& session) {
    const unsigned devId = session.input.oneOf(deviceIds);
    const int before = manager_lists::lastError();
    const auto result = attempt(session, [&] { return GVUSB_GetDeviceHnd(devId); });
    const OpenReader* const reader = session.model.findId(devId);
    expectEqual(result.value_or(0), reader == nullptr ? int{GVUSB_ERR_NOT_OPENED} : reader->devHnd,
                "the handle of a device ID");
    expectLastError(reader == nullptr ? int{GVUSB_ERR_NOT_OPENED} : before);
}

void getLastError(Session& session) {
    const int devHnd = chooseHandle(session);
    const bool withText = session.input.number(8) != 7;
    const std::unique_ptr<char[]> text(withText ? new char[GVUSB_TEXT_SIZE] : nullptr);
    int code = 1;
    const int before = manager_lists::lastError();
    const auto result = attempt(session, [&] { return GVUSB_GetLastError(devHnd, &code, text.get()); });
    expect(result.has_value(), "GVUSB_GetLastError allocates memory");
    if (devHnd == 0) {
        expectEqual(code, before, "the code of the last error");
    } else if (session.model.findHandle(devHnd) == nullptr) {
        expectEqual(code, int{GVUSB_ERR_HANDLE_NOT_FOUND}, "the last error of an unknown handle");
    }
    expectLastError(*result);
    if (withText) {
        expect(std::strncmp(text.get(), "GVUSB: ", 7) == 0, "a text does not start with GVUSB:");
        expect(*result == 0 || *result == GVUSB_ERR_UNKNOWN_ERROR_CODE, "the result is an unknown code");
    } else {
        expectEqual(*result, int{GVUSB_ERR_NULL_POINTER}, "the result without a text");
    }
}

void getErrorText(Session& session) {
    const int code = session.input.number(2) == 0 ? -1100 - session.input.byte()
                                                  : static_cast<int>(session.input.byte() * 0x01010101U);
    const std::unique_ptr<char[]> text(new char[GVUSB_TEXT_SIZE]);
    const auto result = attempt(session, [&] { return GVUSB_GetErrorText(code, text.get()); });
    expect(result.has_value(), "GVUSB_GetErrorText allocates memory");
    const bool unknown = std::strncmp(text.get(), "GVUSB: Unknown Error", 20) == 0;
    expectEqual(*result, unknown ? int{GVUSB_ERR_UNKNOWN_ERROR_CODE} : 0, "the result of GVUSB_GetErrorText");
    expectLastError(*result);
}

void getVersions(Session& /*session*/) {
    expect(std::strcmp(GVUSB_GetDLLVersion(), "07.01.00") == 0, "the version is wrong");
    expectLastError(GVUSB_OK);
    expectEqual(GVUSB_GetDrvVersion(), int{GVUSB_ERR_UNSUPPORTED_METHOD}, "the driver's version");
    expectLastError(GVUSB_ERR_UNSUPPORTED_METHOD);
}

} // namespace call_sequences

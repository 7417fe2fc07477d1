// Give a reader arbitrary device and configuration descriptors. The real libusb parses them, and the library finds,
// opens, uses, replugs and closes the reader, or rejects it. gvusb-emulate starts this program on its own bus.
//
// The input is the bytes of the descriptors. Only the vendor ID is replaced by that of the readers.
#include "expect.h"
#include "guarded_buffer.h"
#include "gvusb.h"
#include "manager/gvdrvhnd.h"

#include "base/log.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <libusb.h>

extern "C" {
#include "bus.h"
}

// libFuzzer treats changes of this array as coverage. libusb is not instrumented, but its warnings show which paths its
// parser takes.
__attribute__((section("__libfuzzer_extra_counters"))) std::uint8_t warnings[4096];

// libusb 1.0.26 leaks an alternate setting of an interface that it cannot parse. Tests with the stand-in check for leaks
// of the library.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libusb-1.0.so\n";
}

namespace {

using fuzz::expect;
using fuzz::GuardedBuffer;

constexpr std::size_t longestInput = 1024;
constexpr std::array<const char*, 6> readerKeys = {"DEVICEHND",  "DEVICE-ID", "DEVICENAME",
                                                   "FAMILYNAME", "INTERFACE", "TYPENUMBER"};

// To find the second and later configurations, libusb 1.0.26 goes from descriptor to descriptor. At one of length 0 it
// loops forever with a lock held. The kernel cuts off a configuration before such a descriptor.
bool hangsLibusb(std::span<const std::uint8_t> descriptors) {
    constexpr std::size_t deviceSize = 18;
    constexpr std::size_t configurationSize = 9;
    constexpr std::uint8_t configurationType = 2;
    if (descriptors.size() < deviceSize) {
        return false;
    }
    std::span<const std::uint8_t> left = descriptors.subspan(deviceSize);
    for (unsigned count = descriptors[deviceSize - 1]; count > 1; --count) {
        if (left.size() < configurationSize || left[0] < configurationSize || left[1] != configurationType) {
            return false;
        }
        left = left.subspan(configurationSize);
        while (left.size() >= 2 && left[1] != configurationType) {
            if (left[0] == 0) {
                return true;
            }
            left = left.subspan(std::min<std::size_t>(left[0], left.size()));
        }
    }
    return false;
}

// Messages that differ only in numbers count as the same warning.
void LIBUSB_CALL recordWarning(libusb_context*, libusb_log_level, const char* message) {
    std::uint32_t hash = 2166136261U;
    bool inNumber = false;
    for (const char* c = message; *c != '\0'; ++c) {
        const auto character = static_cast<unsigned char>(*c);
        inNumber = std::isdigit(character) != 0 || (inNumber && std::isalnum(character) != 0);
        if (!inNumber) {
            hash = (hash ^ character) * 16777619U;
        }
    }
    warnings[hash % std::size(warnings)] = 1;
}

int prepareBus() {
    expect(std::freopen("/dev/null", "w", stdout) != nullptr, "standard output goes to /dev/null");
    libusb_set_log_cb(nullptr, recordWarning, LIBUSB_LOG_CB_GLOBAL);
    libusb_set_option(nullptr, LIBUSB_OPTION_LOG_LEVEL, LIBUSB_LOG_LEVEL_WARNING);
    return plug_new("id=F0,plugged=no");
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0x0FU];
    }
    return text;
}

void setDescriptors(int reader, std::vector<std::uint8_t> descriptors) {
    constexpr std::size_t vendorAt = 8;
    if (descriptors.size() > vendorAt + 1) {
        descriptors[vendorAt] = GVUSB_VENDOR_ID & 0xFFU;
        descriptors[vendorAt + 1] = GVUSB_VENDOR_ID >> 8U;
    }
    bus("descriptors %d %s", reader, hexadecimal(descriptors).c_str());
}

// A virtual reader answers with the frame that it received.
void exchange(int handle) {
    GuardedBuffer frame(std::string_view("\x02\x00\x07\xFF\x01", 5));
    GuardedBuffer answer(64);
    const auto length = static_cast<unsigned>(frame.size());
    const auto room = static_cast<unsigned>(answer.size());
    const int received =
        GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame.bytes(), length, answer.bytes(), room);
    expect(received < 0 || (received == static_cast<int>(length) &&
                            std::equal(frame.bytes(), frame.bytes() + length, answer.bytes())),
           "the answer is the frame");
    if (GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame.bytes(), length) == 0) {
        expect(GVUSB_Receive(handle, GVUSB_PROTOCOL, answer.bytes(), room) <= static_cast<int>(room),
               "no more is received than there is room for");
    }
}

void use(int handle) {
    GVUSB_SetDevicePara(handle, "TIMEOUT", "20");
    exchange(handle);
    GVUSB_SetDevicePara(handle, "RESETPIPE", "");
    GVUSB_SetDevicePara(handle, "RESETDEVICE", "");
    exchange(handle);
    for (const char* const key : readerKeys) {
        GuardedBuffer value(GVUSB_PARAMETER_SIZE);
        if (GVUSB_GetDevicePara(handle, key, value.text()) == 0) {
            value.terminatedText();
        }
    }
    GVUSB_IsDevicePresent(handle);
}

void findAndUse(int reader) {
    bus("plug %d", reader);
    g_GvUsbMan.UpdateDevices();
    if (GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr) == GVUSB_ERR_NO_DEVICE_FOUND) {
        bus("unplug %d", reader);
        return;
    }
    const int handle = GVUSB_GetDeviceList(0);
    if (handle != 0) {
        use(handle);
    }
    bus("replug %d", reader);
    g_GvUsbMan.UpdateDevices();
    if (handle != 0) {
        exchange(handle);
        expect(GVUSB_CloseDevice(handle) == 0, "an open reader can be closed");
    }
    bus("unplug %d", reader);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int reader = prepareBus();
    if (size == 0 || size > longestInput || hangsLibusb({data, size})) {
        return 0;
    }
    setDescriptors(reader, {data, data + size});
    GVLOG_SetLevel(data[size - 1] % 4);
    findAndUse(reader);
    GVLOG_SetLevel(0);
    expect(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr) == GVUSB_ERR_NO_DEVICE_FOUND, "the bus is empty");
    expect(GVUSB_GetDeviceList(0) == 0, "no reader is open");
    return 0;
}

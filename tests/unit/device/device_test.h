// The fixture of the reader tests: an empty bus, no logging, and a check that all libusb resources are
// released.
//
// The tests create their devices directly on readers of the fake bus.
#pragma once

#include "base/log.h"
#include "captured_stdout.h"
#include "device/gvdevice.h"
#include "fake_libusb.h"
#include "gvusb.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fake = fake_libusb;

using Lines = std::vector<std::string>;

void PrintTo(TransferMode mode, std::ostream* stream);

// The state of a device's libusb resources.
struct DeviceState {
    bool open = false;
    TransferMode mode = TransferMode::unknown;
    int addrIn = noEndpoint;
    int addrOut = noEndpoint;

    bool operator==(const DeviceState&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const DeviceState& state);

inline constexpr DeviceState closedState = {};
inline constexpr DeviceState openState = {.open = true};
inline constexpr DeviceState bulkState = {
    .open = true, .mode = TransferMode::bulk, .addrIn = 0x81, .addrOut = 0x02};
inline constexpr DeviceState controlState = {.open = true, .mode = TransferMode::control};

DeviceState stateOf(GVDevice& device);
unsigned int timeoutOf(GVDevice& device);

// Every libusb error code.
inline constexpr int libusbErrors[] = {-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -99};

// Sets a hook for the length of a scope, so that it does not outlive the objects that it references.
class [[nodiscard]] ScopedHook {
public:
    explicit ScopedHook(fake::Hook hook) { fake::setHook(std::move(hook)); }
    ~ScopedHook() { fake::setHook(nullptr); }
    ScopedHook(const ScopedHook&) = delete;
    ScopedHook& operator=(const ScopedHook&) = delete;
};

class DeviceTest : public testing::Test {
protected:
    DeviceTest();
    ~DeviceTest() override;
    DeviceTest(const DeviceTest&) = delete;
    DeviceTest& operator=(const DeviceTest&) = delete;

    // Open the device and discard the recorded calls.
    static void open(GVDevice& device);
    // The same, and look up the endpoints and claim interface 0.
    static void makeReady(GVDevice& device);

    // The lines that `work` logs at this level, without times.
    template <class Work>
    static Lines logOf(int level, Work work) {
        support::CapturedStdout output;
        GVLOG_SetLevel(level);
        work();
        GVLOG_SetLevel(0);
        return output.takeLogLines();
    }
};

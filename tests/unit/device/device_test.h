// What the tests of a reader share: an empty bus, a silent log and accounts that must balance at the end.
//
// The devices under test are made by the tests themselves, directly on readers of the fake bus.
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

// How a device stands with libusb.
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

// Every code of libusb's, the last one outside its list's sequence.
inline constexpr int libusbErrors[] = {-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -99};

// A hook for the length of a scope, so that it never outlives what it refers to.
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

    // Opens the device and forgets the calls that it took.
    static void open(GVDevice& device);
    // The same with the endpoints looked up and interface 0 claimed.
    static void makeReady(GVDevice& device);

    // The log lines that the work writes at this level, without their times.
    template <class Work>
    static Lines logOf(int level, Work work) {
        support::CapturedStdout output;
        GVLOG_SetLevel(level);
        work();
        GVLOG_SetLevel(0);
        return output.takeLogLines();
    }
};

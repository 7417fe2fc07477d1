#include "device_test.h"

#include "configuration_file.h"

#include <ostream>

// The global manager of this program must not poll the tests' bus.
extern "C" const char* gvusbTestInitialConfiguration() {
    return "nopnp";
}

void PrintTo(TransferMode mode, std::ostream* stream) {
    switch (mode) {
    case TransferMode::control:
        *stream << "control";
        return;
    case TransferMode::bulk:
        *stream << "bulk";
        return;
    case TransferMode::unknown:
        *stream << "unknown";
        return;
    }
    *stream << "invalid transfer mode: " << static_cast<std::uint32_t>(mode);
}

std::ostream& operator<<(std::ostream& stream, const DeviceState& state) {
    stream << (state.open ? "open" : "closed") << ", transfer mode ";
    PrintTo(state.mode, &stream);
    return stream << ", IN " << state.addrIn << ", OUT " << state.addrOut;
}

DeviceState stateOf(GVDevice& device) {
    const MutexLock lock(device.mutex);
    return {.open = device.usbdev_hnd != nullptr,
            .mode = device.transferMode,
            .addrIn = device.addrIn,
            .addrOut = device.addrOut};
}

unsigned int timeoutOf(GVDevice& device) {
    const MutexLock lock(device.mutex);
    return device.timeout;
}

DeviceTest::DeviceTest() {
    fake::reset();
    GVLOG_SetLevel(0);
}

DeviceTest::~DeviceTest() {
    GVLOG_SetLevel(0);
    EXPECT_EQ(fake::leftovers(), "");
    EXPECT_THAT(fake::misuses(), testing::IsEmpty());
}

void DeviceTest::open(GVDevice& device) {
    EXPECT_EQ(device.OpenDevice(), GVUSB_OK);
    fake::takeCalls();
}

void DeviceTest::makeReady(GVDevice& device) {
    open(device);
    {
        const MutexLock lock(device.mutex);
        EXPECT_EQ(device.GetBulkEndPoints(), GVUSB_OK);
    }
    fake::takeCalls();
}

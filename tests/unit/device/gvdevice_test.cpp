#include "allocation_failure.h"
#include "device_test.h"
#include "mutex_probe.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <type_traits>

namespace {

using testing::Each;
using testing::IsEmpty;

static_assert(std::has_virtual_destructor_v<GVDevice>);
static_assert(sizeof(GVDevice::mutex) == sizeof(pthread_mutex_t));
static_assert(sizeof(GVDevice::owner) == 1);
static_assert(sizeof(GVDevice::transferMode) == 4);
static_assert(sizeof(GVDevice::famName) == 256);
static_assert(sizeof(GVDevice::devName) == 256);
static_assert(sizeof(GVDevice::intType) == 256);

class RecordTest : public DeviceTest {};

TEST_F(RecordTest, ConstructionReferencesTheDeviceThenReadsItsBusAndAddress) {
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());

    const GVDevice device(1, usb);

    EXPECT_EQ(fake::takeCallText(), "libusb_ref_device(dev1)\n"
                                    "libusb_get_bus_number(dev1) = 1\n"
                                    "libusb_get_device_address(dev1) = 1\n");
    EXPECT_EQ(fake::references("dev1"), 1);
}

TEST_F(RecordTest, NewRecordIsClosedAndUnidentified) {
    fake::FakeReader reader = fake::bulkReader();
    reader.bus = 201;
    reader.address = 127;
    libusb_device* const usb = fake::plug("dev1", reader);

    GVDevice device(0x10000001, usb);

    EXPECT_EQ(device.usbdev, usb);
    EXPECT_EQ(device.openOption, 0);
    EXPECT_TRUE(device.owner);
    EXPECT_EQ(device.lastError, 0);
    EXPECT_EQ(timeoutOf(device), 1000u);
    EXPECT_EQ(device.spareByte, 0xFF);
    EXPECT_EQ(device.busNumber, 201);
    EXPECT_EQ(device.devAddress, 127);
    EXPECT_EQ(device.devHnd, 0x10000001);
    EXPECT_EQ(device.devId, 0u);
    EXPECT_THAT(device.famName, Each('\0'));
    EXPECT_THAT(device.devName, Each('\0'));
    EXPECT_THAT(device.intType, Each('\0'));
    EXPECT_EQ(stateOf(device),
              (DeviceState{.open = false, .mode = TransferMode::unknown, .addrIn = 255, .addrOut = 255}));
    EXPECT_EQ(device.updateMark, 0u);
    EXPECT_FALSE(support::isHeld(device.mutex));
}

TEST_F(RecordTest, DefaultsDoNotDependOnTheMemoryContents) {
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());
    alignas(GVDevice) unsigned char memory[sizeof(GVDevice)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xAA));

    auto* const device = new (memory) GVDevice(7, usb);

    EXPECT_EQ(device->openOption, 0);
    EXPECT_TRUE(device->owner);
    EXPECT_EQ(device->lastError, 0);
    EXPECT_EQ(device->devId, 0u);
    EXPECT_THAT(device->famName, Each('\0'));
    EXPECT_THAT(device->devName, Each('\0'));
    EXPECT_THAT(device->intType, Each('\0'));
    EXPECT_EQ(stateOf(*device), closedState);
    EXPECT_EQ(device->updateMark, 0u);
    EXPECT_FALSE(support::isHeld(device->mutex));
    device->~GVDevice();
}

TEST_F(RecordTest, TransferModesHaveTheirNumbers) {
    EXPECT_EQ(static_cast<unsigned>(TransferMode::control), 0u);
    EXPECT_EQ(static_cast<unsigned>(TransferMode::bulk), 1u);
    EXPECT_EQ(static_cast<unsigned>(TransferMode::unknown), 255u);
    EXPECT_EQ(noEndpoint, 0xFF);
}

TEST_F(RecordTest, ConstructionAndDestructionLogNothing) {
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());
    EXPECT_THAT(logOf(3,
                      [&] {
                          GVDevice device(1, usb);
                          EXPECT_EQ(device.IsDevice(nullptr), true);
                      }),
                IsEmpty());
}

TEST_F(RecordTest, DestructionOfClosedReaderOnlyDropsTheReference) {
    auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", fake::bulkReader()));
    fake::takeCalls();

    device.reset();

    EXPECT_EQ(fake::takeCallText(), "libusb_unref_device(dev1)\n");
    EXPECT_EQ(fake::references("dev1"), 0);
}

TEST_F(RecordTest, DestructionOfOpenReaderReleasesClosesAndDropsTheReference) {
    auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(*device);

    device.reset();

    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = 0\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n");
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(RecordTest, DestructionTakesNoLock) {
    auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(*device);
    GVDevice& record = *device;
    std::vector<std::string> heldIn;
    const ScopedHook hook([&](std::string_view function, std::string_view) {
        if (function != "libusb_unref_device" && support::isHeld(record.mutex)) {
            heldIn.emplace_back(function);
        }
    });

    device.reset();

    EXPECT_THAT(heldIn, IsEmpty());
}

TEST_F(RecordTest, UnpluggedReaderCanBeDestroyed) {
    auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(*device);
    fake::unplug("dev1");

    device.reset();

    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = -4\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n");
}

// As if the thread were canceled in libusb.
TEST_F(RecordTest, ExceptionWhileClosingPassesAndTheReferenceIsDropped) {
    auto* const device = new GVDevice(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(*device);
    libusb_device_handle* leaked = nullptr;
    {
        const MutexLock lock(device->mutex);
        leaked = device->usbdev_hnd;
    }
    {
        const ScopedHook hook([](std::string_view function, std::string_view) {
            if (function == "libusb_close") {
                throw std::bad_alloc();
            }
        });
        EXPECT_THROW(delete device, std::bad_alloc);
    }
    EXPECT_EQ(fake::references("dev1"), 0);
    libusb_close(leaked);
}

TEST_F(RecordTest, ExceptionWhileClosingReleasesTheMutex) {
    GVDevice device(1, fake::plug("dev1", fake::bulkReader()));
    makeReady(device);
    {
        const ScopedHook hook([](std::string_view function, std::string_view) {
            if (function == "libusb_release_interface") {
                throw std::bad_alloc();
            }
        });
        EXPECT_THROW(device.CloseDevice(), std::bad_alloc);
    }
    EXPECT_FALSE(support::isHeld(device.mutex));
    EXPECT_EQ(device.CloseDevice(), 0);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
}

TEST_F(RecordTest, SeveralRecordsOfOneReaderHoldAReferenceEach) {
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());
    const GVDevice first(1, usb);
    {
        const GVDevice second(2, usb);
        EXPECT_EQ(fake::references("dev1"), 2);
    }
    EXPECT_EQ(fake::references("dev1"), 1);
}

TEST_F(RecordTest, ConstructionAllocatesNothing) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());
    const std::size_t before = support::allocations();
    { const GVDevice device(1, usb); }
    EXPECT_EQ(support::allocations() - before, 0u);
}

std::string printed(const void* pointer) {
    char text[64];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

TEST_F(RecordTest, UsbDevicePointerIsPrintedIntoOneBufferForAllDevices) {
    libusb_device* const usb1 = fake::plug("dev1", fake::bulkReader());
    libusb_device* const usb2 = fake::plug("dev2", fake::controlReader());
    GVDevice first(1, usb1);
    GVDevice second(2, usb2);

    const char* const text = first.GetUsbDevPtr();
    EXPECT_EQ(text, printed(usb1));
    EXPECT_EQ(second.GetUsbDevPtr(), text);
    EXPECT_EQ(text, printed(usb2));
    EXPECT_EQ(first.GetUsbDevPtr(), text);
    EXPECT_EQ(text, printed(usb1));
}

TEST_F(RecordTest, UsbDevicePointerIsReadWithoutTheMutex) {
    libusb_device* const usb = fake::plug("dev1", fake::bulkReader());
    GVDevice device(1, usb);
    const MutexLock lock(device.mutex);
    EXPECT_EQ(device.GetUsbDevPtr(), printed(usb));
}

} // namespace

#include "base/usb_owners.h"

#include "fake_libusb.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fake = fake_libusb;

class UsbOwners : public testing::Test {
protected:
    UsbOwners() {
        fake::reset();
        fake::recordNothing();
        libusb_init(nullptr);
        fake::recordAll();
        fake::watchOnlyThisThread();
    }
    ~UsbOwners() override {
        libusb_exit(nullptr);
        EXPECT_EQ(fake::leftovers(), "");
        EXPECT_EQ(fake::misuses(), std::vector<std::string>());
    }
};

TEST_F(UsbOwners, DeviceListIsFreedWithItsReferences) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader());
    {
        const UsbDeviceList list(true);
        EXPECT_EQ(list.count(), 1);
        ASSERT_EQ(list.devices().size(), 1u);
        EXPECT_EQ(list.devices()[0], dev);
        EXPECT_EQ(fake::references("dev1"), 1);
    }
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 1\n"
                                    "libusb_free_device_list(list, 1)\n");
}

TEST_F(UsbOwners, EmptyDeviceListIsFreedToo) {
    {
        const UsbDeviceList list(true);
        EXPECT_EQ(list.count(), 0);
        EXPECT_TRUE(list.devices().empty());
    }
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = 0\n"
                                    "libusb_free_device_list(list, 1)\n");
}

TEST_F(UsbOwners, FailedDeviceListIsEmptyAndNotFreed) {
    fake::failNext("libusb_get_device_list", LIBUSB_ERROR_NO_MEM);
    {
        const UsbDeviceList list(true);
        EXPECT_EQ(list.count(), LIBUSB_ERROR_NO_MEM);
        EXPECT_TRUE(list.devices().empty());
    }
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_list(default) = -11\n");
}

TEST_F(UsbOwners, DeviceListIsEmptyWithoutAContext) {
    fake::plug("dev1", fake::bulkReader());
    {
        const UsbDeviceList list(false);
        EXPECT_EQ(list.count(), 0);
        EXPECT_TRUE(list.devices().empty());
    }
    EXPECT_EQ(fake::takeCallText(), "");
}

TEST_F(UsbOwners, ConfigurationDescriptorIsFreed) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader());
    libusb_config_descriptor* raw = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor(dev, 0, &raw), 0);
    ConfigDescriptor(raw).reset();
    EXPECT_EQ(fake::takeCalls().back(), "libusb_free_config_descriptor(config of dev1)");
}

TEST_F(UsbOwners, HandleIsClosed) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* raw = nullptr;
    ASSERT_EQ(libusb_open(dev, &raw), 0);
    DeviceHandle(raw).reset();
    EXPECT_EQ(fake::takeCalls().back(), "libusb_close(hnd1)");
}

TEST_F(UsbOwners, ReferenceIsReleased) {
    DeviceReference(libusb_ref_device(fake::plug("dev1", fake::bulkReader()))).reset();
    EXPECT_EQ(fake::references("dev1"), 0);
    EXPECT_EQ(fake::takeCalls().back(), "libusb_unref_device(dev1)");
}

TEST_F(UsbOwners, NothingIsReleasedIfNothingWasAcquired) {
    ConfigDescriptor(nullptr).reset();
    DeviceHandle(nullptr).reset();
    DeviceReference(nullptr).reset();
    EXPECT_EQ(fake::takeCallText(), "");
}

} // namespace

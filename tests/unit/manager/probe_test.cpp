#include "fake_libusb.h"
#include "fake_reader.h"
#include "manager/gvdrvhnd.h"
#include "manager_test.h"

namespace fake = fake_libusb;

namespace {

class ProbeTest : public ManagerTest {};

} // namespace

TEST_F(ProbeTest, VendorsProductsOneToFourAreUsable) {
    libusb_device_descriptor descriptor = {};
    for (const int product : {0, 1, 2, 3, 4, 5, 0x0101, 0xFFFF}) {
        descriptor.idVendor = GVUSB_VENDOR_ID;
        descriptor.idProduct = static_cast<std::uint16_t>(product);
        EXPECT_EQ(g_GvUsbMan.IsUsableGavoDevice(&descriptor), product >= 1 && product <= 4) << product;
        descriptor.idVendor = GVUSB_VENDOR_ID ^ 0x8000;
        EXPECT_FALSE(g_GvUsbMan.IsUsableGavoDevice(&descriptor)) << product;
    }
}

TEST_F(ProbeTest, DeviceIdIsReadThroughAShortLivedHandle) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader("0x1a2B3c rest"));
    fake::takeCalls();
    EXPECT_EQ(g_GvUsbMan.ReadDeviceIdOfUsbDev(dev), 0x1A2B3Cu);
    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 13\n"
                                    "libusb_close(hnd1)\n");
}

TEST_F(ProbeTest, DeviceIdThatCannotBeReadIsZero) {
    libusb_device* const dev = fake::plug("dev1", fake::bulkReader());
    for (const fake::FakeString& answer :
         std::initializer_list<fake::FakeString>{"", "xyz", LIBUSB_ERROR_IO, LIBUSB_ERROR_BUSY, "0"}) {
        fake::setString("dev1", 1, answer);
        EXPECT_EQ(g_GvUsbMan.ReadDeviceIdOfUsbDev(dev), 0u);
        EXPECT_EQ(fake::openHandles("dev1"), 0);
    }
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    fake::setString("dev1", 1, "A1");
    fake::takeCalls();
    EXPECT_EQ(g_GvUsbMan.ReadDeviceIdOfUsbDev(dev), 0u);
    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = -3\n");
}

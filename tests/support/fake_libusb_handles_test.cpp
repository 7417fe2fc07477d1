#include "fake_libusb_test.h"

namespace fake = fake_libusb;
using FakeHandlesTest = FakeLibusbTest;

TEST_F(FakeHandlesTest, HandlesAreNamedAfterTheirDevices) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* const first = open(device);
    libusb_device_handle* const second = open(device);
    libusb_device_handle* const lamp = open(fake::plug("lamp", fake::foreignDevice()));
    libusb_close(first);
    libusb_device_handle* const third = open(device);
    fake::takeCalls();
    for (libusb_device_handle* const handle : {second, lamp, third}) {
        libusb_close(handle);
    }
    EXPECT_EQ(fake::takeCallText(), "libusb_close(hnd1#2)\nlibusb_close(hnd(lamp))\nlibusb_close(hnd1)\n");
}

TEST_F(FakeHandlesTest, ConfigurationIsSetUnlessUnknownOrInUse) {
    fake::FakeReader reader = fake::bulkReader();
    reader.configurations = {{.value = 2}, {.value = 1, .interfaces = {{.number = 5}}}};
    libusb_device_handle* const handle = open(fake::plug("dev1", reader));
    EXPECT_EQ(libusb_claim_interface(handle, 5), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_set_configuration(handle, 3), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_set_configuration(handle, 1), 0);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_claim_interface(handle, 5), 0);
    EXPECT_EQ(libusb_set_configuration(handle, 2), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_release_interface(handle, 5), 0);
    EXPECT_EQ(libusb_set_configuration(handle, 2), 0);
    libusb_close(handle);
}

TEST_F(FakeHandlesTest, KernelDriverKeepsTheInterfaceUntilItIsDetached) {
    fake::FakeReader reader = fake::bulkReader();
    reader.kernelDriver = true;
    libusb_device_handle* const handle = open(fake::plug("dev1", reader));
    EXPECT_EQ(libusb_set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
    EXPECT_EQ(libusb_release_interface(handle, 0), 0);
    libusb_close(handle);
}

TEST_F(FakeHandlesTest, InterfaceBelongsToOneHandleAtATime) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* const first = open(device);
    libusb_device_handle* const second = open(device);
    EXPECT_EQ(libusb_claim_interface(first, 0), 0);
    EXPECT_EQ(libusb_claim_interface(first, 0), 0);
    EXPECT_EQ(libusb_claim_interface(second, 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_release_interface(second, 0), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_EQ(libusb_release_interface(first, 0), 0);
    EXPECT_EQ(libusb_claim_interface(second, 0), 0);
    EXPECT_EQ(libusb_release_interface(second, 0), 0);
    fake::change("dev1", [](fake::FakeReader& reader) { reader.claimedElsewhere = true; });
    EXPECT_EQ(libusb_claim_interface(first, 0), LIBUSB_ERROR_BUSY);
    libusb_close(first);
    libusb_close(second);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeHandlesTest, HaltIsClearedOnEndpointsThatExist) {
    libusb_device_handle* const handle = open(fake::plug("dev1", fake::bulkReader()));
    EXPECT_EQ(libusb_clear_halt(handle, 0x81), 0);
    EXPECT_EQ(libusb_clear_halt(handle, 0x83), LIBUSB_ERROR_NOT_FOUND);
    libusb_close(handle);
}

TEST_F(FakeHandlesTest, StringsAreTruncatedToTheBufferAndTerminated) {
    fake::FakeReader reader = fake::bulkReader();
    reader.strings = {{1, std::string("A\0B\xFF", 4)}, {3, LIBUSB_ERROR_OVERFLOW}, {5, ""}};
    libusb_device_handle* const handle = open(fake::plug("dev1", reader));
    unsigned char text[5] = {9, 9, 9, 9, 9};
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 1, text, 5), 4);
    EXPECT_EQ(std::string(text, text + 5), std::string("A\0B\xFF\0", 5));
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 1, text, 2), 1);
    EXPECT_EQ(text[1], 0);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 3, text, 5), LIBUSB_ERROR_OVERFLOW);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 5, text, 5), 0);
    EXPECT_EQ(text[0], 0);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 6, text, 5), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 0, text, 5), LIBUSB_ERROR_INVALID_PARAM);
    libusb_close(handle);
}

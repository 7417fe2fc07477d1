#include "fake_libusb_test.h"

#include <algorithm>

namespace fake = fake_libusb;
using FakeBusTest = FakeLibusbTest;

namespace {

std::vector<libusb_device*> enumerated() {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    std::vector<libusb_device*> devices(list, list + std::max<ssize_t>(count, 0));
    EXPECT_EQ(list[devices.size()], nullptr);
    libusb_free_device_list(list, 1);
    return devices;
}

} // namespace

TEST_F(FakeBusTest, EnumeratesInPlugOrder) {
    const Context context;
    libusb_device* const first = fake::plug("dev1", fake::bulkReader());
    libusb_device* const second = fake::plug("dev2", fake::controlReader());
    EXPECT_EQ(enumerated(), (std::vector{first, second}));
    fake::unplug("dev1");
    EXPECT_EQ(enumerated(), std::vector{second});
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeBusTest, EmptyBusReturnsAnEmptyListThatMustBeFreed) {
    const Context context;
    libusb_device** list = nullptr;
    EXPECT_EQ(libusb_get_device_list(nullptr, &list), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(fake::leftovers(), "list: not freed\n");
    libusb_free_device_list(list, 1);
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeBusTest, DescriptorsMatchTheDescription) {
    fake::FakeReader reader = fake::bulkReader();
    reader.product = 3;
    reader.bus = 7;
    reader.address = 42;
    libusb_device* const device = fake::plug("dev1", reader);
    libusb_device_descriptor descriptor = {};
    ASSERT_EQ(libusb_get_device_descriptor(device, &descriptor), 0);
    EXPECT_EQ(descriptor.idVendor, GVUSB_VENDOR_ID);
    EXPECT_EQ(descriptor.idProduct, 3);
    EXPECT_EQ(descriptor.bNumConfigurations, 1);
    EXPECT_EQ(libusb_get_bus_number(device), 7);
    EXPECT_EQ(libusb_get_device_address(device), 42);

    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor(device, 0, &config), 0);
    EXPECT_EQ(config->bConfigurationValue, 1);
    ASSERT_EQ(config->bNumInterfaces, 1);
    ASSERT_EQ(config->interface[0].num_altsetting, 1);
    const libusb_interface_descriptor& interface = config->interface[0].altsetting[0];
    EXPECT_EQ(interface.bInterfaceNumber, 0);
    ASSERT_EQ(interface.bNumEndpoints, 2);
    EXPECT_EQ(interface.endpoint[0].bEndpointAddress, 0x81);
    EXPECT_EQ(interface.endpoint[1].bEndpointAddress, 0x02);
    EXPECT_EQ(interface.endpoint[1].bmAttributes, 2);
    libusb_free_config_descriptor(config);
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeBusTest, UnusualConfigurationsCanBeDescribed) {
    fake::FakeReader none = fake::bulkReader();
    none.configurations.clear();
    fake::FakeReader noInterface = fake::bulkReader();
    noInterface.configurations[0].interfaces.clear();
    fake::FakeReader noAltSetting = fake::bulkReader();
    noAltSetting.configurations[0].interfaces[0].altSettings.clear();
    noAltSetting.reportedConfigurations = 0;

    libusb_config_descriptor* config = nullptr;
    EXPECT_EQ(libusb_get_config_descriptor(fake::plug("dev1", none), 0, &config), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(libusb_get_config_descriptor(fake::plug("dev2", noInterface), 0, &config), 0);
    EXPECT_EQ(config->bNumInterfaces, 0);
    libusb_free_config_descriptor(config);
    libusb_device* const last = fake::plug("dev3", noAltSetting);
    ASSERT_EQ(libusb_get_config_descriptor(last, 0, &config), 0);
    EXPECT_EQ(config->interface[0].num_altsetting, 0);
    libusb_free_config_descriptor(config);
    libusb_device_descriptor descriptor = {};
    ASSERT_EQ(libusb_get_device_descriptor(last, &descriptor), 0);
    EXPECT_EQ(descriptor.bNumConfigurations, 0);
}

TEST_F(FakeBusTest, ListCanBeNullDespiteItsCount) {
    const auto described = [](std::string_view name, fake::FakeList list) {
        fake::FakeReader reader = fake::bulkReader();
        reader.configurations[0].nullList = list;
        libusb_config_descriptor* config = nullptr;
        EXPECT_EQ(libusb_get_config_descriptor(fake::plug(name, reader), 0, &config), 0);
        return config;
    };
    libusb_config_descriptor* config = described("dev1", fake::FakeList::interfaces);
    EXPECT_EQ(config->bNumInterfaces, 1);
    EXPECT_EQ(config->interface, nullptr);
    libusb_free_config_descriptor(config);
    config = described("dev2", fake::FakeList::altSettings);
    EXPECT_EQ(config->interface[0].num_altsetting, 1);
    EXPECT_EQ(config->interface[0].altsetting, nullptr);
    libusb_free_config_descriptor(config);
    config = described("dev3", fake::FakeList::endpoints);
    EXPECT_EQ(config->interface[0].altsetting[0].bNumEndpoints, 2);
    EXPECT_EQ(config->interface[0].altsetting[0].endpoint, nullptr);
    libusb_free_config_descriptor(config);
}

TEST_F(FakeBusTest, AddressesIncreaseUnlessGiven) {
    EXPECT_EQ(libusb_get_device_address(fake::plug("dev1", fake::bulkReader())), 1);
    EXPECT_EQ(libusb_get_device_address(fake::plug("dev2", fake::bulkReader())), 2);
    fake::FakeReader far = fake::bulkReader();
    far.address = 127;
    fake::plug("dev3", far);
    EXPECT_EQ(libusb_get_device_address(fake::plug("dev4", fake::bulkReader())), 1);
}

TEST_F(FakeBusTest, CallsThatReachAnUnpluggedDeviceReturnNoDevice) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* const handle = open(device);
    ASSERT_EQ(libusb_claim_interface(handle, 0), 0);
    fake::unplug("dev1");

    unsigned char data[4] = {};
    int transferred = 0;
    libusb_device_handle* another = nullptr;
    EXPECT_EQ(libusb_open(device, &another), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 1, data, 4), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_set_configuration(handle, 1), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_clear_halt(handle, 0x02), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_reset_device(handle), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_bulk_transfer(handle, 0x02, data, 4, &transferred, 1), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_control_transfer(handle, 0x40, 0, 0, 0, data, 4, 1), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_release_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    libusb_device_descriptor descriptor = {};
    EXPECT_EQ(libusb_get_device_descriptor(device, &descriptor), 0);
    libusb_config_descriptor* config = nullptr;
    EXPECT_EQ(libusb_get_config_descriptor(device, 0, &config), 0);
    libusb_free_config_descriptor(config);

    libusb_close(handle);
    EXPECT_EQ(fake::misuses(), Lines{});
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeBusTest, ReplugReturnsAnotherPointerWithTheSameDescription) {
    fake::FakeReader reader = fake::bulkReader("AB");
    reader.address = 1;
    libusb_device* const before = fake::plug("dev1", reader);
    libusb_ref_device(before);
    fake::setString("dev1", 3, "CHANGED");
    libusb_device* const after = fake::replug("dev1", "dev1b");
    EXPECT_NE(after, before);
    EXPECT_EQ(libusb_get_device_address(after), 2);
    libusb_device_handle* const handle = open(after);
    EXPECT_EQ(readString(handle, 1), "AB");
    EXPECT_EQ(readString(handle, 3), "CHANGED");
    libusb_close(handle);
    EXPECT_EQ(fake::references("dev1"), 1);
    libusb_unref_device(before);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeBusTest, ReplugCanReuseAFreedPointerButNotAHeldOne) {
    libusb_device* const before = fake::plug("dev1", fake::bulkReader());
    libusb_ref_device(before);
    EXPECT_THROW(fake::replug("dev1", "dev1b", fake::Pointer::same), std::logic_error);
    libusb_unref_device(before);
    EXPECT_EQ(fake::replug("dev1", "dev1b", fake::Pointer::same), before);
    EXPECT_EQ(fake::device("dev1b"), before);
    libusb_ref_device(before);
    EXPECT_EQ(fake::references("dev1b"), 1);
    libusb_unref_device(before);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeBusTest, NamesAreUniqueWhileTheDeviceExists) {
    fake::plug("dev1", fake::bulkReader());
    EXPECT_THROW(fake::plug("dev1", fake::bulkReader()), std::invalid_argument);
    fake::unplug("dev1");
    EXPECT_NE(fake::plug("dev1", fake::bulkReader()), nullptr);
    EXPECT_THROW(fake::device("dev9"), std::invalid_argument);
}

TEST_F(FakeBusTest, ChangesApplyToAnOpenDevice) {
    libusb_device_handle* const handle = open(fake::plug("dev1", fake::bulkReader()));
    fake::change("dev1", [](fake::FakeReader& reader) {
        reader.strings[5] = LIBUSB_ERROR_IO;
        reader.product = 4;
    });
    EXPECT_EQ(readString(handle, 5), "-1");
    libusb_device_descriptor descriptor = {};
    EXPECT_EQ(libusb_get_device_descriptor(fake::device("dev1"), &descriptor), 0);
    EXPECT_EQ(descriptor.idProduct, 4);
    libusb_close(handle);
}

TEST_F(FakeBusTest, ResetUnplugsEverythingAndFreesTheNames) {
    libusb_device* const old = fake::plug("dev1", fake::bulkReader());
    libusb_ref_device(old);
    EXPECT_EQ(fake::leftovers(), "dev1: 1 reference\n");
    fake::reset();
    const Context context;
    EXPECT_TRUE(enumerated().empty());
    EXPECT_NE(fake::plug("dev1", fake::bulkReader()), old);
    EXPECT_EQ(fake::leftovers(), "");
    libusb_unref_device(old);
    EXPECT_EQ(fake::misuses(), Lines{});
}

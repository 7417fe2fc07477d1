#include "fake_libusb_test.h"

namespace fake = fake_libusb;
using FakeAccountingTest = FakeLibusbTest;

TEST_F(FakeAccountingTest, EachHeldResourceIsALine) {
    libusb_device* const first = fake::plug("dev1", fake::bulkReader());
    libusb_device* const second = fake::plug("dev2", fake::bulkReader());
    libusb_init(nullptr);
    libusb_device** list = nullptr;
    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(libusb_get_device_list(nullptr, &list), 2);
    libusb_ref_device(second);
    libusb_device_handle* const handle = open(first);
    EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
    EXPECT_EQ(libusb_get_config_descriptor(first, 0, &config), 0);
    EXPECT_EQ(libusb_try_lock_events(nullptr), 0);

    EXPECT_EQ(fake::leftovers(), "dev1: 1 reference\n"
                                 "hnd1: open\n"
                                 "hnd1: interface 0 claimed\n"
                                 "dev2: 2 references\n"
                                 "config of dev1: not freed\n"
                                 "list: not freed\n"
                                 "libusb_init: 1 without libusb_exit\n"
                                 "events lock: held\n");
    EXPECT_EQ(fake::references("dev2"), 2);
    EXPECT_EQ(fake::openHandles("dev1"), 1);

    libusb_unlock_events(nullptr);
    libusb_free_config_descriptor(config);
    libusb_release_interface(handle, 0);
    libusb_close(handle);
    libusb_unref_device(second);
    libusb_free_device_list(list, 1);
    libusb_exit(nullptr);
    EXPECT_EQ(fake::leftovers(), "");
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeAccountingTest, ListFreedWithoutUnreferencingLeavesTheReferences) {
    const Context context;
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(nullptr, &list), 1);
    libusb_free_device_list(list, 0);
    EXPECT_EQ(fake::references("dev1"), 1);
    libusb_unref_device(device);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeAccountingTest, WrongUsesOfHandlesAreRecorded) {
    libusb_device_handle* const handle = open(fake::plug("dev1", fake::bulkReader()));
    EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
    libusb_close(handle);
    libusb_close(handle);
    EXPECT_EQ(libusb_reset_device(handle), LIBUSB_ERROR_OTHER);
    EXPECT_EQ(libusb_reset_device(nullptr), LIBUSB_ERROR_OTHER);
    int wild = 0;
    EXPECT_EQ(libusb_claim_interface(reinterpret_cast<libusb_device_handle*>(&wild), 0), LIBUSB_ERROR_OTHER);
    libusb_close(nullptr);
    EXPECT_EQ(fake::misuses(),
              (Lines{"libusb_close: hnd1 has interface 0 claimed", "libusb_close: hnd1 after it was closed",
                     "libusb_reset_device: hnd1 after it was closed", "libusb_reset_device: a null handle",
                     "libusb_claim_interface: a handle that libusb never gave out"}));
}

TEST_F(FakeAccountingTest, WrongUsesOfDevicesAreRecorded) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_unref_device(device);
    libusb_ref_device(device);
    fake::unplug("dev1");
    EXPECT_EQ(fake::misuses(), Lines{"libusb_unref_device: dev1 is not referenced"});
    libusb_unref_device(device);
    libusb_device_handle* handle = nullptr;
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_OTHER);
    libusb_unref_device(device);
    libusb_unref_device(nullptr);
    libusb_ref_device(nullptr);
    EXPECT_EQ(fake::misuses(), (Lines{"libusb_unref_device: dev1 is not referenced",
                                      "libusb_open: dev1 after its last reference was given back",
                                      "libusb_unref_device: dev1 after its last reference was given back",
                                      "libusb_ref_device: a null device"}));
}

TEST_F(FakeAccountingTest, OpenHandleKeepsAnUnpluggedDevice) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* const handle = open(device);
    fake::unplug("dev1");
    EXPECT_EQ(libusb_get_bus_number(device), 1);
    EXPECT_EQ(fake::misuses(), Lines{});
    libusb_close(handle);
    EXPECT_EQ(libusb_get_bus_number(device), 0);
    EXPECT_EQ(fake::misuses(), Lines{"libusb_get_bus_number: dev1 after its last reference was given back"});
}

TEST_F(FakeAccountingTest, InvalidListsAndDescriptorsAreRecorded) {
    const Context context;
    libusb_device** list = nullptr;
    libusb_get_device_list(nullptr, &list);
    libusb_free_device_list(list, 1);
    libusb_free_device_list(list, 1);
    libusb_free_device_list(nullptr, 1);
    libusb_config_descriptor config = {};
    libusb_free_config_descriptor(&config);
    libusb_free_config_descriptor(nullptr);
    libusb_get_config_descriptor(fake::plug("dev1", fake::bulkReader()), 0, nullptr);
    libusb_hotplug_deregister_callback(nullptr, 0);
    libusb_hotplug_deregister_callback(nullptr, 5);
    EXPECT_EQ(fake::misuses(), (Lines{"libusb_free_device_list: not a list that is held",
                                      "libusb_free_config_descriptor: not a descriptor that is held",
                                      "libusb_get_config_descriptor: no place for the descriptor",
                                      "libusb_hotplug_deregister_callback: no callback 5 is registered"}));
}

TEST_F(FakeAccountingTest, MillionsOfHandlesDoNotAccumulate) {
    fake::recordNothing();
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    for (int i = 0; i < 20'000; ++i) {
        libusb_close(open(device));
    }
    for (int i = 0; i < 3'000; ++i) {
        const std::string name = "dev" + std::to_string(i + 2);
        fake::plug(name, fake::bulkReader());
        fake::unplug(name);
    }
    EXPECT_THROW(fake::references("dev2"), std::invalid_argument) << "the oldest dead devices are freed";
    EXPECT_EQ(fake::references("dev3001"), 0);
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeAccountingTest, FreesDeadObjectsOnRequest) {
    libusb_device_handle* const closed = open(fake::plug("dev1", fake::bulkReader()));
    libusb_close(closed);
    fake::unplug("dev1");
    libusb_device_handle* const held = open(fake::plug("dev2", fake::bulkReader()));
    fake::unplug("dev2");
    fake::forgetDead();
    EXPECT_THROW(fake::references("dev1"), std::invalid_argument);
    EXPECT_EQ(fake::openHandles("dev2"), 1) << "open handles are not freed";
    libusb_close(held);
    EXPECT_EQ(fake::misuses(), Lines());
    libusb_close(closed);
    EXPECT_EQ(fake::misuses().size(), 1U) << "an unknown pointer";
}

#include "fake_libusb_test.h"

#include <thread>

namespace fake = fake_libusb;
using FakeRecordTest = FakeLibusbTest;

namespace {

int ignoreEvent(libusb_context*, libusb_device*, libusb_hotplug_event, void*) {
    return 0;
}

} // namespace

TEST_F(FakeRecordTest, EveryCallIsALineOfTheDocumentedForm) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_descriptor descriptor = {};
    libusb_config_descriptor* config = nullptr;
    libusb_device** list = nullptr;
    libusb_hotplug_callback_handle callback = 0;
    unsigned char data[256] = {};
    int transferred = 0;

    libusb_init(nullptr);
    libusb_get_version();
    libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG);
    libusb_has_capability(LIBUSB_CAP_HAS_HID_ACCESS);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    libusb_set_debug(nullptr, 3);
#pragma GCC diagnostic pop
    libusb_hotplug_register_callback(nullptr, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, 0, 0x1209,
                                     LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, ignoreEvent, nullptr,
                                     &callback);
    libusb_hotplug_deregister_callback(nullptr, callback);
    libusb_get_device_list(nullptr, &list);
    libusb_free_device_list(list, 1);
    libusb_get_device_descriptor(device, &descriptor);
    libusb_get_config_descriptor(device, 0, &config);
    libusb_free_config_descriptor(config);
    libusb_ref_device(device);
    libusb_get_bus_number(device);
    libusb_get_device_address(device);
    libusb_device_handle* const handle = open(device);
    libusb_get_string_descriptor_ascii(handle, 1, data, 256);
    libusb_set_configuration(handle, 1);
    libusb_detach_kernel_driver(handle, 0);
    libusb_claim_interface(handle, 0);
    libusb_bulk_transfer(handle, 0x02, data, 5, &transferred, 1000);
    libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 256, 1000);
    libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 256, 20);
    libusb_clear_halt(handle, 0x02);
    libusb_reset_device(handle);
    libusb_release_interface(handle, 0);
    libusb_close(handle);
    libusb_unref_device(device);
    libusb_try_lock_events(nullptr);
    libusb_unlock_events(nullptr);
    libusb_exit(nullptr);

    EXPECT_EQ(fake::takeCallText(), "libusb_init(default) = 0\n"
                                    "libusb_get_version()\n"
                                    "libusb_has_capability(1) = 1\n"
                                    "libusb_has_capability(256) = 0\n"
                                    "libusb_set_debug(default, 3)\n"
                                    "libusb_hotplug_register_callback(default, 1, 0, 0x1209, -1, -1) = 0\n"
                                    "libusb_hotplug_deregister_callback(default, 1)\n"
                                    "libusb_get_device_list(default) = 1\n"
                                    "libusb_free_device_list(list, 1)\n"
                                    "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev1)\n"
                                    "libusb_ref_device(dev1)\n"
                                    "libusb_get_bus_number(dev1) = 1\n"
                                    "libusb_get_device_address(dev1) = 1\n"
                                    "libusb_open(dev1) = 0\n"
                                    "libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 6\n"
                                    "libusb_set_configuration(hnd1, 1) = 0\n"
                                    "libusb_detach_kernel_driver(hnd1, 0) = -5\n"
                                    "libusb_claim_interface(hnd1, 0) = 0\n"
                                    "libusb_bulk_transfer(hnd1, 0x02, 5, 1000) = 0\n"
                                    "libusb_control_transfer(hnd1, 0xc0, 0, 0, 0, 256, 1000) = 5\n"
                                    "libusb_control_transfer(hnd1, 0xc0, 0, 0, 0, 256, 20) = -7\n"
                                    "libusb_clear_halt(hnd1, 0x02) = 0\n"
                                    "libusb_reset_device(hnd1) = 0\n"
                                    "libusb_release_interface(hnd1, 0) = 0\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n"
                                    "libusb_try_lock_events(default) = 0\n"
                                    "libusb_unlock_events(default)\n"
                                    "libusb_exit(default)\n");
    EXPECT_EQ(fake::takeCallText(), "");
    EXPECT_EQ(fake::leftovers(), "");
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeRecordTest, CanBeRestricted) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    const auto run = [&] {
        libusb_ref_device(device);
        libusb_close(open(device));
        libusb_unref_device(device);
        return fake::takeCalls();
    };
    EXPECT_EQ(run(), (Lines{"libusb_ref_device(dev1)", "libusb_open(dev1) = 0", "libusb_close(hnd1)",
                            "libusb_unref_device(dev1)"}));
    fake::recordWithoutBookkeeping();
    EXPECT_EQ(run(), (Lines{"libusb_open(dev1) = 0", "libusb_close(hnd1)"}));
    fake::recordAllBut({"libusb_open", "libusb_close"});
    EXPECT_EQ(run(), (Lines{"libusb_ref_device(dev1)", "libusb_unref_device(dev1)"}));
    fake::recordNothing();
    EXPECT_EQ(run(), Lines{});
    fake::recordAll();
    EXPECT_EQ(run().size(), 4u);
    EXPECT_EQ(fake::timesCalled("libusb_open"), 5u);
    EXPECT_THROW(fake::recordAllBut({"libusb_opne"}), std::invalid_argument);
}

TEST_F(FakeRecordTest, CanBeLimitedToOneThread) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    fake::watchOnlyThisThread();
    fake::failNext("libusb_open", LIBUSB_ERROR_IO);
    fake::failCall(2, LIBUSB_ERROR_IO);
    std::thread([&] {
        for (int i = 0; i < 3; ++i) {
            libusb_close(open(device));
        }
    }).join();
    EXPECT_EQ(fake::takeCalls(), Lines{});
    EXPECT_EQ(fake::fallibleCalls(), 0u);
    EXPECT_EQ(fake::timesCalled("libusb_open"), 3u);
    libusb_device_handle* handle = nullptr;
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_IO);
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_IO);
    EXPECT_EQ(fake::takeCalls(), (Lines{"libusb_open(dev1) = -1", "libusb_open(dev1) = -1"}));
    EXPECT_EQ(fake::leftovers(), "");
}

#include "fake_libusb_test.h"

namespace fake = fake_libusb;
using FakeFailuresTest = FakeLibusbTest;

namespace {

int ignoreEvent(libusb_context*, libusb_device*, libusb_hotplug_event, void*) {
    return 0;
}

} // namespace

TEST_F(FakeFailuresTest, OccurInPlannedOrder) {
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* handle = nullptr;
    fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
    fake::failNext("libusb_open", LIBUSB_ERROR_NO_MEM);
    fake::failNth("libusb_open", 4, LIBUSB_ERROR_IO);
    EXPECT_FALSE(fake::failurePlayed());
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_ACCESS);
    EXPECT_TRUE(fake::failurePlayed());
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(handle, nullptr);
    libusb_close(open(device));
    EXPECT_EQ(libusb_open(device, &handle), LIBUSB_ERROR_IO);
    libusb_close(open(device));
    EXPECT_EQ(fake::leftovers(), "");
}

TEST_F(FakeFailuresTest, CanPersistAndAffectOneDevice) {
    libusb_device* const first = fake::plug("dev1", fake::bulkReader());
    libusb_device* const second = fake::plug("dev2", fake::bulkReader());
    libusb_device_handle* const firstHandle = open(first);
    libusb_device_handle* const secondHandle = open(second);
    fake::failAlways("libusb_claim_interface", LIBUSB_ERROR_BUSY, "dev2");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(libusb_claim_interface(firstHandle, 0), 0);
        EXPECT_EQ(libusb_claim_interface(secondHandle, 0), LIBUSB_ERROR_BUSY);
        EXPECT_EQ(libusb_release_interface(firstHandle, 0), 0);
    }
    fake::stopFailing();
    EXPECT_EQ(libusb_claim_interface(secondHandle, 0), 0);
    EXPECT_EQ(libusb_release_interface(secondHandle, 0), 0);
    libusb_close(firstHandle);
    libusb_close(secondHandle);
}

TEST_F(FakeFailuresTest, EveryFunctionThatReturnsACodeCanFailAndThenHasNoEffect) {
    const Context context;
    libusb_device* const device = fake::plug("dev1", fake::bulkReader());
    libusb_device_handle* const handle = open(device);
    unsigned char data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    int transferred = 77;
    libusb_device** list = nullptr;
    libusb_device_descriptor descriptor = {};
    libusb_config_descriptor* config = nullptr;
    libusb_device_handle* another = nullptr;
    libusb_hotplug_callback_handle callback = 0;
    const std::vector<std::pair<const char*, std::function<long()>>> calls = {
        {"libusb_get_device_list", [&] { return libusb_get_device_list(nullptr, &list); }},
        {"libusb_get_device_descriptor", [&] { return libusb_get_device_descriptor(device, &descriptor); }},
        {"libusb_get_config_descriptor", [&] { return libusb_get_config_descriptor(device, 0, &config); }},
        {"libusb_open", [&] { return libusb_open(device, &another); }},
        {"libusb_get_string_descriptor_ascii",
         [&] { return libusb_get_string_descriptor_ascii(handle, 1, data, 8); }},
        {"libusb_set_configuration", [&] { return libusb_set_configuration(handle, 1); }},
        {"libusb_detach_kernel_driver", [&] { return libusb_detach_kernel_driver(handle, 0); }},
        {"libusb_claim_interface", [&] { return libusb_claim_interface(handle, 0); }},
        {"libusb_release_interface", [&] { return libusb_release_interface(handle, 0); }},
        {"libusb_clear_halt", [&] { return libusb_clear_halt(handle, 0x02); }},
        {"libusb_reset_device", [&] { return libusb_reset_device(handle); }},
        {"libusb_bulk_transfer",
         [&] { return libusb_bulk_transfer(handle, 0x02, data, 8, &transferred, 1); }},
        {"libusb_control_transfer",
         [&] { return libusb_control_transfer(handle, 0xC0, 0, 0, 0, data, 8, 1); }},
        {"libusb_hotplug_register_callback",
         [&] {
             return libusb_hotplug_register_callback(nullptr, 1, 0, -1, -1, -1, ignoreEvent, nullptr,
                                                     &callback);
         }},
    };
    const std::size_t before = fake::fallibleCalls();
    for (const auto& [function, call] : calls) {
        fake::failNext(function, -77);
        EXPECT_EQ(call(), -77) << function;
    }
    EXPECT_EQ(fake::fallibleCalls() - before, calls.size());
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(descriptor.bLength, 0);
    EXPECT_EQ(config, nullptr);
    EXPECT_EQ(another, nullptr);
    EXPECT_EQ(callback, 0);
    EXPECT_EQ(transferred, 77);
    EXPECT_EQ(data[0], 1);
    EXPECT_TRUE(fake::frames("dev1").empty());
    EXPECT_EQ(fake::leftovers(), "hnd1: open\n");
    libusb_close(handle);
    EXPECT_THROW(fake::failNext("libusb_close", -1), std::invalid_argument);
    EXPECT_THROW(fake::failNext("libusb_no_such_function", -1), std::invalid_argument);
    EXPECT_THROW(fake::failNth("libusb_open", 0, -1), std::invalid_argument);
}

TEST_F(FakeFailuresTest, SweepFailsEveryCallOnceAndEnds) {
    std::string met;
    std::size_t n = 1;
    for (;; ++n) {
        fake::reset();
        libusb_device* const device = fake::plug("dev1", fake::bulkReader());
        fake::failCall(n, LIBUSB_ERROR_IO);
        libusb_ref_device(device);
        libusb_device_handle* handle = nullptr;
        if (libusb_open(device, &handle) != 0) {
            met += "open ";
        } else {
            met += libusb_claim_interface(handle, 0) != 0 ? "claim " : "";
            met += libusb_release_interface(handle, 0) == LIBUSB_ERROR_IO ? "release " : "";
            libusb_close(handle);
        }
        libusb_unref_device(device);
        EXPECT_EQ(fake::leftovers(), "");
        EXPECT_EQ(fake::misuses(), Lines{});
        if (!fake::failurePlayed()) {
            break;
        }
    }
    EXPECT_EQ(met, "open claim release ");
    EXPECT_EQ(n, 4u);
}

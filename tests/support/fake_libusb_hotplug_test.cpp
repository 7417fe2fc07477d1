#include "fake_libusb_test.h"

namespace fake = fake_libusb;

namespace {

struct Event {
    libusb_device* device;
    int event;
    bool operator==(const Event&) const = default;
};

std::vector<Event> events;

int note(libusb_context* context, libusb_device* device, libusb_hotplug_event event, void* result) {
    EXPECT_EQ(context, nullptr);
    EXPECT_NE(libusb_get_device_address(device), 0) << "an unplugged device can still be queried";
    events.push_back({device, event});
    return result == nullptr ? 0 : 1;
}

class FakeHotplugTest : public FakeLibusbTest {
protected:
    FakeHotplugTest() { events.clear(); }

    static int watch(int event, int vendor = LIBUSB_HOTPLUG_MATCH_ANY, int product = LIBUSB_HOTPLUG_MATCH_ANY,
                     void* result = nullptr, int flags = 0) {
        libusb_hotplug_callback_handle handle = -1;
        EXPECT_EQ(libusb_hotplug_register_callback(nullptr, event, flags, vendor, product,
                                                   LIBUSB_HOTPLUG_MATCH_ANY, note, result, &handle),
                  0);
        return handle;
    }

    const Context context;
};

} // namespace

TEST_F(FakeHotplugTest, CallsMatchingCallbacks) {
    libusb_device* const reader = fake::plug("dev1", fake::bulkReader());
    fake::plug("lamp", fake::foreignDevice());
    const int arrived = watch(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, GVUSB_VENDOR_ID);
    const int left = watch(LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, GVUSB_VENDOR_ID);
    const int otherProduct = watch(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, GVUSB_VENDOR_ID, 4);
    EXPECT_EQ(fake::registeredCallbacks(), 3);
    EXPECT_EQ(fake::fireArrived("dev1"), 1);
    EXPECT_EQ(fake::fireArrived("lamp"), 0);
    fake::unplug("dev1");
    EXPECT_EQ(fake::fireLeft("dev1"), 1);
    EXPECT_EQ(events, (std::vector<Event>{{reader, 1}, {reader, 2}}));
    for (const int handle : {arrived, left, otherProduct}) {
        libusb_hotplug_deregister_callback(nullptr, handle);
    }
    EXPECT_EQ(fake::registeredCallbacks(), 0);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeHotplugTest, CallbackThatReturnsNonzeroIsDeregistered) {
    fake::plug("dev1", fake::bulkReader());
    watch(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, GVUSB_VENDOR_ID, 1, this);
    EXPECT_EQ(fake::fireArrived("dev1"), 1);
    EXPECT_EQ(fake::fireArrived("dev1"), 0);
    EXPECT_EQ(fake::registeredCallbacks(), 0);
}

TEST_F(FakeHotplugTest, EnumerationReportsPresentDevices) {
    libusb_device* const reader = fake::plug("dev1", fake::bulkReader());
    const int handle = watch(LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, LIBUSB_HOTPLUG_MATCH_ANY,
                             LIBUSB_HOTPLUG_MATCH_ANY, nullptr, LIBUSB_HOTPLUG_ENUMERATE);
    EXPECT_EQ(events, (std::vector<Event>{{reader, 1}}));
    libusb_hotplug_deregister_callback(nullptr, handle);
}

TEST_F(FakeHotplugTest, SynchronousTransfersAreBusyInsideEventHandlingOnly) {
    static std::vector<int> codes;
    codes.clear();
    const auto readId = [](libusb_context*, libusb_device* device, libusb_hotplug_event, void*) {
        unsigned char text[16] = {};
        libusb_device_handle* handle = nullptr;
        codes.push_back(libusb_open(device, &handle));
        codes.push_back(libusb_get_string_descriptor_ascii(handle, 1, text, sizeof text));
        codes.push_back(libusb_bulk_transfer(handle, 0x02, text, 1, nullptr, 1));
        codes.push_back(libusb_control_transfer(handle, 0x40, 0, 0, 0, text, 1, 1));
        codes.push_back(libusb_try_lock_events(nullptr));
        if (codes.back() == 0) {
            libusb_unlock_events(nullptr);
        }
        libusb_close(handle);
        return 0;
    };
    fake::plug("dev1", fake::bulkReader());
    libusb_hotplug_callback_handle handle = 0;
    ASSERT_EQ(libusb_hotplug_register_callback(nullptr, 3, 0, -1, -1, -1, readId, nullptr, &handle), 0);
    EXPECT_EQ(fake::fireArrived("dev1"), 1);
    EXPECT_EQ(fake::fireArrived("dev1", fake::Delivery::plain), 1);
    EXPECT_EQ(codes, (std::vector<int>{0, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_BUSY, 1, //
                                       0, 6, 0, 1, 0}));
    libusb_hotplug_deregister_callback(nullptr, handle);
    EXPECT_EQ(fake::misuses(), Lines{});
}

TEST_F(FakeHotplugTest, RegistrationRejectsWhatLibusbRejects) {
    libusb_hotplug_callback_handle handle = 0;
    const auto attempt = [&](int chosen, int vendor) {
        return libusb_hotplug_register_callback(nullptr, static_cast<libusb_hotplug_event>(chosen), 0, vendor,
                                                -1, -1, note, nullptr, &handle);
    };
    EXPECT_EQ(attempt(0, -1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(attempt(4, -1), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(attempt(1, 0x10000), LIBUSB_ERROR_INVALID_PARAM);
    fake::setCapability(LIBUSB_CAP_HAS_HOTPLUG, false);
    EXPECT_EQ(libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG), 0);
    EXPECT_EQ(attempt(1, -1), LIBUSB_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(fake::registeredCallbacks(), 0);
}

TEST_F(FakeHotplugTest, RegistrationsOutliveResetWithoutBeingLeftovers) {
    const int handle = watch(LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT);
    EXPECT_EQ(fake::leftovers(), "callback 1: registered\n");
    fake::reset();
    EXPECT_EQ(fake::leftovers(), "");
    fake::plug("dev1", fake::bulkReader());
    EXPECT_EQ(fake::fireLeft("dev1"), 1);
    libusb_hotplug_deregister_callback(nullptr, handle);
}

// Registration and delivery of hot-plug callbacks.

#include "fake_libusb_call.h"

#include <utility>

using namespace fake_libusb;

namespace {

constexpr int allEvents = LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT;

bool inRange(int id, int highest) {
    return id == LIBUSB_HOTPLUG_MATCH_ANY || (id >= 0 && id <= highest);
}

int lowestFreeHandle(const std::vector<Registration>& registrations) {
    int handle = 1;
    while (std::ranges::find(registrations, handle, &Registration::handle) != registrations.end()) {
        ++handle;
    }
    return handle;
}

// The stand-in's devices all have class 0, so a callback for another class never matches.
bool matches(const Registration& registration, const libusb_device& device, int event) {
    const auto accepts = [](int wanted, int present) {
        return wanted == LIBUSB_HOTPLUG_MATCH_ANY || wanted == present;
    };
    return (registration.events & event) != 0 && accepts(registration.vendor, device.reader.vendor) &&
           accepts(registration.product, device.reader.product) && accepts(registration.deviceClass, 0);
}

// Marks this thread as handling events for the lifetime of the object.
class EventHandling {
public:
    explicit EventHandling(bool inside)
        : before_(std::exchange(insideEventHandling(), inside || insideEventHandling())) {}
    ~EventHandling() { insideEventHandling() = before_; }
    EventHandling(const EventHandling&) = delete;
    EventHandling& operator=(const EventHandling&) = delete;

private:
    bool before_;
};

std::optional<Registration> registered(int handle) {
    Access all;
    const auto found = std::ranges::find(all->registrations, handle, &Registration::handle);
    return found == all->registrations.end() ? std::nullopt : std::optional(*found);
}

void deregister(int handle) {
    std::erase_if(Access()->registrations, [&](const auto& each) { return each.handle == handle; });
}

void unpin(libusb_device& device) {
    Access all;
    --device.pins;
    all->settle(device);
}

// Keeps an unplugged device until all callbacks have been called, as libusb does.
class Pin {
public:
    explicit Pin(std::string_view name) {
        Access all;
        device_ = &all->named(name);
        device_->dead = false;
        ++device_->pins;
    }
    ~Pin() { unpin(*device_); }
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    libusb_device& device() const { return *device_; }

private:
    libusb_device* device_;
};

int deliver(std::string_view name, libusb_hotplug_event event, Delivery delivery) {
    const Pin pin(name);
    std::vector<int> handles;
    {
        Access all;
        for (const Registration& each : all->registrations) {
            if (matches(each, pin.device(), event)) {
                handles.push_back(each.handle);
            }
        }
    }
    int called = 0;
    for (const int handle : handles) {
        const auto registration = registered(handle);
        if (!registration) {
            continue;
        }
        const EventHandling handling(delivery == Delivery::insideEventHandling);
        ++called;
        if (registration->callback(nullptr, &pin.device(), event, registration->userData) != 0) {
            deregister(handle);
        }
    }
    return called;
}

} // namespace

extern "C" {

int libusb_hotplug_register_callback(libusb_context* context, int events, int flags, int vendor, int product,
                                     int deviceClass, libusb_hotplug_callback_fn callback, void* userData,
                                     libusb_hotplug_callback_handle* handle) {
    Call call("libusb_hotplug_register_callback");
    const auto returns = [&](int result) {
        if (vendor == LIBUSB_HOTPLUG_MATCH_ANY) {
            return call.returns(result, context, events, flags, vendor, product, deviceClass);
        }
        const Hexadecimal vendorId{static_cast<unsigned>(vendor), 4};
        return call.returns(result, context, events, flags, vendorId, product, deviceClass);
    };
    if (!call.usable(context)) {
        return returns(LIBUSB_ERROR_OTHER);
    }
    if (const auto code = call.failure()) {
        return returns(*code);
    }
    if (!call.state.test.capabilities[LIBUSB_CAP_HAS_HOTPLUG]) {
        return returns(LIBUSB_ERROR_NOT_SUPPORTED);
    }
    if (events == 0 || (events & ~allEvents) != 0 || (flags & ~LIBUSB_HOTPLUG_ENUMERATE) != 0 ||
        callback == nullptr || !inRange(vendor, 0xFFFF) || !inRange(product, 0xFFFF) ||
        !inRange(deviceClass, 0xFF)) {
        return returns(LIBUSB_ERROR_INVALID_PARAM);
    }
    const Registration made = {.handle = lowestFreeHandle(call.state.registrations),
                               .events = events,
                               .vendor = vendor,
                               .product = product,
                               .deviceClass = deviceClass,
                               .callback = callback,
                               .userData = userData};
    call.state.registrations.push_back(made);
    if (handle != nullptr) {
        *handle = made.handle;
    }
    returns(0);
    if ((flags & LIBUSB_HOTPLUG_ENUMERATE) == 0) {
        return 0;
    }
    const std::vector<libusb_device*> present = call.state.test.bus;
    for (libusb_device* device : present) {
        if (matches(made, *device, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED)) {
            call.unlocked([&] { callback(nullptr, device, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, userData); });
        }
    }
    return 0;
}

void libusb_hotplug_deregister_callback(libusb_context* context, libusb_hotplug_callback_handle handle) {
    Call call("libusb_hotplug_deregister_callback");
    call.done(context, handle);
    // libusb never assigns the handle 0 and ignores it.
    if (!call.usable(context) || handle == 0) {
        return;
    }
    if (std::erase_if(call.state.registrations, [&](const auto& each) { return each.handle == handle; }) ==
        0) {
        call.misuse("no callback " + std::to_string(handle) + " is registered");
    }
}

} // extern "C"

namespace fake_libusb {

int fireArrived(std::string_view name, Delivery delivery) {
    return deliver(name, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, delivery);
}

int fireLeft(std::string_view name, Delivery delivery) {
    return deliver(name, LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, delivery);
}

int registeredCallbacks() {
    return static_cast<int>(Access()->registrations.size());
}

} // namespace fake_libusb

// What the code under test holds, and its misuses.

#include "fake_libusb_state.h"

namespace fake_libusb {
namespace {

// Lines in the order in which the devices were plugged, independent of hash order.
void addHandles(std::string& text, const libusb_device& device) {
    std::map<int, const libusb_device_handle*> bySlot;
    for (const libusb_device_handle* handle : device.handles) {
        if (handle->ofThisTest) {
            bySlot.emplace(handle->slot, handle);
        }
    }
    for (const auto& [slot, handle] : bySlot) {
        text += handle->name + ": open\n";
        for (const int interface : handle->claimed) {
            text += handle->name + ": interface " + std::to_string(interface) + " claimed\n";
        }
    }
}

} // namespace

std::string leftovers() {
    Access all;
    std::string text;
    for (const auto& device : all->devices) {
        const int references = device->references - device->oldReferences;
        if (references > 0) {
            text += device->name + ": " + std::to_string(references) +
                    (references == 1 ? " reference\n" : " references\n");
        }
        addHandles(text, *device);
    }
    std::multiset<std::string> configurations;
    for (const auto& [pointer, configuration] : all->configurations) {
        if (configuration->ofThisTest) {
            configurations.insert(configuration->name + ": not freed\n");
        }
    }
    for (const std::string& line : configurations) {
        text += line;
    }
    for (const auto& [pointer, list] : all->lists) {
        if (list.ofThisTest) {
            text += "list: not freed\n";
        }
    }
    for (const auto& [pointer, transfer] : all->transfers) {
        if (transfer.ofThisTest) {
            text += "transfer: allocated\n";
        }
    }
    for (const Registration& registration : all->registrations) {
        if (registration.ofThisTest) {
            text += "callback " + std::to_string(registration.handle) + ": registered\n";
        }
    }
    if (all->test.initializations > 0) {
        text += "libusb_init: " + std::to_string(all->test.initializations) + " without libusb_exit\n";
    }
    if (all->test.eventsLockHolder) {
        text += "events lock: held\n";
    }
    if (all->test.waitersLockHolder) {
        text += "event waiters' lock: held\n";
    }
    return text;
}

int references(std::string_view name) {
    return Access()->named(name).references;
}

int openHandles(std::string_view name) {
    return static_cast<int>(Access()->named(name).handles.size());
}

std::vector<std::string> misuses() {
    return Access()->test.misuses;
}

} // namespace fake_libusb

// Changes of the bus by the test.

#include "fake_libusb_state.h"

#include <utility>

namespace fake_libusb {
namespace {

constexpr std::uint8_t highestAddress = 127;

void place(State& all, libusb_device& device, std::string_view name, FakeReader reader) {
    std::uint8_t& last = all.test.lastAddress;
    const std::uint8_t next = last == highestAddress ? std::uint8_t{1} : static_cast<std::uint8_t>(last + 1);
    device.name = name;
    device.address = reader.address != 0 ? reader.address : next;
    last = std::max(last, device.address);
    if (reader.address == 0) {
        last = device.address;
    }
    device.activeConfiguration =
        reader.configurations.empty() ? std::uint8_t{0} : reader.configurations[0].value;
    device.reader = std::move(reader);
    all.test.bus.push_back(&device);
}

void requireFree(const State& all, std::string_view name) {
    for (const auto& device : all.devices) {
        if (device->ofThisTest && !device->dead && device->name == name) {
            throw std::invalid_argument("a device named " + std::string(name) + " still exists");
        }
    }
}

libusb_device* plugNew(State& all, std::string_view name, FakeReader reader) {
    requireFree(all, name);
    libusb_device& device = *all.devices.emplace_back(std::make_unique<libusb_device>());
    all.knownDevices.emplace(&device, &device);
    place(all, device, name, std::move(reader));
    return &device;
}

void detach(State& all, libusb_device& device) {
    std::erase(all.test.bus, &device);
    device.attached = false;
    device.echo.clear();
    all.transferChanged.notify_all();
    all.settle(device);
}

} // namespace

libusb_device* plug(std::string_view name, FakeReader reader) {
    Access all;
    return plugNew(*all, name, std::move(reader));
}

void unplug(std::string_view name) {
    Access all;
    detach(*all, all->named(name));
}

libusb_device* replug(std::string_view name, std::string_view newName, Pointer pointer) {
    Access all;
    libusb_device& old = all->named(name);
    FakeReader reader = old.reader;
    reader.address = 0;
    if (pointer == Pointer::fresh) {
        // Copied first, because unplugging may destroy the old device.
        detach(*all, old);
        return plugNew(*all, newName, std::move(reader));
    }
    if (old.references > 0 || !old.handles.empty() || old.pins > 0) {
        throw std::logic_error("libusb cannot use the pointer of " + old.name +
                               " again: it is still referenced or open");
    }
    detach(*all, old);
    requireFree(*all, newName);
    old = libusb_device();
    place(*all, old, newName, std::move(reader));
    return &old;
}

void change(std::string_view name, const std::function<void(FakeReader&)>& edit) {
    const support::AllocationPause pause;
    FakeReader reader = Access()->named(name).reader;
    edit(reader);
    Access all;
    libusb_device& device = all->named(name);
    if (reader.address != 0) {
        device.address = reader.address;
    }
    if (reader.kernelDriver != device.reader.kernelDriver) {
        device.driverDetached = false;
    }
    device.reader = std::move(reader);
}

void setString(std::string_view name, std::uint8_t index, FakeString answer) {
    Access all;
    all->named(name).reader.strings[index] = std::move(answer);
}

libusb_device* device(std::string_view name) {
    return &Access()->named(name);
}

void reset() {
    // Destroy the old hook and handler after releasing the lock: their destructors may call libusb.
    Test old;
    Access all;
    std::swap(old, all->test);
    for (libusb_device* device : old.bus) {
        detach(*all, *device);
    }
    for (const auto& device : all->devices) {
        device->ofThisTest = false;
        device->oldReferences = device->references;
    }
    for (const auto& [pointer, handle] : all->handles) {
        handle->ofThisTest = false;
    }
    for (const auto& [pointer, configuration] : all->configurations) {
        configuration->ofThisTest = false;
    }
    for (auto& [pointer, list] : all->lists) {
        list.ofThisTest = false;
    }
    for (Registration& registration : all->registrations) {
        registration.ofThisTest = false;
    }
    for (auto& [pointer, transfer] : all->transfers) {
        transfer.ofThisTest = false;
    }
}

void forgetDead() {
    Access all;
    std::erase_if(all->devices, [&](const auto& device) {
        return device->dead && all->knownDevices.erase(device.get()) > 0;
    });
    for (const libusb_device_handle* handle : all->closedHandles) {
        all->handles.erase(handle);
    }
    all->closedHandles.clear();
}

} // namespace fake_libusb

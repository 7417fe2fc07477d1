#include "fake_libusb_state.h"

namespace fake_libusb {
namespace {

// Large enough that a test's stale pointers are still recognized, small enough for millions of open and close
// calls.
constexpr std::size_t deadDevicesKept = 1024;
constexpr std::size_t closedHandlesKept = 1024;

constinit thread_local bool eventHandling = false;

} // namespace

State& state() {
    static State& instance = *new State;
    return instance;
}

bool& insideEventHandling() {
    return eventHandling;
}

libusb_device& State::named(std::string_view name) {
    for (auto device = devices.rbegin(); device != devices.rend(); ++device) {
        if ((*device)->ofThisTest && (*device)->name == name) {
            return **device;
        }
    }
    throw std::invalid_argument("the test has plugged no device named " + std::string(name));
}

void State::settle(libusb_device& device) {
    if (device.attached || device.references > 0 || !device.handles.empty() || device.pins > 0) {
        return;
    }
    device.dead = true;
    std::size_t dead =
        static_cast<std::size_t>(std::ranges::count_if(devices, [](const auto& each) { return each->dead; }));
    std::erase_if(devices, [&](const auto& each) {
        if (dead <= deadDevicesKept || !each->dead) {
            return false;
        }
        --dead;
        knownDevices.erase(each.get());
        return true;
    });
}

void State::retire(libusb_device_handle& handle) {
    handle.open = false;
    handle.device->handles.erase(&handle);
    settle(*handle.device);
    closedHandles.push_back(&handle);
    if (closedHandles.size() > closedHandlesKept) {
        handles.erase(closedHandles.front());
        closedHandles.pop_front();
    }
}

void State::misuse(const Function& function, const std::string& text) {
    test.misuses.push_back(std::string(function.name()) + ": " + text);
}

} // namespace fake_libusb

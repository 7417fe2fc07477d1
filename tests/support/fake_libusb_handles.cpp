// Calls that open and close a device and prepare it for transfers.

#include "fake_libusb_call.h"

using namespace fake_libusb;

namespace {

std::string handleName(const std::string& device, int slot) {
    constexpr std::string_view usual = "dev";
    const std::string name =
        device.starts_with(usual) ? "hnd" + device.substr(usual.size()) : "hnd(" + device + ")";
    return slot == 1 ? name : name + "#" + std::to_string(slot);
}

int freeSlot(const libusb_device& device) {
    int slot = 1;
    while (std::ranges::any_of(device.handles, [&](const auto* handle) { return handle->slot == slot; })) {
        ++slot;
    }
    return slot;
}

bool driverBound(const libusb_device& device, int interface) {
    return interface == 0 && device.reader.kernelDriver && !device.driverDetached;
}

bool claimedBy(const libusb_device& device, auto who) {
    return std::ranges::any_of(device.handles, who);
}

const FakeConfiguration* activeConfiguration(const libusb_device& device) {
    const auto& all = device.reader.configurations;
    const auto found = std::ranges::find(all, device.activeConfiguration, &FakeConfiguration::value);
    return found == all.end() ? nullptr : &*found;
}

bool hasInterface(const libusb_device& device, int wanted) {
    const FakeConfiguration* active = activeConfiguration(device);
    if (active == nullptr) {
        return false;
    }
    for (std::size_t i = 0; i < active->interfaces.size(); ++i) {
        if (active->interfaces[i].number.value_or(static_cast<std::uint8_t>(i)) == wanted) {
            return true;
        }
    }
    return false;
}

} // namespace

namespace fake_libusb {

bool hasEndpoint(const libusb_device& device, std::uint8_t address) {
    const FakeConfiguration* active = activeConfiguration(device);
    if (active == nullptr) {
        return false;
    }
    for (const FakeInterface& interface : active->interfaces) {
        for (const FakeAltSetting& altSetting : interface.altSettings) {
            if (std::ranges::find(altSetting, address, &FakeEndpoint::address) != altSetting.end()) {
                return true;
            }
        }
    }
    return false;
}

} // namespace fake_libusb

extern "C" {

int libusb_open(libusb_device* device, libusb_device_handle** handle) {
    Call call("libusb_open", device);
    if (!call.usable(device) || !call.given(handle, "place for the handle")) {
        return call.returns(LIBUSB_ERROR_OTHER, device);
    }
    if (const auto code = call.failure()) {
        return call.returns(*code, device);
    }
    if (!device->attached) {
        return call.returns(LIBUSB_ERROR_NO_DEVICE, device);
    }
    auto made = std::make_unique<libusb_device_handle>();
    made->slot = freeSlot(*device);
    made->name = handleName(device->name, made->slot);
    made->deviceName = device->name;
    made->device = device;
    device->handles.insert(made.get());
    *handle = made.get();
    call.state.handles.emplace(*handle, std::move(made));
    return call.returns(0, device);
}

void libusb_close(libusb_device_handle* handle) {
    Call call("libusb_close", handle);
    call.done(handle);
    if (handle == nullptr || !call.usable(handle)) {
        return;
    }
    if (!insideEventHandling()) {
        call.waitsForEvents();
    }
    for (const auto& [transfer, submitted] : call.state.transfers) {
        if (submitted.pending && transfer->dev_handle == handle) {
            call.misuse(handle->name + " has a pending transfer");
        }
    }
    for (const int interface : handle->claimed) {
        if (!handle->releaseTried.contains(interface)) {
            call.misuse(handle->name + " has interface " + std::to_string(interface) + " claimed");
        }
    }
    call.state.retire(*handle);
}

int libusb_set_configuration(libusb_device_handle* handle, int configuration) {
    Call call("libusb_set_configuration", handle);
    if (const auto code = call.refusal(handle)) {
        return call.returns(*code, handle, configuration);
    }
    libusb_device& device = *handle->device;
    if (driverBound(device, 0) || device.reader.claimedElsewhere ||
        claimedBy(device, [](const auto* each) { return !each->claimed.empty(); })) {
        return call.returns(LIBUSB_ERROR_BUSY, handle, configuration);
    }
    const auto& all = device.reader.configurations;
    if (std::ranges::none_of(all, [&](const auto& each) { return each.value == configuration; })) {
        return call.returns(LIBUSB_ERROR_NOT_FOUND, handle, configuration);
    }
    device.activeConfiguration = static_cast<std::uint8_t>(configuration);
    return call.returns(0, handle, configuration);
}

int libusb_detach_kernel_driver(libusb_device_handle* handle, int interface) {
    Call call("libusb_detach_kernel_driver", handle);
    if (const auto code = call.refusal(handle)) {
        return call.returns(*code, handle, interface);
    }
    if (!driverBound(*handle->device, interface)) {
        return call.returns(LIBUSB_ERROR_NOT_FOUND, handle, interface);
    }
    handle->device->driverDetached = true;
    return call.returns(0, handle, interface);
}

int libusb_claim_interface(libusb_device_handle* handle, int interface) {
    Call call("libusb_claim_interface", handle);
    if (const auto code = call.refusal(handle)) {
        return call.returns(*code, handle, interface);
    }
    libusb_device& device = *handle->device;
    if (!hasInterface(device, interface)) {
        return call.returns(LIBUSB_ERROR_NOT_FOUND, handle, interface);
    }
    const auto another = [&](const auto* each) {
        return each != handle && each->claimed.contains(interface);
    };
    if (driverBound(device, interface) || (interface == 0 && device.reader.claimedElsewhere) ||
        claimedBy(device, another)) {
        return call.returns(LIBUSB_ERROR_BUSY, handle, interface);
    }
    handle->claimed.insert(interface);
    handle->releaseTried.erase(interface);
    return call.returns(0, handle, interface);
}

int libusb_release_interface(libusb_device_handle* handle, int interface) {
    Call call("libusb_release_interface", handle);
    if (!call.usable(handle)) {
        return call.returns(LIBUSB_ERROR_OTHER, handle, interface);
    }
    handle->releaseTried.insert(interface);
    if (const auto code = call.failure()) {
        return call.returns(*code, handle, interface);
    }
    if (!handle->claimed.contains(interface)) {
        return call.returns(LIBUSB_ERROR_NOT_FOUND, handle, interface);
    }
    if (!handle->device->attached) {
        return call.returns(LIBUSB_ERROR_NO_DEVICE, handle, interface);
    }
    handle->claimed.erase(interface);
    return call.returns(0, handle, interface);
}

int libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
    Call call("libusb_clear_halt", handle);
    const Hexadecimal address{endpoint};
    if (const auto code = call.refusal(handle)) {
        return call.returns(*code, handle, address);
    }
    return call.returns(hasEndpoint(*handle->device, endpoint) ? 0 : LIBUSB_ERROR_NOT_FOUND, handle, address);
}

int libusb_reset_device(libusb_device_handle* handle) {
    Call call("libusb_reset_device", handle);
    if (const auto code = call.refusal(handle)) {
        return call.returns(*code, handle);
    }
    handle->device->echo.clear();
    return call.returns(0, handle);
}

} // extern "C"

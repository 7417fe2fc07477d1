// Calls that find devices, reference them and read their cached descriptors.

#include "fake_libusb_call.h"

using namespace fake_libusb;

namespace {

std::unique_ptr<Configuration> describe(const libusb_device& device, const FakeConfiguration& description) {
    auto made = std::make_unique<Configuration>();
    const auto isNull = [&](FakeList list, bool empty) { return empty || description.nullList == list; };
    made->name = "config of " + device.name;
    for (const FakeInterface& interface : description.interfaces) {
        auto& altSettings = made->altSettings.emplace_back();
        const auto number = static_cast<std::uint8_t>(made->altSettings.size() - 1);
        for (const FakeAltSetting& altSetting : interface.altSettings) {
            auto& endpoints = made->endpoints.emplace_back();
            for (const FakeEndpoint& endpoint : altSetting) {
                auto& described = endpoints.emplace_back();
                described.bLength = LIBUSB_DT_ENDPOINT_SIZE;
                described.bDescriptorType = LIBUSB_DT_ENDPOINT;
                described.bEndpointAddress = endpoint.address;
                described.bmAttributes = endpoint.attributes;
                described.wMaxPacketSize = endpoint.maxPacketSize;
            }
            libusb_interface_descriptor described = {};
            described.bLength = LIBUSB_DT_INTERFACE_SIZE;
            described.bDescriptorType = LIBUSB_DT_INTERFACE;
            described.bInterfaceNumber = interface.number.value_or(number);
            described.bAlternateSetting = static_cast<std::uint8_t>(altSettings.size());
            described.bNumEndpoints = static_cast<std::uint8_t>(endpoints.size());
            described.bInterfaceClass = LIBUSB_CLASS_VENDOR_SPEC;
            described.endpoint = isNull(FakeList::endpoints, endpoints.empty()) ? nullptr : endpoints.data();
            altSettings.push_back(described);
        }
        made->interfaces.push_back(
            {isNull(FakeList::altSettings, altSettings.empty()) ? nullptr : altSettings.data(),
             static_cast<int>(altSettings.size())});
    }
    libusb_config_descriptor& descriptor = made->descriptor;
    descriptor.bLength = LIBUSB_DT_CONFIG_SIZE;
    descriptor.bDescriptorType = LIBUSB_DT_CONFIG;
    descriptor.bNumInterfaces = static_cast<std::uint8_t>(made->interfaces.size());
    descriptor.bConfigurationValue = description.value;
    descriptor.bmAttributes = 0x80;
    descriptor.interface =
        isNull(FakeList::interfaces, made->interfaces.empty()) ? nullptr : made->interfaces.data();
    return made;
}

} // namespace

extern "C" {

ssize_t libusb_get_device_list(libusb_context* context, libusb_device*** list) {
    Call call("libusb_get_device_list");
    if (!call.usable(context) || !call.given(list, "place for the list")) {
        return call.returns(LIBUSB_ERROR_OTHER, context);
    }
    if (const auto code = call.failure()) {
        return call.returns(*code, context);
    }
    const std::vector<libusb_device*>& bus = call.state.test.bus;
    DeviceList made = {.given = std::make_unique<libusb_device*[]>(bus.size() + 1), .devices = bus};
    std::ranges::copy(bus, made.given.get());
    for (libusb_device* device : bus) {
        ++device->references;
    }
    *list = made.given.get();
    call.state.lists.emplace(*list, std::move(made));
    return call.returns(static_cast<ssize_t>(bus.size()), context);
}

void libusb_free_device_list(libusb_device** list, int unreference) {
    Call call("libusb_free_device_list");
    const auto found = call.state.lists.find(list);
    if (found == call.state.lists.end()) {
        call.done(list == nullptr ? "null" : "unknown", unreference);
        if (list != nullptr) {
            call.misuse("not a list that is held");
        }
        return;
    }
    call.done("list", unreference);
    for (libusb_device* device : found->second.devices) {
        if (unreference != 0) {
            call.unreference(*device);
        }
    }
    call.state.lists.erase(found);
}

libusb_device* libusb_ref_device(libusb_device* device) {
    Call call("libusb_ref_device", device);
    call.done(device);
    if (call.usable(device)) {
        ++device->references;
    }
    return device;
}

void libusb_unref_device(libusb_device* device) {
    Call call("libusb_unref_device", device);
    call.done(device);
    if (device != nullptr && call.usable(device)) {
        call.unreference(*device);
    }
}

std::uint8_t libusb_get_bus_number(libusb_device* device) {
    Call call("libusb_get_bus_number", device);
    return call.returns(call.usable(device) ? device->reader.bus : std::uint8_t{0}, device);
}

std::uint8_t libusb_get_device_address(libusb_device* device) {
    Call call("libusb_get_device_address", device);
    return call.returns(call.usable(device) ? device->address : std::uint8_t{0}, device);
}

int libusb_get_device_descriptor(libusb_device* device, libusb_device_descriptor* descriptor) {
    Call call("libusb_get_device_descriptor", device);
    if (!call.usable(device) || !call.given(descriptor, "place for the descriptor")) {
        return call.returns(LIBUSB_ERROR_OTHER, device);
    }
    if (const auto code = call.failure()) {
        return call.returns(*code, device);
    }
    *descriptor = {};
    descriptor->bLength = LIBUSB_DT_DEVICE_SIZE;
    descriptor->bDescriptorType = LIBUSB_DT_DEVICE;
    descriptor->bcdUSB = 0x0200;
    descriptor->bMaxPacketSize0 = 64;
    descriptor->idVendor = device->reader.vendor;
    descriptor->idProduct = device->reader.product;
    descriptor->bcdDevice = 0x0100;
    descriptor->bNumConfigurations = device->reader.reportedConfigurations.value_or(
        static_cast<std::uint8_t>(device->reader.configurations.size()));
    return call.returns(0, device);
}

int libusb_get_config_descriptor(libusb_device* device, std::uint8_t index,
                                 libusb_config_descriptor** config) {
    Call call("libusb_get_config_descriptor", device);
    if (!call.usable(device) || !call.given(config, "place for the descriptor")) {
        return call.returns(LIBUSB_ERROR_OTHER, device, index);
    }
    if (const auto code = call.failure()) {
        return call.returns(*code, device, index);
    }
    if (index >= device->reader.configurations.size()) {
        return call.returns(LIBUSB_ERROR_NOT_FOUND, device, index);
    }
    auto made = describe(*device, device->reader.configurations[index]);
    *config = &made->descriptor;
    call.state.configurations.emplace(*config, std::move(made));
    return call.returns(0, device, index);
}

void libusb_free_config_descriptor(libusb_config_descriptor* config) {
    Call call("libusb_free_config_descriptor");
    const auto found = call.state.configurations.find(config);
    if (found == call.state.configurations.end()) {
        call.done(config == nullptr ? "null" : "unknown");
        if (config != nullptr) {
            call.misuse("not a descriptor that is held");
        }
        return;
    }
    call.done(found->second->name);
    call.state.configurations.erase(found);
}

} // extern "C"

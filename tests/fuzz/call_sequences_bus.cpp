#include "call_sequences_bus.h"

#include "allocation_failure.h"

#include <algorithm>

namespace fake = fake_libusb;

namespace call_sequences {
namespace {

constexpr std::ptrdiff_t maxPlugged = 6;

// Error codes of libusb and one that libusb does not define.
constexpr std::array codes = {-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -99, -77};

struct IdText {
    const char* text; // null if it cannot be read
    std::optional<unsigned> id;
};

const std::array<IdText, 12> idTexts = {{{"A1", 0xA1},
                                         {"A2", 0xA2},
                                         {"A3", 0xA3},
                                         {"0", 0},
                                         {"FFFFFFFF", 0xFFFFFFFF},
                                         {"a1", 0xA1},
                                         {" 0xA2 and more", 0xA2},
                                         {"0000A3", 0xA3},
                                         {"none", std::nullopt},
                                         {"", std::nullopt},
                                         {nullptr, std::nullopt},
                                         {"A1", 0xA1}}};

fake::FakeString answer(const char* text) {
    return text == nullptr ? fake::FakeString(LIBUSB_ERROR_IO) : fake::FakeString(text);
}

fake::FakeReader odd(std::size_t kind, fake::FakeReader reader) {
    switch (kind) {
    case 0: // must be set to configuration 1
        reader.configurations[0].value = 2;
        reader.configurations.push_back({.value = 1});
        break;
    case 1: // has no configuration 1
        reader.configurations[0].value = 2;
        break;
    case 2:
        reader.configurations.clear();
        break;
    case 3:
        reader.reportedConfigurations = 0;
        break;
    case 4: // no interface 0
        reader.configurations[0].interfaces[0].number = 1;
        break;
    case 5: // one direction only
        reader.configurations[0].interfaces[0].altSettings = {{{.address = 0x81}}};
        break;
    default: // several of each, in two alternate settings
        reader.configurations[0].interfaces.push_back({.altSettings = {{{.address = 0x83}}}});
        reader.configurations[0].interfaces[0].altSettings = {
            {{.address = 0x81}, {.address = 0x82}, {.address = 0x05, .attributes = 3}, {.address = 0x06}},
            {{.address = 0x87}, {.address = 0x08}}};
    }
    return reader;
}

} // namespace

void Bus::plug(Input& input) {
    const std::size_t kind = input.number(12);
    const IdText& text = input.oneOf(idTexts);
    if (std::ranges::count_if(m_devices, &Device::plugged) >= maxPlugged) {
        return;
    }
    Device device = {.name = newName(),
                     .usbDevice = nullptr,
                     .plugged = true,
                     .usable = kind < 10,
                     .id = text.id,
                     .opens = true};
    fake::FakeReader reader = kind % 2 == 0 ? fake::bulkReader() : fake::controlReader();
    reader.strings[1] = answer(text.text);
    switch (kind) {
    case 6:
        reader.kernelDriver = true;
        break;
    case 7:
        reader.claimedElsewhere = true;
        break;
    case 8:
    case 9: {
        const std::size_t oddity = input.number(7);
        reader = odd(oddity, std::move(reader));
        device.opens = oddity >= 3;
        break;
    }
    case 10:
        reader.vendor = GVUSB_VENDOR_ID ^ 0x0001;
        break;
    case 11:
        reader.product = 5;
        break;
    default:
        break;
    }
    device.usbDevice = fake::plug(device.name, std::move(reader));
    m_devices.push_back(std::move(device));
}

void Bus::unplug(Input& input) {
    if (Device* const device = choose(input); device != nullptr && device->plugged) {
        fake::unplug(device->name);
        device->plugged = false;
    }
}

// libusb can reuse a pointer only after the last reference to the old device is gone.
void Bus::replug(Input& input, bool mayKeepPointer) {
    Device* const old = choose(input);
    const bool wanted = input.number(2) == 1;
    if (old == nullptr ||
        (!old->plugged && std::ranges::count_if(m_devices, &Device::plugged) >= maxPlugged)) {
        return;
    }
    const bool same =
        wanted && mayKeepPointer && fake::references(old->name) == 0 && fake::openHandles(old->name) == 0;
    Device device = *old;
    device.name = newName();
    device.plugged = true;
    device.usbDevice =
        fake::replug(old->name, device.name, same ? fake::Pointer::same : fake::Pointer::fresh);
    old->plugged = false;
    if (same) {
        std::erase_if(m_devices, [&](const Device& each) { return each.usbDevice == device.usbDevice; });
    }
    m_devices.push_back(std::move(device));
}

void Bus::changeString(Input& input) {
    static constexpr std::array<std::uint8_t, 5> indexes = {1, 3, 5, 6, 10};
    Device* const device = choose(input);
    const std::uint8_t index = input.oneOf(indexes);
    const IdText& text = input.oneOf(idTexts);
    if (device == nullptr) {
        return;
    }
    if (index == 1) {
        fake::setString(device->name, index, answer(text.text));
        device->id = text.id;
    } else if (text.text == nullptr) {
        fake::setString(device->name, index, LIBUSB_ERROR_PIPE);
        if (index != 10) {
            device->unreadable.insert(index);
        }
    } else {
        device->unreadable.erase(index);
        // 300 characters are more than the library stores.
        fake::setString(device->name, index,
                        text.id == 0xFFFFFFFF ? std::string(300, 'x') : std::string(text.text));
    }
}

void Bus::changeClaim(Input& input) {
    if (const Device* const device = choose(input)) {
        fake::change(device->name,
                     [](fake::FakeReader& reader) { reader.claimedElsewhere = !reader.claimedElsewhere; });
    }
}

void Bus::queueAnswer(Input& input) {
    static constexpr std::array lengths = {0, 1, 3, 16, 64, 300, 5000};
    const Device* const device = choose(input);
    const auto transfer = static_cast<fake::Transfer>(input.number(4));
    const int code = input.number(2) == 0 ? 0 : input.oneOf(codes);
    const int length = input.oneOf(lengths);
    if (device != nullptr) {
        fake::queueAnswer(device->name, transfer,
                          {.code = code, .data = fake::Bytes(static_cast<std::size_t>(length), 0x5A)});
    }
}

void Bus::failNextCall(Input& input) {
    const std::string_view function = input.oneOf(fake::fallibleFunctions);
    const int code = input.oneOf(codes);
    const std::size_t n = 1 + input.number(4);
    const Device* const device = input.number(2) == 0 ? nullptr : choose(input);
    fake::failNth(function, n, code, device == nullptr ? std::string_view() : device->name);
    m_failing = true;
}

void Bus::failNthCall(Input& input) {
    const std::size_t n = 1 + input.number(32);
    fake::failCall(n, input.oneOf(codes));
    m_failing = true;
}

void Bus::stopFailing() {
    fake::stopFailing();
    fake::setHook({});
    m_failing = false;
}

void Bus::changeDuringCall(Input& input) {
    const std::size_t n = 1 + input.number(16);
    const std::span<const std::uint8_t> given = input.take(4);
    const std::vector<std::uint8_t> arguments(given.begin(), given.end());
    m_failing = true;
    fake::setHook([this, arguments, left = n](std::string_view, std::string_view) mutable {
        if (left > 0 && --left == 0) {
            const support::AllocationPause pause;
            Input forHook(arguments);
            switch (forHook.number(3)) {
            case 0:
                unplug(forHook);
                break;
            case 1:
                replug(forHook, false);
                break;
            default:
                changeString(forHook);
            }
        }
    });
}

const Device* Bus::find(const libusb_device* usbDevice) const noexcept {
    const auto found = std::ranges::find(m_devices, usbDevice, &Device::usbDevice);
    return found == m_devices.end() ? nullptr : &*found;
}

std::vector<std::string> Bus::names() const {
    std::vector<std::string> names;
    for (const Device& device : m_devices) {
        names.push_back(device.name);
    }
    return names;
}

void Bus::forgetGone() {
    std::erase_if(m_devices, [](const Device& device) {
        return !device.plugged && fake::references(device.name) == 0 && fake::openHandles(device.name) == 0;
    });
}

Device* Bus::choose(Input& input) {
    const std::size_t wanted = input.byte();
    return m_devices.empty() ? nullptr : &m_devices[wanted % m_devices.size()];
}

std::string Bus::newName() {
    return "dev" + std::to_string(++m_lastNumber);
}

} // namespace call_sequences

// The requests that a root hub answers in another way than a reader: those of the class that read its state. Requests that
// change ports stall: commands plug and unplug readers.

#include "model/model.h"

#include <algorithm>

namespace emulator {

namespace {

constexpr unsigned mostPorts = 255;
constexpr std::uint8_t hubDescriptorType = 0x29;

// bmRequestType and bRequest, as the kernel's root hubs tell requests apart.
enum HubRequest : std::uint16_t {
    getDeviceStatus = 0x8000,
    getHubStatus = 0xA000,
    getPortStatus = 0xA300,
    getHubDescriptor = 0xA006,
};

enum PortStatus : std::uint16_t {
    connected = 0x0001,
    enabled = 0x0002,
    powered = 0x0100,
    atLowSpeed = 0x0200,
    atHighSpeed = 0x0400,
};

} // namespace

void ReaderModel::connectPort(unsigned port, std::optional<Speed> speed) {
    if (!speed) {
        m_ports.erase(port);
        return;
    }
    m_ports[port] = *speed;
    m_portCount = std::max(m_portCount, std::min(port, mostPorts));
}

Bytes ReaderModel::hubDescriptor() const {
    constexpr std::uint8_t fixedSize = 7;
    constexpr std::uint8_t individualPower = 0x09; // of each port, and over-current protection of each
    constexpr std::uint8_t powerOnDelay = 10;      // in units of 2 ms
    const std::size_t mapSize = m_portCount / 8 + 1;
    Bytes bytes = {static_cast<std::uint8_t>(fixedSize + 2 * mapSize),
                   hubDescriptorType,
                   static_cast<std::uint8_t>(m_portCount),
                   individualPower,
                   0,
                   powerOnDelay,
                   0};
    bytes.resize(bytes.size() + mapSize, 0x00); // all devices can be removed
    bytes.resize(bytes.size() + mapSize, 0xFF);
    return bytes;
}

std::optional<Bytes> ReaderModel::answerOfHub(const ControlSetup& setup) const {
    switch (setup.requestType << 8 | setup.request) {
    case getDeviceStatus:
        return Bytes{1, 0}; // has its own power
    case getHubStatus:
        return Bytes{0, 0, 0, 0};
    case getHubDescriptor:
        return setup.value >> 8 == hubDescriptorType || setup.value == 0 ? std::optional(hubDescriptor())
                                                                         : std::nullopt;
    case getPortStatus: {
        if (setup.index == 0 || setup.index > m_portCount) {
            return std::nullopt;
        }
        unsigned status = powered;
        if (const auto port = m_ports.find(setup.index); port != m_ports.end()) {
            status |= connected | enabled;
            status |= port->second == Speed::low ? unsigned{atLowSpeed} : 0U;
            status |= port->second == Speed::high ? unsigned{atHighSpeed} : 0U;
        }
        return Bytes{static_cast<std::uint8_t>(status & 0xFF), static_cast<std::uint8_t>(status >> 8), 0, 0};
    }
    default:
        return std::nullopt;
    }
}

} // namespace emulator

#include "usbfs/node.h"

#include "usbfs/opening.h"

#include <algorithm>

namespace emulator {

void UsbfsNode::refresh() {
    m_device.collect();
    for (UsbfsOpening* const opening : m_openings) {
        opening->refresh();
    }
    showDrivers();
}

void UsbfsNode::showDrivers() {
    if (!m_device.connected() || m_shownBindings == m_device.bindings()) {
        return;
    }
    m_shownBindings = m_device.bindings();
    const ReaderDescription& reader = m_device.model()->description();
    if (m_shownConfiguration != m_device.configuration()) {
        m_shownConfiguration = m_device.configuration();
        m_shownDrivers.clear();
    }
    m_shownDrivers.resize(m_shownConfiguration != 0 ? reader.interfaces : std::size_t{0});
    for (std::size_t i = 0; i < m_shownDrivers.size(); ++i) {
        const auto number = static_cast<unsigned>(reader.firstInterface + i);
        std::string driver = m_device.driver(number);
        if (driver != m_shownDrivers[i]) {
            m_facts.bound(m_shownConfiguration, number, driver);
            m_shownDrivers[i] = std::move(driver);
        }
    }
}

std::optional<Time> UsbfsNode::deadline() {
    std::optional<Time> earliest = m_device.connected() ? m_device.model()->nextDeadline() : std::nullopt;
    for (const UsbfsOpening* const opening : m_openings) {
        if (const std::optional<Time> patience = opening->patience()) {
            earliest = std::min(earliest.value_or(*patience), *patience);
        }
    }
    return earliest;
}

void UsbfsNode::unplug() {
    m_device.unplug();
    for (UsbfsOpening* const opening : m_openings) {
        opening->unplug();
    }
}

} // namespace emulator

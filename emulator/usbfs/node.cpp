#include "usbfs/node.h"

#include "usbfs/opening.h"

#include <algorithm>

namespace emulator {

void UsbfsNode::refresh() {
    m_device.collect();
    for (UsbfsOpening* const opening : m_openings) {
        opening->refresh();
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

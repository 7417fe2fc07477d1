#include "usbfs/node.h"

#include "usbfs/opening.h"

namespace emulator {

void UsbfsNode::refresh() {
    m_device.collect();
    for (UsbfsOpening* const opening : m_openings) {
        opening->refresh();
    }
}

void UsbfsNode::unplug() {
    m_device.unplug();
    for (UsbfsOpening* const opening : m_openings) {
        opening->unplug();
    }
}

} // namespace emulator

#include "device/gvdevice.h"
#include "manager/gvdrvhnd.h"

#include <utility>

bool GVDrvHnd::IsChanging(const GVDevice& device) {
    for (const GVDevice* next = m_Changing; next != nullptr; next = next->nextChanging) {
        if (next == &device) {
            return true;
        }
    }
    return false;
}

bool GVDrvHnd::IsReaderChanging(const GVDevice& device) {
    for (const GVDevice* next = m_Changing; next != nullptr; next = next->nextChanging) {
        if (next->usbdev == device.usbdev || (next->devId == device.devId && device.devId != 0)) {
            return true;
        }
    }
    return false;
}

std::size_t GVDrvHnd::CountChanges() {
    std::size_t count = 0;
    for (const GVDevice* next = m_Changing; next != nullptr; next = next->nextChanging) {
        ++count;
    }
    return count;
}

void GVDrvHnd::BeginChange(GVDevice& device) {
    device.nextChanging = m_Changing;
    m_Changing = &device;
}

void GVDrvHnd::EndChange(GVDevice& device) {
    GVDevice** link = &m_Changing;
    while (*link != &device) {
        link = &(*link)->nextChanging;
    }
    *link = std::exchange(device.nextChanging, nullptr);
    m_Changed.signalAll();
}

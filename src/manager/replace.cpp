#include "manager/gvdrvhnd.h"

#include "base/log.h"
#include "device/gvdevice.h"
#include "manager/opening.h"

#include <algorithm>
#include <utility>

namespace {

void logReplacement(const char* tag, GVDevice& device) {
    log<Level::manager>(
        tag, "devHnd=0x", std::hex, device.devHnd, " devId=0x", device.devId,
        " usbDevPtr=", [&] { return device.GetUsbDevPtr(); }, " owner=", device.owner);
}

} // namespace

bool GVDrvHnd::DL_ReplaceDevice(GVDevice* newDev) {
    const auto found = std::find_if(m_DeviceList.begin(), m_DeviceList.end(), [&](const GVDevice* device) {
        return device != nullptr && device != newDev && device->devId == newDev->devId;
    });
    if (found == m_DeviceList.end()) {
        return false;
    }
    GVDevice* const oldDev = *found;
    const int devHnd = oldDev->devHnd;
    const bool wasOpen = isOpen(*oldDev);
    logReplacement("replace", *newDev);
    logReplacement("to ... ", *oldDev);

    DestroyDevice(oldDev);
    // A record must be in the list only once: with two entries, iterating by handles would never end.
    std::replace(m_DeviceList.begin(), m_DeviceList.end(), newDev, static_cast<GVDevice*>(nullptr));
    *found = newDev;
    newDev->devHnd = devHnd;
    if (wasOpen) {
        newDev->owner = false;
        openOrLeaveClosed(*newDev);
    }
    return true;
}

void GVDrvHnd::SL_ReplaceDevice(GVDevice* newDev, int index) {
    newDev->owner = true;
    // The list owns the new record from here on, even if memory runs out below.
    GVDevice* const displaced = std::exchange(m_ScanList[static_cast<std::size_t>(index)], newDev);
    const bool shared = displaced != nullptr && IsInDeviceList(displaced);
    if (displaced != nullptr && !shared && displaced != newDev) {
        DestroyDevice(displaced);
    }
    DL_ReplaceDevice(newDev);
    // If two open readers have the same device ID, only the first is replaced; the other one keeps its handle.
    if (shared && IsInDeviceList(displaced)) {
        displaced->owner = false;
    }
}

#include "manager/replace.h"

#include "base/log.h"
#include "device/usb_device_text.h"
#include "manager/opening.h"

#include <algorithm>
#include <utility>

namespace {

void logReplacement(const char* tag, const GVDevice& device, int devHnd, bool owner) {
    log<Level::manager>(
        tag, "devHnd=0x", std::hex, devHnd, " devId=0x", device.devId,
        " usbDevPtr=", [&] { return UsbDeviceText(device.usbdev); }, " owner=", owner);
}

} // namespace

GVDrvHnd::Replacement GVDrvHnd::ReplaceListed(GVDevice& newDev) {
    const auto found = std::find_if(m_DeviceList.begin(), m_DeviceList.end(), [&](const GVDevice* device) {
        return device != nullptr && device != &newDev && device->devId == newDev.devId;
    });
    if (found == m_DeviceList.end()) {
        return {};
    }
    GVDevice* const oldDev = *found;
    const int devHnd = newDev.devHnd;
    const bool owner = newDev.owner;
    // The old record may have replaced another one in the same scan, and not be open again yet.
    const bool reopen = isOpen(*oldDev) || IsChanging(*oldDev);
    TakeFromLists(oldDev);
    // A record must be in the list only once: with two entries, iterating by handles would never end.
    std::replace(m_DeviceList.begin(), m_DeviceList.end(), &newDev, static_cast<GVDevice*>(nullptr));
    *found = &newDev;
    relaxed::store(newDev.devHnd, oldDev->devHnd);
    if (reopen) {
        newDev.owner = false;
    }
    return {.oldDev = OwnedDevice(oldDev),
            .devHnd = devHnd,
            .owner = owner,
            .reopen = reopen,
            .change = reopen ? Change(*this, newDev) : Change()};
}

void GVDrvHnd::FinishReplacement(GVDevice& newDev, Replacement& replacement, bool parallel) {
    const GVDevice& oldDev = *replacement.oldDev;
    logReplacement("replace", newDev, replacement.devHnd, replacement.owner);
    logReplacement("to ... ", oldDev, oldDev.devHnd, oldDev.owner);
    {
        const MutexUnlock usb(m_mtxDevList, parallel);
        replacement.oldDev.reset();
        if (replacement.reopen) {
            openOrLeaveClosed(newDev);
        }
    }
    replacement.change.end();
}

bool GVDrvHnd::DL_ReplaceDevice(GVDevice* newDev) {
    Replacement replacement = ReplaceListed(*newDev);
    if (replacement.oldDev.get() == nullptr) {
        return false;
    }
    FinishReplacement(*newDev, replacement, IsParallel());
    return true;
}

void GVDrvHnd::SL_ReplaceDevice(GVDevice* newDev, int index) {
    Replacement replacement = ReplaceScanned(*newDev, static_cast<std::size_t>(index));
    if (replacement.oldDev.get() != nullptr) {
        FinishReplacement(*newDev, replacement, IsParallel());
    }
}

GVDrvHnd::Replacement GVDrvHnd::ReplaceScanned(GVDevice& newDev, std::size_t index) {
    newDev.owner = true;
    GVDevice* const displaced = std::exchange(m_ScanList[index], &newDev);
    const bool shared = displaced != nullptr && IsInDeviceList(displaced);
    if (displaced != nullptr && !shared && displaced != &newDev) {
        DestroyDevice(displaced);
    }
    Replacement replacement = ReplaceListed(newDev);
    // If two open readers have the same device ID, only the first is replaced; the other one keeps its handle.
    if (shared && IsInDeviceList(displaced)) {
        displaced->owner = false;
    }
    return replacement;
}

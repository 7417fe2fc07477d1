// Calls on one reader.
#pragma once

#include "device/gvdevice.h"
#include "manager/gvdrvhnd.h"

// Find a reader by its handle and operate on it. In a parallel call, the reference keeps the record from being destroyed
// once the device-list mutex is released.
template <class Operation>
int GVDrvHnd::OnDevice(int devHnd, Operation operation) {
    const bool parallel = IsParallel();
    ReleasableLock lock(m_mtxDevList);
    GVDevice* const device = UsableDevice(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    const OwnedDevice used(device->Retain());
    lock.releaseIf(parallel);
    return operation(*device);
}

// The same for calls that are not parallel: they hold the device-list mutex, so the record stays without a reference.
template <class Operation>
int GVDrvHnd::OnDeviceAlone(int devHnd, Operation operation) {
    const MutexLock lock(m_mtxDevList);
    GVDevice* const device = UsableDevice(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    return operation(*device);
}

// The same for parallel calls that can be ended.
template <class Operation>
int GVDrvHnd::OnDeviceEndable(int devHnd, Operation operation) {
    ReleasableLock lock(m_mtxDevList);
    GVDevice* const device = UsableDevice(devHnd);
    if (device == nullptr) {
        return SetLastError(GVUSB_ERR_HANDLE_NOT_FOUND);
    }
    const OwnedDevice used(device->Retain());
    // While the reader is in the list: who closes it takes it out first, and then ends the calls that have begun.
    const EndCount ends = device->EndsBefore();
    lock.releaseIf(true);
    return operation(*device, ends);
}

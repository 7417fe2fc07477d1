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

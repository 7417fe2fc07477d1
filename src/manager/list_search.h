// Searching the lists of the manager.
#pragma once

#include "device/gvdevice.h"

#include <vector>

// Return the index of the first record with a device ID, -1 if there is none. No reader has the device ID 0.
inline int indexOfDevId(const std::vector<GVDevice*>& devices, unsigned int devId) {
    if (devId == 0) {
        return -1;
    }
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (devices[i] != nullptr && devices[i]->devId == devId) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

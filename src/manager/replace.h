// A record that has taken another one's place in the device list.
#pragma once

#include "device/gvdevice.h"
#include "manager/changes.h"

// Without an old record, nothing was replaced.
struct GVDrvHnd::Replacement {
    OwnedDevice oldDev;
    // What the new record had before, for the log.
    int devHnd = 0;
    bool owner = false;
    // Whether the new record is to be opened. Until then, other threads wait before they use it.
    bool reopen = false;
    Change change;
};

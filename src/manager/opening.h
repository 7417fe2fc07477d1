// Opening a reader completely or not at all.
#pragma once

class GVDevice;

// Return 0 or the code of the failure. A reader that was opened but could not be configured is closed again, so that
// the next attempt opens it again. This does not change its last error.
int openOrLeaveClosed(GVDevice& device);

// The caller holds the device-list mutex, and no other thread is opening or closing the reader, so the device's own mutex is not
// needed.
bool isOpen(const GVDevice& device);

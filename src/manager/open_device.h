// Opening a reader all the way or not at all.
#pragma once

class GVDevice;

// Returns 0 or the code of the failure. A reader that libusb opened but that could not be configured is
// closed again, so that the next attempt starts afresh; its own last error stays as the attempt left it.
int openOrLeaveClosed(GVDevice& device);

// Whoever opens and closes a reader holds the device-list mutex, as the caller does: the device's own is not
// needed.
bool isOpen(const GVDevice& device);

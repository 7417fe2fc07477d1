#pragma once

#include "doctor/findings.h"

// Check that udev is running: libusb learns of plugging and unplugging from it.
void examineUdev(Findings& findings);

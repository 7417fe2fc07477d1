// What the doctor looks at before it looks at readers: the library, its configuration, udev.
#pragma once

#include "doctor/findings.h"

void examineLibrary(Findings& findings);
void examineConfiguration(Findings& findings);
void examineUdev(Findings& findings);

// "gvusb 07.01.00 (libusb 1.0.26)"
std::string versions();

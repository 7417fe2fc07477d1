// What the doctor finds out about the readers on the bus.
#pragma once

#include "doctor/findings.h"

// By libusb, as it tells of readers that the library leaves out, and why.
void examineReaders(Findings& findings);

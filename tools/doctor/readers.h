#pragma once

#include "doctor/findings.h"

// Check every reader on the bus. Uses libusb directly, because the library leaves out readers that have a
// problem.
void examineReaders(Findings& findings);

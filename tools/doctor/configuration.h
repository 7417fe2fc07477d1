#pragma once

#include "doctor/findings.h"

// Report the settings in the configuration file and the hot-plug mode that they lead to.
void examineConfiguration(Findings& findings);

#pragma once

#include "doctor/findings.h"

void examineConfiguration(Findings& findings);

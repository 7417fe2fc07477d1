#pragma once

#include "doctor/findings.h"

void examineUdev(Findings& findings);

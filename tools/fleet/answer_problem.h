// What the answers of a service mean for a command.
#pragma once

#include "failure.h"
#include "fleet/answer.h"

#include <optional>

// Nothing if the request was done.
std::optional<Problem> problemOf(const fleet::Answer& answer);

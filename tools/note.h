// Something worth knowing that is not a failure, as a line on standard error.
#pragma once

#include <string>

void printNote(const std::string& text);

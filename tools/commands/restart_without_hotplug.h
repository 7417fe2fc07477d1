// The library in a process that runs another program: it must not look at the readers meanwhile, as it does in the modes that
// report readers.
//
// For the main thread.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

// Start this process again, with a configuration that turns the detection of readers off, unless that was done. The
// library reads its configuration when it is loaded. Throws Failure.
void restartWithoutHotplug();

// Changes to the environment with which another program gets its own configuration. A name without a value is removed.
std::vector<std::pair<std::string, std::optional<std::string>>> ownConfiguration();

// The measured operations: of the library, and the same ones as direct libusb calls.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

struct Operation {
    std::string_view name;
    // Prepare the operation and return a function that repeats it.
    std::function<std::function<void(long times)>()> prepare;
};

// The names of direct libusb calls end in ".bare".
const std::vector<Operation>& operations();

// Throws std::invalid_argument.
const Operation& operationNamed(std::string_view name);

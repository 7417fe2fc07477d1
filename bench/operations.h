// The operations that are measured: each is done by the library, and once more by the same calls made straight to libusb.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

struct Operation {
    std::string_view name;
    // Makes everything ready and returns what is measured: it does the operation so many times.
    std::function<std::function<void(long times)>()> prepare;
};

// The library's have plain names; those made straight to libusb end in ".bare".
const std::vector<Operation>& operations();

// Throws std::invalid_argument.
const Operation& operationNamed(std::string_view name);

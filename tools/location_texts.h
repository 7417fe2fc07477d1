// The location of a reader as commands print it.
#pragma once

#include "json.h"
#include "usb_location.h"

#include <optional>
#include <string>

// For a table; "-" for what is unknown.
struct LocationTexts {
    explicit LocationTexts(const std::optional<UsbLocation>& location);

    std::string path = "-";
    std::string bus = "-";
    std::string address = "-";
};

// Add the members "path", "bus" and "address", null if unknown.
void addLocation(Json& object, const std::optional<UsbLocation>& location);

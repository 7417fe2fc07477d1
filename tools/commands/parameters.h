// Parameters of a reader as `gvusb get` prints them.
#pragma once

#include "json.h"

#include <array>
#include <functional>
#include <optional>
#include <span>
#include <string>

// All that can be read of a reader.
inline constexpr std::array readerKeys = {"DEVICE-ID",  "FAMILYNAME", "DEVICENAME", "INTERFACE",
                                          "TYPENUMBER", "DEVICEHND",  "TIMEOUT",    "PRESENT"};

// As the library and the objects have them.
std::string inUpperCase(std::string key);

// Print a value, or with `json` the members of `object` and the parameter.
void printParameter(const std::string& key, const std::string& value, bool json,
                    Json object = Json::object());

// Print a table of the parameters, or an object. `value` returns nothing for what cannot be read.
void printParameters(std::span<const char* const> keys,
                     const std::function<std::optional<std::string>(const std::string& key)>& value,
                     bool json, Json object = Json::object());

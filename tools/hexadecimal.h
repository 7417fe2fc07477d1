// Device IDs and frames in hexadecimal, as users type them and as the tool prints them.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Up to eight hexadecimal digits in upper or lower case, with or without 0x.
std::optional<unsigned int> parseDeviceId(std::string_view text);

// As the library writes it: in upper case, without a prefix.
std::string deviceIdText(unsigned int id);

// The bytes in a text such as "02 0007 FF:01" or "0x02,0x00". Nothing if a word has an odd number of digits
// or anything but digits.
std::optional<Bytes> parseFrame(std::string_view text);

// "02 00 07", or with another separator.
std::string frameText(std::span<const unsigned char> frame, std::string_view separator = " ");

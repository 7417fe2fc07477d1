// Device IDs and frames in hexadecimal, as people type them and as we print them.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<unsigned char>;

// Up to eight hexadecimal digits, upper or lower case, with or without 0x.
std::optional<unsigned int> parseDeviceId(std::string_view text);

// As the library writes it: upper case, without prefix.
std::string deviceIdText(unsigned int id);

// The bytes of words such as "02 0007 FF:01" or "0x02,0x00": in each word an even number of digits. Nothing
// when there is something else in it.
std::optional<Bytes> parseFrame(std::string_view text);

// "02 00 07", with another separator if so wished.
std::string frameText(std::span<const unsigned char> frame, std::string_view separator = " ");

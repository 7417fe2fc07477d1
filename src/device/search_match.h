// Matching readers against search records.
#pragma once

#include <cstdint>
#include <string_view>

struct _GVUSB_SCANSEARCH;

struct ReaderIdentity {
    std::uint32_t devId;
    std::string_view famName;
    std::string_view devName;
};

// Test only the criterion with the lowest bit that is set in the record's mask. Null matches every reader.
bool matches(const _GVUSB_SCANSEARCH* search, const ReaderIdentity& reader);

// Return a record's device ID as text, up to its terminating zero, but at most 255 characters. Programs may have been built
// with a longer field than ours.
std::string_view deviceIdText(const _GVUSB_SCANSEARCH& search);

// Return the text in another field: up to the terminating zero, or the whole field.
template <std::size_t Size>
std::string_view fieldText(const char (&field)[Size]) {
    const std::string_view whole(field, Size);
    return whole.substr(0, whole.find('\0'));
}

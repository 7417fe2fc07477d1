// Whether a reader is the one that a search record asks for.
#pragma once

#include <cstdint>
#include <string_view>

struct _GVUSB_SCANSEARCH;

struct ReaderIdentity {
    std::uint32_t devId;
    std::string_view famName;
    std::string_view devName;
};

// Tests the one criterion with the lowest bit set in the record's mask. No record matches every reader.
bool matches(const _GVUSB_SCANSEARCH* search, const ReaderIdentity& reader);

// The text in a record's field: up to its terminating zero, or the whole field.
template <std::size_t Size>
std::string_view fieldText(const char (&field)[Size]) {
    const std::string_view whole(field, Size);
    return whole.substr(0, whole.find('\0'));
}

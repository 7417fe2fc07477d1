#include "recorder/redaction.h"

#include <algorithm>
#include <charconv>

namespace recorder {

std::optional<Pattern> Pattern::parse(std::string_view text) {
    Pattern pattern;
    while (!text.empty()) {
        if (text.front() == ' ' || text.front() == ':') {
            text.remove_prefix(1);
            continue;
        }
        if (text.size() < 2) {
            return std::nullopt;
        }
        const std::string_view digits = text.substr(0, 2);
        text.remove_prefix(2);
        if (digits == "??") {
            pattern.m_bytes.emplace_back(std::nullopt);
            continue;
        }
        std::uint8_t byte = 0;
        const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (result.ec != std::errc{} || result.ptr != digits.data() + digits.size()) {
            return std::nullopt;
        }
        pattern.m_bytes.emplace_back(byte);
    }
    return pattern.m_bytes.empty() ? std::nullopt : std::optional(pattern);
}

bool Pattern::isIn(std::span<const std::uint8_t> data) const {
    const auto same = [](std::uint8_t byte, const std::optional<std::uint8_t>& wanted) {
        return !wanted || byte == *wanted;
    };
    // Not std::ranges::search: clang 14 rejects that of gcc 12.
    return std::search(data.begin(), data.end(), m_bytes.begin(), m_bytes.end(), same) != data.end();
}

bool Redaction::isFrame(capture::TransferType type, const std::optional<capture::SetupPacket>& setup) {
    constexpr std::uint8_t typeMask = 0x60;
    return type != capture::TransferType::control || !setup || (setup->front() & typeMask) != 0;
}

bool Redaction::replace(std::vector<std::uint8_t>& data) const {
    const bool wanted =
        all || std::ranges::any_of(matching, [&data](const Pattern& pattern) { return pattern.isIn(data); });
    if (!wanted || data.empty()) {
        return false;
    }
    constexpr std::string_view marker = "REDACTED";
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(marker[i % marker.size()]);
    }
    return true;
}

} // namespace recorder

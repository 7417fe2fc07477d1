// A fuzz target's input, read from front to back. After the end, all values are 0 or empty.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : m_left(reinterpret_cast<const char*>(data), size) {}

    [[nodiscard]] bool atEnd() const { return m_left.empty(); }

    std::uint8_t byte() {
        const std::string_view taken = bytes(1);
        return taken.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(taken[0]);
    }

    bool flag() { return (byte() & 1) != 0; }

    std::size_t below(std::size_t count) { return byte() % count; }

    // At most this many bytes.
    std::string_view bytes(std::size_t most) {
        const std::string_view taken = m_left.substr(0, most);
        m_left.remove_prefix(taken.size());
        return taken;
    }

    // One byte with a count, then this many bytes.
    std::string_view countedBytes() {
        const std::size_t count = byte();
        return bytes(count);
    }

    // Without the newline, which is skipped.
    std::string_view line() {
        const std::string_view taken = bytes(std::min(m_left.find('\n'), m_left.size()));
        bytes(1);
        return taken;
    }

    template <class Value, std::size_t Count>
    Value oneOf(const std::array<Value, Count>& values) {
        return values[below(Count)];
    }

private:
    std::string_view m_left;
};

} // namespace fuzz

// The fuzzer's bytes, read from front to back. After the end, all values are 0.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace call_sequences {

class Input {
public:
    explicit Input(std::span<const std::uint8_t> bytes = {}) noexcept
        : m_bytes(bytes) {}

    [[nodiscard]] bool atEnd() const noexcept { return m_bytes.empty(); }

    [[nodiscard]] std::size_t left() const noexcept { return m_bytes.size(); }

    std::uint8_t byte() noexcept {
        if (m_bytes.empty()) {
            return 0;
        }
        const std::uint8_t first = m_bytes.front();
        m_bytes = m_bytes.subspan(1);
        return first;
    }

    std::size_t number(std::size_t limit) noexcept { return byte() % limit; }

    template <class Value, std::size_t Size>
    const Value& oneOf(const std::array<Value, Size>& values) noexcept {
        return values[number(Size)];
    }

    std::span<const std::uint8_t> take(std::size_t count) noexcept {
        const std::span<const std::uint8_t> taken =
            m_bytes.first(count < m_bytes.size() ? count : m_bytes.size());
        m_bytes = m_bytes.subspan(taken.size());
        return taken;
    }

private:
    std::span<const std::uint8_t> m_bytes;
};

} // namespace call_sequences

#include "capture/capture.h"

namespace capture {

namespace {

constexpr std::size_t vendorAt = 8;
constexpr std::size_t productAt = 10;
constexpr std::size_t classAt = 4;
constexpr std::uint8_t hubClass = 9;

std::uint16_t numberAt(const Bytes& descriptor, std::size_t position) {
    return descriptor.size() < position + 2
               ? std::uint16_t{0}
               : static_cast<std::uint16_t>(descriptor[position] | descriptor[position + 1] << 8);
}

void appendUtf8(std::string& text, std::uint32_t character) {
    const auto byte = [&text](std::uint32_t value) { text += static_cast<char>(value); };
    if (character < 0x80) {
        byte(character);
    } else if (character < 0x800) {
        byte(0xC0 | character >> 6);
        byte(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        byte(0xE0 | character >> 12);
        byte(0x80 | (character >> 6 & 0x3F));
        byte(0x80 | (character & 0x3F));
    } else {
        byte(0xF0 | character >> 18);
        byte(0x80 | (character >> 12 & 0x3F));
        byte(0x80 | (character >> 6 & 0x3F));
        byte(0x80 | (character & 0x3F));
    }
}

} // namespace

std::uint16_t Device::vendorId() const {
    return numberAt(descriptor, vendorAt);
}

std::uint16_t Device::productId() const {
    return numberAt(descriptor, productAt);
}

bool Device::isHub() const {
    return descriptor.size() > classAt && descriptor[classAt] == hubClass;
}

std::string stringOf(const Bytes& descriptor) {
    constexpr std::uint32_t replacement = 0xFFFD;
    std::string text;
    const std::size_t end =
        descriptor.empty() ? 0
                           : std::min<std::size_t>(descriptor.size(), descriptor.front()) & ~std::size_t{1};
    for (std::size_t i = 2; i + 1 < end; i += 2) {
        const std::uint32_t unit = numberAt(descriptor, i);
        const bool isHigh = unit >= 0xD800 && unit < 0xDC00;
        const std::uint32_t next = i + 3 < end ? numberAt(descriptor, i + 2) : 0U;
        if (isHigh && next >= 0xDC00 && next < 0xE000) {
            appendUtf8(text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            i += 2;
        } else {
            appendUtf8(text, unit >= 0xD800 && unit < 0xE000 ? replacement : unit);
        }
    }
    return text;
}

} // namespace capture

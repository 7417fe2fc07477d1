#include "capture/pcapng_extras.h"

#include "capture/pcapng_format.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace capture {

namespace {

using namespace pcapng;

using View = std::span<const std::uint8_t>;

constexpr std::size_t blockHeaderSize = 8;
constexpr std::size_t smallestBlock = 12;
constexpr std::size_t optionHeaderSize = 4;
constexpr std::size_t enhancedPacketSize = 20; // without its data
constexpr std::size_t statisticsSize = 12;

std::size_t padded(std::size_t size) {
    return (size + 3) / 4 * 4;
}

class Walker {
public:
    explicit Walker(View file)
        : m_left(file) {}

    Extras walk() {
        while (step()) {
        }
        return std::move(m_extras);
    }

private:
    template <class Number>
    Number at(View bytes, std::size_t offset) const {
        Number number;
        std::memcpy(&number, bytes.data() + offset, sizeof number);
        if constexpr (sizeof number == sizeof(std::uint32_t)) {
            return m_swapped ? __builtin_bswap32(number) : number;
        } else {
            return m_swapped ? __builtin_bswap16(number) : number;
        }
    }

    // A section says in which byte order it was written.
    bool beginSection() {
        if (m_left.size() < smallestBlock) {
            return false;
        }
        m_swapped = false;
        if (at<std::uint32_t>(m_left, blockHeaderSize) != byteOrderMagic) {
            m_swapped = true;
        }
        return at<std::uint32_t>(m_left, blockHeaderSize) == byteOrderMagic;
    }

    bool step() {
        if (m_left.size() < smallestBlock) {
            return false;
        }
        std::uint32_t type = at<std::uint32_t>(m_left, 0);
        if (type == sectionHeader) { // the same in both orders
            if (!beginSection()) {
                return false;
            }
            m_inSection = true;
        }
        type = at<std::uint32_t>(m_left, 0);
        const std::uint32_t size = at<std::uint32_t>(m_left, sizeof type);
        if (!m_inSection || size < smallestBlock || size % 4 != 0 || size > m_left.size()) {
            return false;
        }
        read(type, m_left.subspan(blockHeaderSize, size - smallestBlock));
        m_left = m_left.subspan(size);
        return true;
    }

    void read(std::uint32_t type, View body) {
        if (type == enhancedPacket && body.size() >= enhancedPacketSize) {
            const std::size_t captured = at<std::uint32_t>(body, 12);
            if (captured <= body.size() - enhancedPacketSize) {
                const std::size_t options = enhancedPacketSize + padded(captured);
                readComment(body.subspan(std::min(options, body.size())));
            }
        } else if (type == interfaceStatistics && body.size() >= statisticsSize) {
            const auto high = at<std::uint32_t>(body, 4);
            const auto low = at<std::uint32_t>(body, 8);
            readRemark(
                body.subspan(statisticsSize),
                Time(std::min(std::uint64_t{high} << 32 | low, static_cast<std::uint64_t>(latest.count()))));
        }
        if (type == enhancedPacket || type == simplePacket || type == obsoletePacket) {
            ++m_packets;
        }
    }

    template <class Visitor>
    void visitOptions(View options, const Visitor& visit) const {
        while (options.size() >= optionHeaderSize) {
            const auto code = at<std::uint16_t>(options, 0);
            const std::size_t size = at<std::uint16_t>(options, 2);
            options = options.subspan(optionHeaderSize);
            if (code == endOption || size > options.size()) {
                return;
            }
            visit(code, options.first(size));
            options = options.subspan(std::min(padded(size), options.size()));
        }
    }

    static std::string_view text(View bytes) {
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }

    void readComment(View options) {
        visitOptions(options, [this](std::uint16_t code, View value) {
            if (code == commentOption && text(value).starts_with("gvusb: ")) {
                m_extras.comments.push_back({.packet = m_packets, .text = text(value)});
            }
        });
    }

    void readRemark(View options, Time time) {
        visitOptions(options, [&](std::uint16_t code, View value) {
            constexpr std::size_t begin = sizeof enterpriseNumber + remarkMark.size();
            if (code != customTextOption || value.size() < begin ||
                at<std::uint32_t>(value, 0) != enterpriseNumber ||
                !text(value.subspan(sizeof enterpriseNumber)).starts_with(remarkMark)) {
                return;
            }
            Json remark = Json::parse(text(value.subspan(begin)), nullptr, false);
            if (remark.is_object()) {
                m_extras.remarks.push_back(
                    {.packetsBefore = m_packets, .time = time, .value = std::move(remark)});
            }
        });
    }

    View m_left;
    bool m_swapped = false;
    bool m_inSection = false;
    std::size_t m_packets = 0;
    Extras m_extras;
};

} // namespace

Extras readExtras(std::span<const std::uint8_t> file) {
    return Walker(file).walk();
}

} // namespace capture

#include "capture/pcapng_writer.h"

#include "capture/pcapng_format.h"

#include <algorithm>
#include <bit>
#include <string>
#include <type_traits>

#include <sys/utsname.h>

namespace capture {

namespace {

using namespace pcapng;

template <class Number>
void append(Bytes& file, std::type_identity_t<Number> number) {
    const auto bytes = std::bit_cast<std::array<std::uint8_t, sizeof(Number)>>(Number{number});
    file.insert(file.end(), bytes.begin(), bytes.end());
}

template <class Range>
void appendPadded(Bytes& file, const Range& bytes) {
    file.insert(file.end(), bytes.begin(), bytes.end());
    file.resize((file.size() + 3) / 4 * 4);
}

void appendOption(Bytes& file, std::uint16_t code, std::string_view value) {
    append<std::uint16_t>(file, code);
    append<std::uint16_t>(file, static_cast<std::uint16_t>(value.size()));
    appendPadded(file, value);
}

// A block, which ends when this is destroyed. Its size is a multiple of 4, as is that of the file.
class Block {
public:
    Block(Bytes& file, std::uint32_t type)
        : m_file(file)
        , m_begin(file.size()) {
        append<std::uint32_t>(file, type);
        append<std::uint32_t>(file, 0);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() {
        const auto size = static_cast<std::uint32_t>(m_file.size() - m_begin + sizeof(std::uint32_t));
        const auto bytes = std::bit_cast<std::array<std::uint8_t, sizeof size>>(size);
        std::ranges::copy(bytes, m_file.begin() + static_cast<std::ptrdiff_t>(m_begin + sizeof size));
        m_file.insert(m_file.end(), bytes.begin(), bytes.end());
    }

private:
    Bytes& m_file;
    std::size_t m_begin;
};

void appendTime(Bytes& file, Time time) {
    const auto count = static_cast<std::uint64_t>(time.count());
    append<std::uint32_t>(file, static_cast<std::uint32_t>(count >> 32));
    append<std::uint32_t>(file, static_cast<std::uint32_t>(count));
}

// Why there are no data, in usbmon's words.
std::uint8_t dataFlag(const Packet& packet) {
    if (!packet.data.empty()) {
        return 0;
    }
    if (packet.kind == PacketKind::submissionError) {
        return 'E';
    }
    const bool isIn = (packet.endpoint & directionIn) != 0;
    return isIn && packet.kind == PacketKind::submission    ? '<'
           : !isIn && packet.kind == PacketKind::completion ? '>'
                                                            : 0;
}

void appendUsbmonHeader(Bytes& file, const Packet& packet, std::size_t captured) {
    using namespace std::chrono;
    const auto whole = duration_cast<seconds>(packet.time);
    append<std::uint64_t>(file, packet.id);
    append<std::uint8_t>(file, static_cast<std::uint8_t>(packet.kind));
    append<std::uint8_t>(file, static_cast<std::uint8_t>(packet.type));
    append<std::uint8_t>(file, packet.endpoint);
    append<std::uint8_t>(file, packet.address);
    append<std::uint16_t>(file, packet.bus);
    append<std::uint8_t>(file, packet.setup ? std::uint8_t{0} : static_cast<std::uint8_t>('-'));
    append<std::uint8_t>(file, dataFlag(packet));
    append<std::int64_t>(file, whole.count());
    append<std::int32_t>(file,
                         static_cast<std::int32_t>(duration_cast<microseconds>(packet.time - whole).count()));
    append<std::int32_t>(file, packet.status);
    append<std::uint32_t>(file, packet.length);
    append<std::uint32_t>(file, static_cast<std::uint32_t>(captured));
    const SetupPacket setup = packet.setup.value_or(SetupPacket{});
    file.insert(file.end(), setup.begin(), setup.end());
    append<std::int32_t>(file, packet.interval);
    append<std::int32_t>(file, 0); // the start frame
    append<std::uint32_t>(file, packet.flags);
    append<std::uint32_t>(file, 0); // isochronous descriptors
}

} // namespace

void appendHeader(Bytes& file, std::string_view application) {
    utsname system{};
    ::uname(&system);
    {
        const Block block(file, sectionHeader);
        append<std::uint32_t>(file, byteOrderMagic);
        append<std::uint16_t>(file, 1); // version
        append<std::uint16_t>(file, 0);
        append<std::int64_t>(file, -1); // length unknown
        appendOption(file, systemOption, std::string(system.sysname) + " " + system.release);
        appendOption(file, applicationOption, application);
        appendOption(file, endOption, {});
    }
    const Block block(file, interfaceDescription);
    append<std::uint16_t>(file, usbmonLinkType);
    append<std::uint16_t>(file, 0);
    append<std::uint32_t>(file, 0); // no limit
    appendOption(file, nameOption, "usbfs");
    appendOption(file, resolutionOption, "\x09"); // nanoseconds
    appendOption(file, endOption, {});
}

void appendPacket(Bytes& file, const Packet& packet, std::string_view comment) {
    const auto data = packet.data.first(std::min(packet.data.size(), mostData));
    constexpr std::size_t headerSize = 64;
    const auto captured = static_cast<std::uint32_t>(headerSize + data.size());
    const Block block(file, enhancedPacket);
    append<std::uint32_t>(file, 0); // the interface
    appendTime(file, packet.time);
    append<std::uint32_t>(file, captured);
    append<std::uint32_t>(file, captured);
    appendUsbmonHeader(file, packet, data.size());
    appendPadded(file, data);
    if (data.size() < packet.data.size() && comment.empty()) {
        comment = cutComment;
    }
    if (!comment.empty()) {
        appendOption(file, commentOption, comment);
        appendOption(file, endOption, {});
    }
}

void appendRemark(Bytes& file, Time time, const Json& remark) {
    std::string value(sizeof enterpriseNumber, '\0');
    const auto number = std::bit_cast<std::array<char, sizeof enterpriseNumber>>(enterpriseNumber);
    std::ranges::copy(number, value.begin());
    value += remarkMark;
    value += remark.dump(-1, ' ', false, Json::error_handler_t::replace);
    const Block block(file, interfaceStatistics);
    append<std::uint32_t>(file, 0); // the interface
    appendTime(file, time);
    appendOption(file, customTextOption, value);
    appendOption(file, endOption, {});
}

} // namespace capture

#include "capture/pcapng_writer.h"

#include "capture/pcapng_format.h"

#include <algorithm>
#include <bit>
#include <cstring>
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

// As link type 220 has it, in the order of bytes of this machine.
struct UsbmonHeader {
    std::uint64_t id;
    std::uint8_t kind;
    std::uint8_t type;
    std::uint8_t endpoint;
    std::uint8_t address;
    std::uint16_t bus;
    std::uint8_t setupFlag;
    std::uint8_t dataFlag;
    std::int64_t seconds;
    std::int32_t microseconds;
    std::int32_t status;
    std::uint32_t length;
    std::uint32_t captured;
    SetupPacket setup;
    std::int32_t interval;
    std::int32_t startFrame;
    std::uint32_t flags;
    std::uint32_t isochronousDescriptors;
};
static_assert(sizeof(UsbmonHeader) == 64);

struct PacketHeader {
    std::uint32_t type;
    std::uint32_t size;
    std::uint32_t interface;
    std::uint32_t timeHigh;
    std::uint32_t timeLow;
    std::uint32_t captured;
    std::uint32_t original;
};

UsbmonHeader usbmonHeader(const Packet& packet, std::size_t captured) {
    constexpr std::int64_t perSecond = 1'000'000'000;
    const std::int64_t time = packet.time.count();
    return {.id = packet.id,
            .kind = static_cast<std::uint8_t>(packet.kind),
            .type = static_cast<std::uint8_t>(packet.type),
            .endpoint = packet.endpoint,
            .address = packet.address,
            .bus = packet.bus,
            .setupFlag = packet.setup ? std::uint8_t{0} : static_cast<std::uint8_t>('-'),
            .dataFlag = dataFlag(packet),
            .seconds = time / perSecond,
            .microseconds = static_cast<std::int32_t>(time % perSecond / 1000),
            .status = packet.status,
            .length = packet.length,
            .captured = static_cast<std::uint32_t>(captured),
            .setup = packet.setup.value_or(SetupPacket{}),
            .interval = packet.interval,
            .startFrame = 0,
            .flags = packet.flags,
            .isochronousDescriptors = 0};
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

// Most of what the recorder does, while the program that it records competes for the processor.
void appendPacket(Bytes& file, const Packet& packet, std::string_view comment) {
    const auto data = packet.data.first(std::min(packet.data.size(), mostData));
    if (data.size() < packet.data.size() && comment.empty()) {
        comment = cutComment;
    }
    const std::size_t captured = sizeof(UsbmonHeader) + data.size();
    const std::size_t paddedData = (data.size() + 3) / 4 * 4;
    constexpr std::size_t optionHeader = 4;
    const std::size_t options = comment.empty() ? 0 : 2 * optionHeader + (comment.size() + 3) / 4 * 4;
    const auto size = static_cast<std::uint32_t>(sizeof(PacketHeader) + sizeof(UsbmonHeader) + paddedData +
                                                 options + sizeof(std::uint32_t));
    const auto time = static_cast<std::uint64_t>(packet.time.count());
    const PacketHeader header = {.type = enhancedPacket,
                                 .size = size,
                                 .interface = 0,
                                 .timeHigh = static_cast<std::uint32_t>(time >> 32),
                                 .timeLow = static_cast<std::uint32_t>(time),
                                 .captured = static_cast<std::uint32_t>(captured),
                                 .original = static_cast<std::uint32_t>(captured)};
    const UsbmonHeader usbmon = usbmonHeader(packet, data.size());
    const std::size_t begin = file.size();
    file.resize(begin + sizeof header + sizeof usbmon + paddedData);
    std::memcpy(file.data() + begin, &header, sizeof header);
    std::memcpy(file.data() + begin + sizeof header, &usbmon, sizeof usbmon);
    if (!data.empty()) {
        std::memcpy(file.data() + begin + sizeof header + sizeof usbmon, data.data(), data.size());
    }
    if (!comment.empty()) {
        appendOption(file, commentOption, comment);
        appendOption(file, endOption, {});
    }
    append<std::uint32_t>(file, size);
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

#include "recorder/recording_writer.h"

#include "recorder/call_texts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace recorder {

namespace {

using namespace capture;

// Left for the marks at the end of a file that may not grow.
constexpr std::uint64_t roomForMarks = 1024;
constexpr std::size_t deviceDescriptorSize = 18;
constexpr std::size_t configurationHeaderSize = 9;

Time now() {
    return std::chrono::duration_cast<Time>(std::chrono::system_clock::now().time_since_epoch());
}

template <std::size_t Size>
std::string textOf(const char (&text)[Size]) {
    return {text, ::strnlen(text, Size)};
}

bool isTransfer(std::uint16_t kind) {
    return kind == recording_submission || kind == recording_completion || kind == recording_submission_error;
}

std::optional<SetupPacket> setupOf(const recording_entry& entry) {
    if ((entry.flags & recording_with_setup) == 0) {
        return std::nullopt;
    }
    SetupPacket setup;
    std::copy_n(entry.setup, setup.size(), setup.begin());
    return setup;
}

// The type of a remark, and the names of the numbers in it.
struct Kind {
    const char* type;
    const char* first;
    const char* second;
};

Kind kindOf(std::uint16_t kind) {
    switch (kind) {
    case recording_came:
        return {"came", nullptr, nullptr};
    case recording_left:
        return {"left", nullptr, nullptr};
    case recording_open:
        return {"open", nullptr, nullptr};
    case recording_close:
        return {"close", nullptr, nullptr};
    case recording_claim:
        return {"claim", "interface", nullptr};
    case recording_release:
        return {"release", "interface", nullptr};
    case recording_detach:
        return {"detach", "interface", nullptr};
    case recording_attach:
        return {"attach", "interface", nullptr};
    case recording_set_configuration:
        return {"set-configuration", "configuration", nullptr};
    case recording_set_interface:
        return {"set-interface", "interface", "alternate"};
    case recording_reset:
        return {"reset", nullptr, nullptr};
    case recording_clear_halt:
        return {"clear-halt", "endpoint", nullptr};
    case recording_reset_endpoint:
        return {"reset-endpoint", "endpoint", nullptr};
    case recording_discard:
        return {"discard", nullptr, nullptr};
    default:
        return {nullptr, nullptr, nullptr};
    }
}

} // namespace

RecordingWriter::RecordingWriter(Options options)
    : m_options(std::move(options)) {
    appendHeader(m_buffer, "gvusb record " + m_options.version);
    m_size = m_buffer.size();
    const char* const redacted = m_options.redaction.all                 ? "all"
                                 : !m_options.redaction.matching.empty() ? "matching"
                                                                         : "nothing";
    remark(now(), {{"type", "start"},
                   {"version", m_options.version},
                   {"program", m_options.program},
                   {"redacted", redacted}});
}

void RecordingWriter::remark(Time time, const Json& value) {
    const std::size_t before = m_buffer.size();
    appendRemark(m_buffer, time, value);
    keepWithinLargest(before);
}

// What does not fit is taken back, and the recording ends there.
void RecordingWriter::keepWithinLargest(std::size_t before) {
    const std::size_t added = m_buffer.size() - before;
    if (m_isFull || (m_options.largest && m_size + added + roomForMarks > *m_options.largest)) {
        m_buffer.resize(before);
        m_isFull = true;
        return;
    }
    m_size += added;
}

void RecordingWriter::add(const recording_entry& entry, std::span<const std::uint8_t> data) {
    if (m_isFull) {
        return;
    }
    if (isTransfer(entry.kind)) {
        addTransfer(entry, data);
    } else if (entry.kind == recording_device) {
        addDevice(entry, data);
    } else if (entry.kind == recording_came || entry.kind == recording_left) {
        if (addPresence(entry)) {
            addEvent(entry, data);
        }
    } else {
        addEvent(entry, data);
    }
}

// ---- transfers

void RecordingWriter::addTransfer(const recording_entry& entry, std::span<const std::uint8_t> data) {
    const auto type = static_cast<TransferType>(entry.type);
    const std::optional<SetupPacket> setup = setupOf(entry);
    bool isFrame = Redaction::isFrame(type, setup);
    if (type == TransferType::control) {
        // A completion does not say what was requested.
        if (entry.kind == recording_submission) {
            m_frames[entry.id] = isFrame;
        } else if (const auto found = m_frames.find(entry.id); found != m_frames.end()) {
            isFrame = found->second;
            m_frames.erase(found);
        }
    }
    bool isRedacted = false;
    if (isFrame && m_options.redaction.isWanted()) {
        m_data.assign(data.begin(), data.end());
        isRedacted = m_options.redaction.replace(m_data);
        data = m_data;
    }
    const PacketKind kind = entry.kind == recording_submission   ? PacketKind::submission
                            : entry.kind == recording_completion ? PacketKind::completion
                                                                 : PacketKind::submissionError;
    const bool isCut = kind != PacketKind::submissionError && data.size() == recording_most_data &&
                       entry.length > recording_most_data;
    constexpr std::uint32_t kernelIn = 0x200;
    const std::size_t before = m_buffer.size();
    appendPacket(m_buffer,
                 {.id = entry.id,
                  .kind = kind,
                  .type = type,
                  .endpoint = entry.endpoint,
                  .address = entry.address,
                  .bus = entry.bus,
                  .setup = setup,
                  .time = Time(entry.time),
                  .status = kind == PacketKind::submission ? inProgress : entry.result,
                  .length = entry.length,
                  .data = data,
                  .interval = 0,
                  .flags = (entry.endpoint & directionIn) != 0 ? kernelIn : 0},
                 isRedacted ? redactedComment
                 : isCut    ? cutComment
                            : std::string_view{});
    keepWithinLargest(before);
}

// ---- devices

void RecordingWriter::addDevice(const recording_entry& entry, std::span<const std::uint8_t> data) {
    if (data.size() < sizeof(recording_facts)) {
        return;
    }
    Known& known = m_devices[{entry.bus, entry.address}];
    if (std::ranges::equal(known.facts, data)) {
        return;
    }
    known.facts.assign(data.begin(), data.end());
    known.isPresent = true;
    recording_facts facts;
    std::memcpy(&facts, data.data(), sizeof facts);
    Json value = {{"type", "device"}, {"bus", entry.bus}, {"address", entry.address}};
    for (const auto& [key, text] :
         {std::pair("name", textOf(facts.name)), std::pair("speed", textOf(facts.speed)),
          std::pair("manufacturer", textOf(facts.manufacturer)), std::pair("product", textOf(facts.product)),
          std::pair("serial", textOf(facts.serial))}) {
        if (!text.empty()) {
            value[key] = text;
        }
    }
    const std::string configuration = textOf(facts.configuration);
    int number = 0;
    if (std::from_chars(configuration.data(), configuration.data() + configuration.size(), number).ec ==
        std::errc{}) {
        value["configuration"] = number;
    }
    // The descriptors first: if they are another device's, the facts are this one's.
    addDescriptors(entry, data.subspan(sizeof facts));
    remark(Time(entry.time), value);
}

// The node's descriptors: that of the device, then each configuration whole.
void RecordingWriter::addDescriptors(const recording_entry& entry,
                                     std::span<const std::uint8_t> descriptors) {
    if (descriptors.size() < deviceDescriptorSize) {
        return;
    }
    addReading(entry, {0x80, 6, 0, 1, 0, 0, deviceDescriptorSize, 0},
               descriptors.first(deviceDescriptorSize));
    descriptors = descriptors.subspan(deviceDescriptorSize);
    for (std::uint8_t index = 0; descriptors.size() >= configurationHeaderSize; ++index) {
        const std::size_t total = static_cast<std::size_t>(descriptors[2] | descriptors[3] << 8);
        const std::size_t size = std::clamp(total, configurationHeaderSize, descriptors.size());
        addReading(
            entry,
            {0x80, 6, index, 2, 0, 0, static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8)},
            descriptors.first(size));
        descriptors = descriptors.subspan(size);
    }
}

// As an enumeration reads a descriptor, so that Wireshark knows what the device is.
void RecordingWriter::addReading(const recording_entry& entry, const SetupPacket& setup,
                                 std::span<const std::uint8_t> data) {
    constexpr std::uint64_t ownIds = std::uint64_t{0xFFFF} << 48;
    const std::uint64_t id = ownIds | ++m_lastId * 8;
    const std::size_t before = m_buffer.size();
    Packet packet;
    packet.id = id;
    packet.type = TransferType::control;
    packet.endpoint = directionIn;
    packet.address = entry.address;
    packet.bus = entry.bus;
    packet.setup = setup;
    packet.time = Time(entry.time);
    packet.length = static_cast<std::uint32_t>(data.size());
    appendPacket(m_buffer, packet, kernelCopyComment);
    packet.kind = PacketKind::completion;
    packet.setup.reset();
    packet.status = 0;
    packet.data = data;
    appendPacket(m_buffer, packet, kernelCopyComment);
    keepWithinLargest(before);
}

// A program is told once for each of its sockets, perhaps late. Returns whether it is news.
bool RecordingWriter::addPresence(const recording_entry& entry) {
    if (entry.id != 0 && entry.id <= m_lastSequence) {
        return false;
    }
    m_lastSequence = std::max(m_lastSequence, entry.id);
    Known& known = m_devices[{entry.bus, entry.address}];
    const bool isPresent = entry.kind == recording_came;
    const bool isNews = known.isPresent != isPresent;
    if (isNews) {
        known.isPresent = isPresent;
        known.facts.clear();
    }
    return isNews;
}

// ---- the rest

void RecordingWriter::addEvent(const recording_entry& entry, std::span<const std::uint8_t> data) {
    Json value;
    if (entry.kind == recording_call || entry.kind == recording_return) {
        const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
        value = entry.kind == recording_call ? callRemark(entry, text) : returnRemark(entry, text);
        value["process"] = entry.process;
        value["thread"] = entry.thread;
        remark(Time(entry.time), value);
        return;
    }
    const Kind kind = kindOf(entry.kind);
    if (kind.type == nullptr) {
        return;
    }
    value = {{"type", kind.type}, {"bus", entry.bus}, {"address", entry.address}};
    if (kind.first != nullptr) {
        value[kind.first] = entry.numbers[0];
    }
    if (kind.second != nullptr) {
        value[kind.second] = entry.numbers[1];
    }
    if (entry.kind == recording_claim && entry.numbers[1] != 0) {
        value["detaches"] = true;
    }
    if (entry.kind == recording_discard) {
        value["id"] = entry.id;
    }
    if (entry.kind == recording_open || entry.kind == recording_close) {
        value["descriptor"] = entry.result;
    }
    if (entry.kind != recording_came && entry.kind != recording_left && entry.kind != recording_close) {
        value["result"] = entry.kind == recording_open ? std::min(entry.result, 0) : entry.result;
    }
    value["process"] = entry.process;
    value["thread"] = entry.thread;
    remark(Time(entry.time), value);
}

// ---- the file

void RecordingWriter::flush() {
    std::span<const std::uint8_t> left = m_buffer;
    while (!left.empty() && !m_hasFailed) {
        const ssize_t written = ::write(m_options.file, left.data(), left.size());
        if (written < 0 && errno != EINTR) {
            m_hasFailed = true;
            m_isFull = true;
            throw std::system_error(errno, std::generic_category());
        }
        left = left.subspan(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    m_buffer.clear();
}

void RecordingWriter::end(std::uint64_t lost, std::optional<int> status) {
    if (lost != 0) {
        appendRemark(m_buffer, now(), {{"type", "lost"}, {"count", lost}});
    }
    if (m_isFull) {
        appendRemark(m_buffer, now(), {{"type", "limit"}, {"size", m_options.largest.value_or(0)}});
    }
    Json value = {{"type", "end"}};
    if (status) {
        value["result"] = *status;
    }
    appendRemark(m_buffer, now(), value);
    flush();
}

} // namespace recorder

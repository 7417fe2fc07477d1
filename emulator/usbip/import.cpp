#include "usbip/import.h"

#include <cerrno>

namespace emulator::usbip {

namespace {

constexpr std::uint8_t deviceOut = 0x00;
constexpr std::uint8_t endpointOut = 0x02;
constexpr std::uint8_t portOut = 0x23;
constexpr std::uint8_t clearFeature = 1;
constexpr std::uint8_t setFeature = 3;
constexpr std::uint8_t setConfiguration = 9;
constexpr std::uint16_t endpointHalt = 0;
constexpr std::uint16_t portReset = 4;

std::uint8_t endpointAddress(const UrbHeader& header) {
    constexpr std::uint32_t inBit = 0x80;
    return static_cast<std::uint8_t>(header.endpoint |
                                     (header.endpoint != 0 && header.direction != 0 ? inBit : 0));
}

// The client asks for a port reset by the request that a hub would get.
bool resetsPort(const Submit& submit) {
    return submit.setup.requestType == portOut && submit.setup.request == setFeature &&
           submit.setup.value == portReset;
}

} // namespace

const char* Import::mistake(const UrbHeader& header, const Submit& submit) const {
    constexpr std::uint32_t highestEndpoint = 15;
    if (submit.length < 0 || static_cast<std::size_t>(submit.length) > longestTransfer) {
        return "transfer too long";
    }
    if (submit.packets != 0 && submit.packets != -1) {
        return "isochronous transfer";
    }
    if (header.endpoint > highestEndpoint || !m_reader.model.hasEndpoint(endpointAddress(header))) {
        return "no such endpoint";
    }
    if (m_transfers.contains(header.sequence)) {
        return "sequence number in use";
    }
    if (m_transfers.size() == mostRequests || m_bytes + static_cast<std::size_t>(submit.length) > mostBytes) {
        return "too many pending transfers or bytes";
    }
    const ControlSetup& setup = submit.setup;
    if (header.endpoint == 0 && setup.length > submit.length) {
        return "control transfer shorter than its setup packet says";
    }
    if (header.endpoint == 0 && setup.length != 0 && setup.in() != (header.direction != 0)) {
        return "control transfer against the direction in its setup packet";
    }
    return nullptr;
}

void Import::count(const Submit& submit, std::uint8_t endpoint) {
    ++m_reader.counts.transfers;
    const ControlSetup& setup = submit.setup;
    if (endpoint != 0) {
        return;
    }
    if (setup.requestType == deviceOut && setup.request == setConfiguration) {
        ++m_reader.counts.setConfigurations;
    }
    if (setup.requestType == endpointOut && setup.request == clearFeature && setup.value == endpointHalt) {
        ++m_reader.counts.clearHalts;
    }
}

void Import::submit(const UrbHeader& header, const Submit& submit, Bytes payload, Time now, Output& replies) {
    const std::uint8_t endpoint = endpointAddress(header);
    if (endpoint == 0 && resetsPort(submit)) {
        ++m_reader.counts.resets;
        m_reader.model.reset(now);
        collect(replies);
        replies.write([&](Bytes& bytes) { appendSubmitReply(bytes, header.sequence, 0, 0, {}); });
        return;
    }
    count(submit, endpoint);
    const auto length = static_cast<std::size_t>(submit.length);
    const bool in = header.direction != 0;
    Transfer transfer{.endpoint = endpoint};
    if (endpoint == 0) {
        transfer.setup = submit.setup;
    }
    if (in) {
        transfer.capacity = length;
    } else {
        transfer.data = std::move(payload);
        transfer.zeroPacket = (submit.flags & usbip_zero_packet) != 0;
    }
    if (endpoint == 0) {
        transfer.data.resize(std::min<std::size_t>(transfer.data.size(), submit.setup.length));
        transfer.capacity = std::min<std::size_t>(transfer.capacity, submit.setup.length);
    }
    // The model may have completed it already; collect() looks for it in these maps.
    const std::size_t held = transfer.data.capacity();
    const TransferId id = m_reader.model.submit(std::move(transfer), now);
    const bool shortNotOk = in && (submit.flags & usbip_short_not_ok) != 0;
    m_pending.emplace(
        id,
        PendingUrb{.sequence = header.sequence, .length = length, .payload = held, .shortNotOk = shortNotOk});
    m_transfers.emplace(header.sequence, id);
    m_bytes += length;
    m_payload += held;
    collect(replies);
}

void Import::forget(const PendingUrb& urb) {
    m_transfers.erase(urb.sequence);
    m_bytes -= urb.length;
    m_payload -= urb.payload;
}

// Like the kernel's server: the reply replaces that to the submit, or has status 0 if the submit has
// completed.
void Import::unlink(std::uint32_t sequence, std::uint32_t unlinked, Time now, Output& replies) {
    const auto found = m_transfers.find(unlinked);
    if (found == m_transfers.end()) {
        replies.write([&](Bytes& bytes) { appendUnlinkReply(bytes, sequence, 0); });
        return;
    }
    const TransferId id = found->second;
    const auto pending = m_pending.find(id);
    forget(pending->second);
    m_pending.erase(pending);
    ++m_reader.counts.cancels;
    m_reader.model.cancel(id, now);
    replies.write([&](Bytes& bytes) { appendUnlinkReply(bytes, sequence, -ECONNRESET); });
    collect(replies);
}

void Import::collect(Output& replies) {
    while (std::optional<Completion> completion = m_reader.model.takeCompletion()) {
        const auto found = m_pending.find(completion->id);
        if (found == m_pending.end()) {
            continue;
        }
        const PendingUrb urb = found->second;
        m_pending.erase(found);
        forget(urb);
        int result = urbStatus(completion->outcome, -ECONNRESET, completion->failure);
        if (result == 0 && urb.shortNotOk && completion->actual < urb.length) {
            result = -EREMOTEIO;
        }
        replies.write(
            [&](Bytes& bytes) { appendSubmitReply(bytes, urb.sequence, result, completion->actual, {}); });
        replies.append(std::move(completion->data));
    }
}

void Import::release(Time now) {
    ++m_reader.counts.closes;
    // All at once: cancelling the oldest would let the model perform the next one.
    m_reader.model.unplug();
    m_pending.clear();
    m_transfers.clear();
    m_bytes = 0;
    m_payload = 0;
    m_reader.model.reset(now);
    while (m_reader.model.takeCompletion()) {
    }
    m_reader.model.note(ReaderEvent::closed);
}

} // namespace emulator::usbip

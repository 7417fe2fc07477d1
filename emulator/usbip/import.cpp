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

// A hub's request in the place of a device's: the client wants the port that the reader is plugged in reset.
bool resetsPort(const Submit& submit) {
    return submit.setup.requestType == portOut && submit.setup.request == setFeature &&
           submit.setup.value == portReset;
}

} // namespace

const char* Import::mistake(const UrbHeader& header, const Submit& submit) const {
    constexpr std::uint32_t highestEndpoint = 15;
    if (submit.length < 0 || static_cast<std::size_t>(submit.length) > longestTransfer) {
        return "a transfer that is too long";
    }
    if (submit.packets != 0 && submit.packets != -1) {
        return "an isochronous transfer";
    }
    if (header.endpoint > highestEndpoint || !m_reader.model.hasEndpoint(endpointAddress(header))) {
        return "an endpoint that the reader does not have";
    }
    if (m_transfers.contains(header.sequence)) {
        return "a sequence number that is in use";
    }
    if (m_transfers.size() == mostRequests || m_bytes + static_cast<std::size_t>(submit.length) > mostBytes) {
        return "more transfers or bytes than may be under way";
    }
    const ControlSetup& setup = submit.setup;
    if (header.endpoint == 0 && setup.length > submit.length) {
        return "a control transfer that is shorter than its setup packet says";
    }
    if (header.endpoint == 0 && setup.length != 0 && setup.in() != (header.direction != 0)) {
        return "a control transfer against the direction in its setup packet";
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

void Import::submit(const UrbHeader& header, const Submit& submit, Input payload, Time now, Bytes& replies) {
    const std::uint8_t endpoint = endpointAddress(header);
    if (endpoint == 0 && resetsPort(submit)) {
        ++m_reader.counts.resets;
        m_reader.model.reset(now);
        collect(replies);
        appendSubmitReply(replies, header.sequence, 0, 0, {});
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
        transfer.data.assign(payload.begin(), payload.end());
    }
    if (endpoint == 0) {
        transfer.data.resize(std::min<std::size_t>(transfer.data.size(), submit.setup.length));
        transfer.capacity = std::min<std::size_t>(transfer.capacity, submit.setup.length);
    }
    // Listed before the replies are collected, so that a completion finds it.
    const TransferId id = m_reader.model.submit(std::move(transfer), now);
    const bool mustBeWhole = in && (submit.flags & usbip_short_not_ok) != 0;
    m_flying.emplace(id, Flying{.sequence = header.sequence, .length = length, .mustBeWhole = mustBeWhole});
    m_transfers.emplace(header.sequence, id);
    m_bytes += length;
    collect(replies);
}

// As the kernel's own server does: the reply stands for that to the submit, or tells by status 0 that it came too late.
void Import::unlink(std::uint32_t sequence, std::uint32_t unlinked, Time now, Bytes& replies) {
    const auto found = m_transfers.find(unlinked);
    if (found == m_transfers.end()) {
        appendUnlinkReply(replies, sequence, 0);
        return;
    }
    const TransferId id = found->second;
    m_transfers.erase(found);
    const auto flying = m_flying.find(id);
    m_bytes -= flying->second.length;
    m_flying.erase(flying);
    ++m_reader.counts.cancels;
    m_reader.model.cancel(id, now);
    appendUnlinkReply(replies, sequence, -ECONNRESET);
    collect(replies);
}

void Import::collect(Bytes& replies) {
    while (const std::optional<Completion> completion = m_reader.model.takeCompletion()) {
        const auto found = m_flying.find(completion->id);
        if (found == m_flying.end()) {
            continue;
        }
        const Flying flying = found->second;
        m_flying.erase(found);
        m_transfers.erase(flying.sequence);
        m_bytes -= flying.length;
        int result = urbStatus(completion->outcome, -ECONNRESET);
        if (result == 0 && flying.mustBeWhole && completion->actual < flying.length) {
            result = -EREMOTEIO;
        }
        appendSubmitReply(replies, flying.sequence, result, completion->actual, completion->data);
    }
}

void Import::release(Time now) {
    ++m_reader.counts.closes;
    // All at once: taken back one by one, each would let the next be carried out.
    m_reader.model.unplug();
    m_flying.clear();
    m_transfers.clear();
    m_bytes = 0;
    m_reader.model.reset(now);
    while (m_reader.model.takeCompletion()) {
    }
}

} // namespace emulator::usbip

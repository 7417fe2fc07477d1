// The control requests of a reader: standard requests, and frames by vendor request 0.

#include "model/descriptors.h"
#include "model/model.h"

#include <algorithm>

namespace emulator {

namespace {

enum StandardRequest : std::uint8_t {
    getStatus = 0,
    clearFeature = 1,
    setFeature = 3,
    getDescriptor = 6,
    getConfiguration = 8,
    setConfiguration = 9,
    getInterface = 10,
    setInterface = 11,
};
enum Recipient : std::uint8_t { toDevice = 0, toInterface = 1, toEndpoint = 2 };
constexpr std::uint16_t endpointHalt = 0;
constexpr std::uint8_t frameRequest = 0;

Completion stall() {
    return {.outcome = Outcome::stalled};
}

Completion accept(std::size_t bytes = 0) {
    return {.actual = bytes};
}

// The host gets at most the length that it asked for; the rest is lost.
Completion send(Bytes data, const Transfer& transfer) {
    data.resize(std::min({data.size(), transfer.capacity, std::size_t{transfer.setup.length}}));
    Completion completion = accept(data.size());
    completion.data = std::move(data);
    return completion;
}

} // namespace

Completion ReaderModel::control(const Transfer& transfer, const PipeFaults& faults, Time now) {
    const ControlSetup& setup = transfer.setup;
    constexpr std::uint8_t kindMask = 0x60;
    constexpr std::uint8_t vendorKind = 0x40;
    if (m_description.hub) {
        if (const std::optional<Bytes> answer = answerOfHub(setup)) {
            return send(*answer, transfer);
        }
    }
    if ((setup.requestType & kindMask) == 0) {
        return standardRequest(transfer, now);
    }
    if ((setup.requestType & ~0x80) != vendorKind || setup.request != frameRequest || setup.value != 0 ||
        setup.index != 0) {
        return stall();
    }
    if (setup.in()) {
        Bytes answer = std::move(m_controlAnswers.front().data);
        m_controlAnswers.pop();
        answer.resize(std::min(answer.size(), faults.shortTo.value_or(answer.size())));
        return send(std::move(answer), transfer);
    }
    Bytes frame = transfer.data;
    frame.resize(std::min(frame.size(), faults.shortTo.value_or(frame.size())));
    const std::size_t taken = frame.size();
    return takeFrame(0, std::move(frame), now) == Outcome::stalled ? stall() : accept(taken);
}

Completion ReaderModel::standardRequest(const Transfer& transfer, Time now) {
    const ControlSetup& setup = transfer.setup;
    const auto endpoint = static_cast<std::uint8_t>(setup.index);
    const std::uint8_t recipient = setup.requestType & 0x1F;
    const auto addressed = static_cast<std::uint8_t>(setup.value >> 8);
    const auto low = static_cast<std::uint8_t>(setup.value & 0xFF);
    const bool halt = recipient == toEndpoint && setup.value == endpointHalt && hasEndpoint(endpoint);
    if (setup.in()) {
        if (setup.request == getDescriptor && recipient == toDevice) {
            std::optional<Bytes> bytes = descriptor(addressed, low);
            return bytes ? send(std::move(*bytes), transfer) : stall();
        }
        if (setup.request == getConfiguration && recipient == toDevice) {
            return send({m_configuration}, transfer);
        }
        if (setup.request == getInterface && recipient == toInterface && m_configuration != 0) {
            return send({0}, transfer);
        }
        if (setup.request == getStatus && recipient != toEndpoint) {
            return send({0, 0}, transfer);
        }
        if (setup.request == getStatus && halt) {
            return send({static_cast<std::uint8_t>(pipeFaults(pipeOf(endpoint)).stalled), 0}, transfer);
        }
        return stall();
    }
    if (setup.request == setConfiguration && recipient == toDevice) {
        return configure(low, now) ? accept() : stall();
    }
    if (setup.request == setInterface && recipient == toInterface && setup.value == 0 &&
        m_configuration != 0) {
        chooseSetting(setup.index, now);
        return accept();
    }
    if (setup.request == clearFeature && halt) {
        clearHalt(endpoint, now);
        return accept();
    }
    if (setup.request == setFeature && halt && endpoint != 0) {
        m_pipeFaults[pipeOf(endpoint)].stalled = true;
        return accept();
    }
    return stall();
}

std::optional<Bytes> ReaderModel::descriptor(std::uint8_t type, std::uint8_t index) const {
    if (m_description.descriptors && (type == deviceType || type == configurationType)) {
        return givenDescriptor(*m_description.descriptors, type, index);
    }
    if (type == deviceType && index == 0) {
        return deviceDescriptor(m_description);
    }
    if (type == configurationType && index < m_description.configurations.size()) {
        return configurationDescriptor(m_description, index);
    }
    if (type != stringType || m_requestFaults.unreadableStrings.contains(index)) {
        return std::nullopt;
    }
    if (index == 0) {
        return m_description.strings.empty() ? std::optional<Bytes>{} : languageDescriptor();
    }
    const auto found = m_description.strings.find(index);
    return found == m_description.strings.end() ? std::optional<Bytes>{} : stringDescriptor(found->second);
}

} // namespace emulator

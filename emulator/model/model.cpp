#include "model/model.h"

#include "model/descriptors.h"

#include <algorithm>

namespace emulator {

ReaderModel::ReaderModel(ReaderDescription description)
    : m_description(std::move(description)) {
    power(Time{});
}

// ---- transfers

TransferId ReaderModel::submit(Transfer transfer, Time now) {
    const TransferId id = ++m_lastId;
    const std::uint8_t endpoint = transfer.endpoint;
    m_waiting[endpoint].push_back({.id = id, .transfer = std::move(transfer)});
    run(endpoint, now);
    return id;
}

bool ReaderModel::cancel(TransferId id, Time now) {
    for (auto& [endpoint, queue] : m_waiting) {
        const auto found = std::ranges::find(queue, id, &Waiting::id);
        if (found == queue.end()) {
            continue;
        }
        m_completions.push_back({.id = id, .outcome = Outcome::cancelled});
        queue.erase(found);
        run(endpoint, now);
        return true;
    }
    return false;
}

std::optional<Completion> ReaderModel::takeCompletion() {
    if (m_completions.empty()) {
        return std::nullopt;
    }
    Completion completion = std::move(m_completions.front());
    m_completions.pop_front();
    return completion;
}

std::optional<Time> ReaderModel::nextDeadline() const {
    std::optional<Time> earliest;
    for (const auto& [endpoint, queue] : m_waiting) {
        if (!queue.empty() && queue.front().ready && !faultsFor(queue.front().transfer).mute) {
            earliest = std::min(earliest.value_or(*queue.front().ready), *queue.front().ready);
        }
    }
    return earliest;
}

void ReaderModel::advance(Time now) {
    // In order of addresses, OUT before IN: a frame may complete a transfer that waits for an answer.
    std::vector<std::uint8_t> endpoints;
    for (const auto& [endpoint, queue] : m_waiting) {
        endpoints.push_back(endpoint);
    }
    for (const std::uint8_t endpoint : endpoints) {
        run(endpoint, now);
    }
}

void ReaderModel::run(std::uint8_t endpoint, Time now) {
    const std::size_t answersBefore = m_bulkAnswers.size();
    // A frame affects other pipes only by its answer, so one more round is enough.
    while (!m_waiting[endpoint].empty() && runFirst(m_waiting[endpoint], now)) {
    }
    if (m_bulkAnswers.size() <= answersBefore) {
        return;
    }
    for (auto& [other, queue] : m_waiting) {
        while (other != endpoint && !queue.empty() && runFirst(queue, now)) {
        }
    }
}

bool ReaderModel::runFirst(std::deque<Waiting>& queue, Time now) {
    Waiting& first = queue.front();
    const PipeFaults faults = faultsFor(first.transfer);
    if (faults.mute) {
        return false;
    }
    if (!faults.stalled && !couldComplete(first.transfer)) {
        first.ready.reset(); // the answer or the stall that it waited for is gone
        return false;
    }
    if (!first.ready) {
        first.ready = now + faults.delay;
    }
    if (now < *first.ready) {
        return false;
    }
    // Removed before it is performed, because a request may end every pending transfer.
    const Waiting taken = std::move(first);
    queue.pop_front();
    Completion completion =
        faults.stalled ? Completion{.outcome = Outcome::stalled} : perform(taken.transfer, faults, now);
    completion.id = taken.id;
    m_completions.push_back(std::move(completion));
    return true;
}

PipeFaults ReaderModel::faultsFor(const Transfer& transfer) const {
    PipeFaults faults = pipeFaults(pipeOf(transfer.endpoint));
    if (transfer.endpoint == 0 && transfer.setup.request == 0) {
        if (transfer.setup.requestType == 0x40) {
            faults = faults.with(pipeFaults(Pipe::controlFrameOut));
        } else if (transfer.setup.requestType == 0xC0) {
            faults = faults.with(pipeFaults(Pipe::controlFrameIn));
        }
    }
    return faults;
}

bool ReaderModel::couldComplete(const Transfer& transfer) const {
    if (transfer.endpoint == 0) {
        return transfer.setup.requestType != 0xC0 || transfer.setup.request != 0 || !m_controlAnswers.empty();
    }
    const auto endpoint = std::ranges::find(m_description.endpoints, transfer.endpoint, &Endpoint::address);
    if (endpoint == m_description.endpoints.end() || endpoint->type != TransferType::bulk) {
        return false; // such endpoints move no data
    }
    return !endpoint->in() || !m_bulkAnswers.empty();
}

Completion ReaderModel::perform(const Transfer& transfer, const PipeFaults& faults, Time now) {
    if (transfer.endpoint == 0) {
        return control(transfer, faults, now);
    }
    if ((transfer.endpoint & 0x80) == 0) {
        Bytes frame = transfer.data;
        frame.resize(std::min(frame.size(), faults.shortTo.value_or(frame.size())));
        Completion completion{.actual = frame.size()};
        takeFrame(transfer.endpoint, std::move(frame));
        return completion;
    }
    WaitingAnswer& answer = m_bulkAnswers.front();
    if (faults.shortTo && answer.sent == 0) {
        answer.data.resize(std::min(answer.data.size(), *faults.shortTo));
    }
    return sendPackets(transfer);
}

// The transfer ends with the answer, as if a zero-length packet followed where one is needed, or when its
// capacity is used up. The excess bytes of a packet are lost, as on the wire.
Completion ReaderModel::sendPackets(const Transfer& transfer) {
    WaitingAnswer& answer = m_bulkAnswers.front();
    const auto endpoint = std::ranges::find(m_description.endpoints, transfer.endpoint, &Endpoint::address);
    const std::size_t packet = packetSize(m_description, *endpoint);
    const std::size_t left = answer.data.size() - answer.sent;
    Completion completion;
    std::size_t taken = std::min(left, transfer.capacity);
    if (left > transfer.capacity && transfer.capacity % packet != 0) {
        completion.outcome = Outcome::overflow;
        taken = std::min(left, (transfer.capacity / packet + 1) * packet);
    }
    const auto begin = answer.data.begin() + static_cast<std::ptrdiff_t>(answer.sent);
    completion.actual = std::min(taken, transfer.capacity);
    completion.data.assign(begin, begin + static_cast<std::ptrdiff_t>(completion.actual));
    answer.sent += taken;
    if (answer.sent == answer.data.size()) {
        m_bulkAnswers.pop();
    }
    return completion;
}

void ReaderModel::takeFrame(std::uint8_t endpoint, Bytes frame) {
    const bool byControl = endpoint == 0;
    std::optional<Bytes> answer = m_description.reply.answer(frame);
    ++m_frameCount;
    m_lastFrame = {.endpoint = endpoint, .data = std::move(frame)};

    // A mute reader does not answer later what it received while it was mute.
    bool mute = byControl ? pipeFaults(Pipe::control).with(pipeFaults(Pipe::controlFrameIn)).mute : false;
    for (const Endpoint& each : m_description.endpoints) {
        mute |= !byControl && each.in() && pipeFaults(pipeOf(each.address)).mute;
    }
    if (answer && !mute) {
        (byControl ? m_controlAnswers : m_bulkAnswers).push(std::move(*answer));
    }
}

// ---- life on the bus

void ReaderModel::endAll(Outcome outcome, bool controlToo) {
    for (auto& [endpoint, queue] : m_waiting) {
        if (endpoint == 0 && !controlToo) {
            continue;
        }
        for (const Waiting& waiting : queue) {
            m_completions.push_back({.id = waiting.id, .outcome = outcome});
        }
        queue.clear();
    }
}

void ReaderModel::power(Time now) {
    endAll(Outcome::gone, true);
    reset(now);
    m_configuration =
        m_description.configurations.empty() ? std::uint8_t{0} : m_description.configurations.front();
}

void ReaderModel::unplug() {
    endAll(Outcome::gone, true);
}

void ReaderModel::reset(Time now) {
    endAll(Outcome::gone, false);
    forgetAnswers();
    for (const Endpoint& endpoint : m_description.endpoints) {
        clearHalt(endpoint.address, now);
    }
}

bool ReaderModel::configure(std::uint8_t value, Time now) {
    const auto& values = m_description.configurations;
    if (m_requestFaults.refusesConfiguration) {
        return false;
    }
    if (value != 0 && std::ranges::find(values, value) == values.end()) {
        return false;
    }
    endAll(Outcome::gone, false);
    m_configuration = value;
    for (const Endpoint& endpoint : m_description.endpoints) {
        clearHalt(endpoint.address, now);
    }
    return true;
}

void ReaderModel::chooseSetting(unsigned interfaceNumber, Time now) {
    if (interfaceNumber != m_description.firstInterface) {
        return;
    }
    for (const Endpoint& endpoint : m_description.endpoints) {
        clearHalt(endpoint.address, now);
    }
}

bool ReaderModel::hasEndpoint(std::uint8_t address) const {
    return address == 0 || (m_configuration != 0 && m_description.interfaces != 0 &&
                            std::ranges::find(m_description.endpoints, address, &Endpoint::address) !=
                                m_description.endpoints.end());
}

void ReaderModel::clearHalt(std::uint8_t endpoint, Time now) {
    const auto faults = m_pipeFaults.find(pipeOf(endpoint));
    if (endpoint == 0 || faults == m_pipeFaults.end() || faults->second.stuck) {
        return;
    }
    faults->second.stalled = false;
    run(endpoint, now);
}

// ---- what commands see and change

void ReaderModel::setString(std::uint8_t index, std::optional<std::string> text) {
    if (text) {
        m_description.strings[index] = std::move(*text);
    } else {
        m_description.strings.erase(index);
    }
}

void ReaderModel::forgetAnswers() {
    m_bulkAnswers.clear();
    m_controlAnswers.clear();
}

std::vector<Pipe> ReaderModel::pipesNamed(std::string_view name) const {
    if (name == "control") {
        return {Pipe::control};
    }
    std::vector<Pipe> pipes;
    const bool all = name == "all";
    if (all || name == "in" || name == "out") {
        for (const Endpoint& endpoint : m_description.endpoints) {
            if (all || endpoint.in() == (name == "in")) {
                pipes.push_back(pipeOf(endpoint.address));
            }
        }
        if (all) {
            pipes.push_back(Pipe::control);
        } else {
            pipes.push_back(name == "in" ? Pipe::controlFrameIn : Pipe::controlFrameOut);
        }
        return pipes;
    }
    if (name.empty() || name.front() < '0' || name.front() > '9') {
        throw TextError("pipe must be in, out, control, all or an endpoint such as 0x81, not '" +
                        std::string(name) + "'");
    }
    const auto address = static_cast<std::uint8_t>(number("endpoint", name, 1, 0x8F));
    if (std::ranges::find(m_description.endpoints, address, &Endpoint::address) ==
        m_description.endpoints.end()) {
        throw TextError("reader has no endpoint " + std::string(name));
    }
    return {pipeOf(address)};
}

PipeFaults ReaderModel::pipeFaults(Pipe pipe) const {
    const auto found = m_pipeFaults.find(pipe);
    return found == m_pipeFaults.end() ? PipeFaults{} : found->second;
}

void ReaderModel::setPipeFaults(Pipe pipe, const PipeFaults& faults, Time now) {
    m_pipeFaults[pipe] = faults;
    advance(now);
}

} // namespace emulator

#include "model/model.h"

#include "model/descriptors.h"

#include <algorithm>
#include <utility>

namespace emulator {

namespace {

// The pipe of a control transfer that moves a frame.
std::optional<Pipe> framePipe(const Transfer& transfer) {
    if (transfer.endpoint == 0 && transfer.setup.request == 0) {
        if (transfer.setup.requestType == 0x40) {
            return Pipe::controlFrameOut;
        }
        if (transfer.setup.requestType == 0xC0) {
            return Pipe::controlFrameIn;
        }
    }
    return std::nullopt;
}

} // namespace

ReaderModel::ReaderModel(ReaderDescription description)
    : m_description(std::move(description)) {
    power(Time{});
}

// ---- transfers

TransferId ReaderModel::submit(Transfer transfer, Time now) {
    const TransferId id = ++m_lastId;
    const std::uint8_t endpoint = transfer.endpoint;
    const TransferFate fate = fateOf(transfer);
    if (m_playback) {
        m_playback->used(now);
    }
    m_waiting[endpoint].emplace(id, Waiting{.transfer = std::move(transfer), .fate = fate});
    run(endpoint, now);
    return id;
}

bool ReaderModel::cancel(TransferId id, Time now) {
    for (auto& [endpoint, queue] : m_waiting) {
        const auto found = queue.find(id);
        if (found == queue.end()) {
            continue;
        }
        Completion completion = endPlayed(found->second, Outcome::cancelled);
        completion.id = id;
        queue.erase(found);
        m_completions.push_back(std::move(completion));
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
        if (m_leaving || queue.empty()) {
            continue;
        }
        const Waiting& first = queue.begin()->second;
        if (faultsFor(first.transfer).mute) {
            continue;
        }
        std::optional<Time> due = first.ready;
        if (!due && m_playback) {
            due = playedDeadline(first);
        }
        const AnswerQueue* const answers = answersFor(first.transfer);
        if (!due && !first.lost && answers != nullptr && !answers->empty()) {
            due = answers->front().due;
        }
        if (due) {
            earliest = std::min(earliest.value_or(*due), *due);
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
    m_othersChanged = false;
    // A frame affects other pipes only by its answer, so one more round is enough.
    while (!m_waiting[endpoint].empty() && runFirst(m_waiting[endpoint], now)) {
    }
    if (!m_othersChanged) {
        return;
    }
    for (auto& [other, queue] : m_waiting) {
        while (other != endpoint && !queue.empty() && runFirst(queue, now)) {
        }
    }
}

bool ReaderModel::runFirst(WaitingQueue& queue, Time now) {
    Waiting& first = queue.begin()->second;
    const PipeFaults faults = faultsFor(first.transfer);
    if (faults.mute || m_leaving) {
        return false;
    }
    const bool stalls = faults.stalled || first.fate.stalls;
    if (!stalls && !couldComplete(first, now)) {
        first.ready.reset(); // the answer or the stall that it waited for is gone
        return false;
    }
    if (!stalls && first.fate.mute) {
        if (!first.lost) {
            first.lost = true;
            loseAnswer(first.transfer);
        }
        first.ready.reset();
        return false;
    }
    if (!first.ready) {
        first.ready = now + faults.delay + first.fate.delay;
    }
    if (now < *first.ready) {
        return false;
    }
    // Removed before it is performed, because a request may end every pending transfer.
    const TransferId id = queue.begin()->first;
    Waiting taken = std::move(first);
    queue.erase(queue.begin());
    if (faults.stalled && taken.transfer.endpoint == 0) {
        m_stalledOnce.erase(Pipe::control);
        m_stalledOnce.erase(framePipe(taken.transfer).value_or(Pipe::control));
    }
    Completion completion{.outcome = Outcome::stalled};
    if (stalls) {
        // An endpoint halts; a control transfer stalls alone.
        m_pipeFaults[pipeOf(taken.transfer.endpoint)].stalled |= taken.transfer.endpoint != 0;
    } else {
        taken.fate.corrupt(taken.transfer.data);
        completion = m_playback ? performPlayed(taken, faults, now) : perform(taken.transfer, faults, now);
        taken.fate.corrupt(completion.data);
    }
    completion.id = id;
    m_completions.push_back(std::move(completion));
    return true;
}

PipeFaults ReaderModel::faultsFor(const Transfer& transfer) const {
    PipeFaults faults = pipeFaults(pipeOf(transfer.endpoint));
    const std::optional<Pipe> frames = framePipe(transfer);
    if (frames) {
        faults = faults.with(pipeFaults(*frames));
    }
    if (transfer.endpoint == 0) {
        faults.stalled |=
            m_stalledOnce.contains(Pipe::control) || m_stalledOnce.contains(frames.value_or(Pipe::control));
    }
    return faults;
}

TransferFate ReaderModel::fateOf(const Transfer& transfer) {
    TransferFate fate;
    if (m_transferFaults.empty()) {
        return fate;
    }
    for (const std::optional<Pipe> pipe : {std::optional(pipeOf(transfer.endpoint)), framePipe(transfer)}) {
        const auto found = pipe ? m_transferFaults.find(*pipe) : m_transferFaults.end();
        if (found != m_transferFaults.end()) {
            fate.add(found->second.next(Draws::derived(m_seed, static_cast<std::uint64_t>(*pipe))));
        }
    }
    return fate;
}

// Endpoints of other types move no data.
bool ReaderModel::isBulk(std::uint8_t address) const {
    const auto endpoint = std::ranges::find(m_description.endpoints, address, &Endpoint::address);
    return endpoint != m_description.endpoints.end() && endpoint->type == TransferType::bulk;
}

// The answers of which the transfer reads one; null if it reads none.
const AnswerQueue* ReaderModel::answersFor(const Transfer& transfer) const {
    if (m_playback) {
        return nullptr;
    }
    if (transfer.endpoint == 0) {
        return framePipe(transfer) == Pipe::controlFrameIn ? &m_controlAnswers : nullptr;
    }
    return (transfer.endpoint & 0x80) != 0 && isBulk(transfer.endpoint) ? &m_bulkAnswers : nullptr;
}

bool ReaderModel::couldComplete(Waiting& waiting, Time now) {
    if (m_playback) {
        return couldCompletePlayed(waiting, now);
    }
    const Transfer& transfer = waiting.transfer;
    if (transfer.endpoint != 0 && !isBulk(transfer.endpoint)) {
        return false;
    }
    if (const AnswerQueue* const answers = answersFor(transfer)) {
        return answers->ready(now);
    }
    const bool bringsFrame = transfer.endpoint != 0 || framePipe(transfer) == Pipe::controlFrameOut;
    return !bringsFrame || takesFrames();
}

void ReaderModel::loseAnswer(const Transfer& transfer) {
    if (m_playback && m_playback->reads(transfer)) {
        m_playback->take(transfer);
        return;
    }
    const AnswerQueue* const answers = answersFor(transfer);
    if (answers != nullptr) {
        (answers == &m_bulkAnswers ? m_bulkAnswers : m_controlAnswers).pop();
    }
}

Completion ReaderModel::perform(Transfer& transfer, const PipeFaults& faults, Time now) {
    if (transfer.endpoint == 0) {
        return control(transfer, faults, now);
    }
    if ((transfer.endpoint & 0x80) == 0) {
        return takePackets(transfer, faults, now);
    }
    WaitingAnswer& answer = m_bulkAnswers.front();
    if (faults.shortTo && answer.sent == 0) {
        answer.data.resize(std::min(answer.data.size(), *faults.shortTo));
    }
    return sendPackets(transfer);
}

Completion ReaderModel::takePackets(Transfer& transfer, const PipeFaults& faults, Time now) {
    Bytes data = std::move(transfer.data);
    data.resize(std::min(data.size(), faults.shortTo.value_or(data.size())));
    Completion completion{.actual = data.size()};
    if (m_description.frames == FrameEnd::shortPacket) {
        const auto endpoint =
            std::ranges::find(m_description.endpoints, transfer.endpoint, &Endpoint::address);
        const bool wholePackets = !data.empty() && data.size() % packetSize(m_description, *endpoint) == 0;
        Bytes& begun = m_begunFrames[transfer.endpoint];
        constexpr std::size_t longestFrame = AnswerQueue::mostRoom; // the rest is lost
        data.resize(std::min(data.size(), longestFrame - begun.size()));
        begun.insert(begun.end(), data.begin(), data.end());
        if (wholePackets && !transfer.zeroPacket) {
            return completion;
        }
        data = std::exchange(begun, {});
    }
    takeFrame(transfer.endpoint, std::move(data), now);
    return completion;
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
    completion.actual = std::min(taken, transfer.capacity);
    if (completion.actual == answer.data.size()) {
        completion.data = std::move(answer.data);
        m_bulkAnswers.pop();
        return completion;
    }
    const auto begin = answer.data.begin() + static_cast<std::ptrdiff_t>(answer.sent);
    completion.data.assign(begin, begin + static_cast<std::ptrdiff_t>(completion.actual));
    answer.sent += taken;
    if (answer.sent == answer.data.size()) {
        m_bulkAnswers.pop();
    }
    return completion;
}

// ---- life on the bus

void ReaderModel::endAll(Outcome outcome, bool controlToo) {
    for (auto& [endpoint, queue] : m_waiting) {
        if (endpoint == 0 && !controlToo) {
            continue;
        }
        for (auto& [id, waiting] : queue) {
            Completion completion = endPlayed(waiting, outcome);
            completion.id = id;
            m_completions.push_back(std::move(completion));
        }
        queue.clear();
    }
}

void ReaderModel::power(Time now) {
    m_leaving = false;
    endAll(Outcome::gone, true);
    restart(now);
    m_configuration =
        m_description.configurations.empty() ? std::uint8_t{0} : m_description.configurations.front();
    if (m_playback) {
        m_playback->plugged();
    }
    note(ReaderEvent::plugged);
}

void ReaderModel::unplug() {
    endAll(Outcome::gone, true);
}

void ReaderModel::reset(Time now) {
    restart(now);
    if (m_playback) {
        m_playback->reset(now);
    }
    note(ReaderEvent::reset);
}

void ReaderModel::restart(Time now) {
    endAll(Outcome::gone, false);
    forgetAnswers();
    m_stalledOnce.clear();
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
    note(ReaderEvent::configured, value);
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
    m_begunFrames.erase(endpoint);
    if (m_playback) {
        m_playback->haltCleared(endpoint);
    }
    if (endpoint == 0 || faults == m_pipeFaults.end() || faults->second.stuck) {
        return;
    }
    if (faults->second.stalled) {
        faults->second.stalled = false;
        note(ReaderEvent::haltCleared, endpoint);
    }
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
    m_begunFrames.clear();
    if (m_playback) {
        m_playback->forget();
    }
}

void ReaderModel::forgetLastFrame() {
    m_lastFrame.data = Bytes();
    m_lastFrame.forgotten = m_frameCount != 0;
}

std::size_t ReaderModel::storedBytes() const {
    std::size_t stored = m_bulkAnswers.taken() + m_controlAnswers.taken() + m_lastFrame.data.capacity();
    for (const auto& [endpoint, frame] : m_begunFrames) {
        stored += frame.capacity();
    }
    return stored;
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

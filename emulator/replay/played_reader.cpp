#include "replay/played_reader.h"

#include "model/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace emulator::replay {

namespace {

bool isStandard(const Transfer& transfer) {
    return transfer.endpoint == 0 && (transfer.setup.requestType & kindMask) == 0;
}

bool movesFrame(const Transfer& transfer, std::uint8_t requestType) {
    const ControlSetup& setup = transfer.setup;
    return transfer.endpoint == 0 && setup.requestType == requestType && setup.request == frameRequest &&
           setup.value == 0 && setup.index == 0;
}

std::string seconds(Duration time) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.6f s", std::chrono::duration<double>(time).count());
    return text.data();
}

std::string described(std::uint8_t endpoint, const std::array<std::uint8_t, 8>& setup, std::size_t length,
                      const Bytes& data) {
    constexpr std::size_t mostShown = 64;
    std::string text =
        endpoint == 0 ? "control request " + hexText(setup) : numbered("endpoint 0x%02x", endpoint);
    if (length == 0 && endpoint == 0) {
        return text;
    }
    text += ", " + std::to_string(length) + (length == 1 ? " byte" : " bytes");
    if (!data.empty()) {
        text += ": " + hexText(std::span(data).first(std::min(data.size(), mostShown)));
    }
    return text + (length > std::min(data.size(), mostShown) ? "..." : "");
}

std::string described(const RecordedRequest& request) {
    return described(request.endpoint, request.setup, request.length, request.data);
}

std::string described(const Transfer& transfer) {
    return described(transfer.endpoint, setupBytes(transfer.setup), transfer.data.size(), transfer.data);
}

} // namespace

PlayedReader::PlayedReader(std::string name, std::shared_ptr<const RecordedReader> recorded, Mode mode,
                           Pace pace, std::shared_ptr<Timeline> timeline, Report report)
    : m_name(std::move(name))
    , m_recorded(std::move(recorded))
    , m_mode(mode)
    , m_pace(pace)
    , m_timeline(std::move(timeline))
    , m_report(std::move(report)) {
    for (const RecordedRequest& each : m_recorded->requests) {
        m_requests.add(each);
    }
    for (const RecordedRequest& each : m_recorded->standard) {
        m_standard.add(each);
    }
}

// ---- requests

bool PlayedReader::reads(const Transfer& transfer) const {
    return transfer.endpoint == 0 ? movesFrame(transfer, vendorIn) : (transfer.endpoint & 0x80) != 0;
}

std::optional<PlayedAnswer> PlayedReader::request(const Transfer& transfer, Time now) {
    if (isStandard(transfer)) {
        return standardRequest(transfer, now);
    }
    const auto [begun, isNew] = m_begun.try_emplace(transfer.endpoint, 0);
    if (isNew && transfer.endpoint != 0) {
        begun->second = m_chains[transfer.endpoint].next(transfer.data);
    }
    const std::uint64_t chain = begun->second;
    Occurrences* const occurrences = m_requests.find(transfer, chain);
    const RecordedRequest* recorded = nullptr;
    if (m_mode == Mode::strict && !m_strayed) {
        recorded = nextStrict(transfer, now);
    }
    if (recorded == nullptr && occurrences != nullptr) {
        recorded = nextMatching(*occurrences);
    }
    if (recorded == nullptr) {
        m_begun.erase(begun);
        return unknown(transfer, chain);
    }
    if (!m_timeline->reached(recorded->position)) {
        return std::nullopt;
    }
    m_begun.erase(begun);
    if (m_mode == Mode::strict && !m_strayed) {
        m_position = static_cast<std::size_t>(recorded - m_recorded->requests.data()) + 1;
    }
    m_requests.noteUsed(*recorded);
    m_timeline->noteRequest(now);
    return play(*recorded, now);
}

// The model gives those answers that every reader gives, so that commands can change them.
std::optional<PlayedAnswer> PlayedReader::standardRequest(const Transfer& transfer, Time now) {
    Occurrences* const occurrences = m_standard.find(transfer, 0);
    if (occurrences == nullptr) {
        return PlayedAnswer{.byModel = true, .due = now};
    }
    const RecordedRequest* const recorded = nextMatching(*occurrences);
    if (!m_timeline->reached(recorded->position)) {
        return std::nullopt;
    }
    m_standard.noteUsed(*recorded);
    PlayedAnswer answer = answerOf(recorded->result, now);
    answer.pending |= recorded->gone;
    answer.byModel = recorded->byModel;
    return answer;
}

// The request that comes next in the recording, if it is this one.
const RecordedRequest* PlayedReader::nextStrict(const Transfer& transfer, Time now) {
    const std::vector<RecordedRequest>& requests = m_recorded->requests;
    // A request to a reader that has left does not get here.
    std::size_t position = m_position;
    while (position < requests.size() && isGone(requests[position])) {
        ++position;
    }
    const RecordedRequest* const expected = position < requests.size() ? &requests[position] : nullptr;
    if (expected != nullptr && isSame(*expected, transfer)) {
        return expected;
    }
    m_position = position;
    m_strayed = true;
    m_differed = true;
    reportDifference(expected, transfer, now);
    return nullptr;
}

// The next occurrence, or the last one. Those that came after the reader had left do not get here.
const RecordedRequest* PlayedReader::nextMatching(Occurrences& occurrences) const {
    const auto& requests = occurrences.requests;
    for (std::size_t i = occurrences.next; i < requests.size(); ++i) {
        if (!isGone(*requests[i])) {
            return requests[i];
        }
    }
    const auto last = std::ranges::find_if(requests.rbegin(), requests.rend(),
                                           [](const RecordedRequest* each) { return !each->gone; });
    return last != requests.rend() ? *last : requests.back();
}

PlayedAnswer PlayedReader::play(const RecordedRequest& request, Time now) {
    endSilence();
    queue(request.answers, now);
    PlayedAnswer answer = answerOf(request.result, now);
    answer.pending |= request.gone;
    if (answer.status == -EPIPE && request.endpoint != 0) {
        m_halted.insert(request.endpoint);
    }
    return answer;
}

// A reader takes a frame and stays silent. It stalls control requests that it does not know.
PlayedAnswer PlayedReader::unknown(const Transfer& transfer, std::uint64_t chain) {
    m_differed = true;
    endSilence();
    const bool isFrame = transfer.endpoint != 0 || movesFrame(transfer, vendorOut);
    constexpr std::size_t mostReported = 1000;
    const std::string text = described(transfer);
    if (m_mode == Mode::matching && m_reported.size() < mostReported &&
        m_reported.insert(text + numbered("%u", static_cast<unsigned>(chain & 0xFFFF))).second) {
        m_report(m_name + ": the recording has no such request, so it " +
                 (isFrame ? "is not answered: " : "stalls: ") + text);
    }
    const bool stalls = !isFrame || m_halted.contains(transfer.endpoint);
    return {.status = stalls ? -EPIPE : 0, .actual = stalls ? 0 : transfer.data.size()};
}

void PlayedReader::reportDifference(const RecordedRequest* recorded, const Transfer& transfer, Time now) {
    m_report(m_name + ": request " + std::to_string(m_position + 1) + " differs from the recording");
    m_report("  recorded: " + (recorded != nullptr ? described(*recorded) + ", at " + seconds(recorded->time)
                                                   : "nothing more"));
    m_report("  now:      " + described(transfer) + ", at " +
             seconds(std::chrono::duration_cast<Duration>(m_timeline->sinceStart(now))));
}

bool PlayedReader::reportMissed() {
    if (m_mode != Mode::strict || m_strayed) {
        return false;
    }
    const std::vector<RecordedRequest>& requests = m_recorded->requests;
    for (std::size_t i = m_position; i < requests.size(); ++i) {
        if (!requests[i].gone) {
            m_report(m_name + ": the program did not make request " + std::to_string(i + 1) +
                     " of the recording: " + described(requests[i]) + ", at " + seconds(requests[i].time));
            return true;
        }
    }
    return false;
}

// ---- answers

PlayedAnswer PlayedReader::answerOf(const RecordedAnswer& recorded, Time now) const {
    return {.pending = recorded.pending,
            .due = now + m_pace.scaled(recorded.after),
            .status = recorded.status,
            .data = recorded.data,
            .actual = recorded.actual};
}

// After what is due earlier. What is late does not hold up what is due before it.
void PlayedReader::insert(std::uint8_t endpoint, PlayedAnswer answer) {
    std::deque<PlayedAnswer>& waiting = m_answers[endpoint];
    const auto place = std::ranges::upper_bound(waiting, answer.due, {}, &PlayedAnswer::due);
    waiting.insert(place, std::move(answer));
}

void PlayedReader::queue(const RecordedAnswers& answers, Time now) {
    for (const RecordedAnswer& each : answers) {
        insert(each.endpoint, answerOf(each, now));
    }
}

// A request ends the time in which the reader sends nothing.
void PlayedReader::endSilence() {
    for (auto& [endpoint, waiting] : m_answers) {
        std::erase_if(waiting, [](const PlayedAnswer& each) { return each.pending; });
    }
}

const PlayedAnswer* PlayedReader::next(const Transfer& transfer) const {
    static const PlayedAnswer stall{.status = -EPIPE};
    const auto waiting = m_answers.find(transfer.endpoint);
    if (waiting != m_answers.end() && !waiting->second.empty()) {
        return &waiting->second.front();
    }
    return m_halted.contains(transfer.endpoint) ? &stall : nullptr;
}

std::size_t PlayedReader::packetSizeOf(std::uint8_t endpoint) const {
    const ReaderDescription& description = m_recorded->description;
    const auto found = std::ranges::find(description.endpoints, endpoint, &Endpoint::address);
    return found != description.endpoints.end() ? packetSize(description, *found) : 1;
}

PlayedAnswer PlayedReader::take(const Transfer& transfer) {
    std::deque<PlayedAnswer>& waiting = m_answers[transfer.endpoint];
    if (waiting.empty()) {
        return {.status = -EPIPE};
    }
    PlayedAnswer answer = std::move(waiting.front());
    waiting.pop_front();
    if (answer.status == -EPIPE && transfer.endpoint != 0) {
        m_halted.insert(transfer.endpoint);
    }
    // The program reads less than the one that was recorded.
    if (answer.actual > transfer.capacity && transfer.endpoint != 0) {
        if (transfer.capacity % packetSizeOf(transfer.endpoint) == 0) {
            PlayedAnswer rest = answer;
            const std::size_t known = std::min(rest.data.size(), transfer.capacity);
            rest.data.erase(rest.data.begin(), rest.data.begin() + static_cast<std::ptrdiff_t>(known));
            rest.actual -= transfer.capacity;
            waiting.push_front(std::move(rest));
            answer.status = 0;
        } else {
            answer.status = -EOVERFLOW;
        }
    }
    return answer;
}

PlayedAnswer PlayedReader::cancel(const Transfer& transfer) {
    const auto found = m_answers.find(transfer.endpoint);
    if (found == m_answers.end() || found->second.empty() || !found->second.front().pending) {
        return {};
    }
    PlayedAnswer answer = std::move(found->second.front());
    found->second.pop_front();
    return answer;
}

void PlayedReader::push(std::uint8_t endpoint, Bytes data, Time now) {
    const std::size_t size = data.size();
    insert(endpoint, {.due = now, .data = std::move(data), .actual = size});
}

// ---- what else happens

std::optional<int> PlayedReader::result(HostAction action, unsigned number) {
    const auto found = m_recorded->results.find({action, number});
    if (found == m_recorded->results.end()) {
        return std::nullopt;
    }
    std::size_t& given = m_results[{action, number}];
    const std::size_t index = std::min(given, found->second.size() - 1);
    ++given;
    return found->second[index];
}

void PlayedReader::plugged() {
    m_answers.clear();
    m_halted.clear();
    m_chains.clear();
    m_begun.clear();
    m_isUsed = false;
    ++m_plugs;
}

void PlayedReader::used(Time now) {
    if (std::exchange(m_isUsed, true) || m_recorded->beginnings.empty() || m_plugs == 0) {
        return;
    }
    queue(m_recorded->beginnings[std::min(m_plugs, m_recorded->beginnings.size()) - 1], now);
}

void PlayedReader::reset(Time now) {
    m_chains.clear();
    if (m_resets < m_recorded->afterResets.size()) {
        queue(m_recorded->afterResets[m_resets], now);
    }
    ++m_resets;
}

} // namespace emulator::replay

// The transfers of a reader that a recording plays.

#include "model/model.h"

#include <algorithm>
#include <cerrno>

namespace emulator {

namespace {

// What fits in the transfer.
Completion completionOf(PlayedAnswer answer, const Transfer& transfer) {
    const bool in = transfer.endpoint == 0 ? transfer.setup.in() : (transfer.endpoint & 0x80) != 0;
    Completion completion{.actual = std::min(answer.actual, in ? transfer.capacity : transfer.data.size())};
    if (in) {
        completion.data = std::move(answer.data);
        completion.data.resize(completion.actual);
    }
    switch (answer.status) {
    case 0:
        break;
    case -EPIPE:
        completion.outcome = Outcome::stalled;
        break;
    case -EOVERFLOW:
        completion.outcome = Outcome::overflow;
        break;
    default:
        completion.outcome = Outcome::failed;
        completion.failure = answer.status;
        break;
    }
    return completion;
}

} // namespace

// A reader that has no answer yet, or stays silent, leaves the transfer pending.
bool ReaderModel::couldCompletePlayed(Waiting& waiting, Time now) {
    if (m_playback->reads(waiting.transfer)) {
        const PlayedAnswer* const next = m_playback->next(waiting.transfer);
        return next != nullptr && !next->pending && next->due <= now;
    }
    if (!waiting.played) {
        waiting.played = m_playback->request(waiting.transfer, now);
        m_othersChanged = true;
    }
    return waiting.played && !waiting.played->pending && waiting.played->due <= now;
}

std::optional<Time> ReaderModel::playedDeadline(const Waiting& waiting) const {
    const PlayedAnswer* const next = m_playback->reads(waiting.transfer) ? m_playback->next(waiting.transfer)
                                     : waiting.played                    ? &*waiting.played
                                                                         : nullptr;
    return next != nullptr && !next->pending ? std::optional(next->due) : std::nullopt;
}

Completion ReaderModel::performPlayed(Waiting& waiting, const PipeFaults& faults, Time now) {
    Transfer& transfer = waiting.transfer;
    const bool reads = m_playback->reads(transfer);
    if (!reads && waiting.played->byModel) {
        return perform(transfer, faults, now);
    }
    constexpr std::uint8_t vendorOut = 0x40;
    Completion completion =
        completionOf(reads ? m_playback->take(transfer) : std::move(*waiting.played), transfer);
    if (faults.shortTo) {
        completion.actual = std::min(completion.actual, *faults.shortTo);
        completion.data.resize(std::min(completion.data.size(), *faults.shortTo));
    }
    const bool isFrame = !reads && (transfer.endpoint != 0 || transfer.setup.requestType == vendorOut);
    if (isFrame && completion.outcome == Outcome::done) {
        ++m_frameCount;
        m_lastFrame = {.endpoint = transfer.endpoint, .data = transfer.data};
        m_lastFrame.data.resize(completion.actual);
    }
    return completion;
}

// A transfer that is canceled may have moved some bytes.
Completion ReaderModel::endPlayed(Waiting& waiting, Outcome outcome) {
    Completion completion;
    if (m_playback) {
        const bool reads = m_playback->reads(waiting.transfer);
        PlayedAnswer answer = reads            ? m_playback->cancel(waiting.transfer)
                              : waiting.played ? std::move(*waiting.played)
                                               : PlayedAnswer{};
        if (answer.pending) {
            completion = completionOf(std::move(answer), waiting.transfer);
        }
    }
    completion.outcome = outcome;
    return completion;
}

} // namespace emulator

#include "show/summary.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr std::size_t mostSlowest = 5;

std::vector<std::size_t> slowestOf(const Conversation& conversation, std::vector<std::size_t> candidates) {
    const auto isSlower = [&](std::size_t left, std::size_t right) {
        return *conversation.exchanges[left].duration() > *conversation.exchanges[right].duration();
    };
    std::ranges::stable_sort(candidates, isSlower);
    candidates.resize(std::min(candidates.size(), mostSlowest));
    return candidates;
}

} // namespace

std::size_t ReaderSummary::failed() const {
    std::size_t count = 0;
    for (const Outcome outcome : outcomes) {
        count += isFailure(outcome) ? of(outcome) : 0;
    }
    return count;
}

Summary summaryOf(const Conversation& conversation, const std::vector<bool>& shown) {
    Summary summary;
    std::vector<ReaderSummary> all(shown.size());
    std::vector<std::size_t> timed;
    for (std::size_t i = 0; i < conversation.exchanges.size(); ++i) {
        const Exchange& exchange = conversation.exchanges[i];
        ReaderSummary& reader = all[exchange.reader];
        if (!exchange.request) {
            reader.withoutRequest += exchange.outcome == Outcome::answered ? 1 : 0;
            reader.late += exchange.isLate ? 1 : 0;
            continue;
        }
        ++reader.exchanges;
        ++reader.counts[static_cast<std::size_t>(exchange.outcome)];
        const auto duration = exchange.duration();
        if (duration && exchange.outcome == Outcome::answered) {
            reader.times.add(std::chrono::duration<double, std::milli>(*duration).count());
        }
        if (duration && exchange.outcome != Outcome::sent && shown[exchange.reader]) {
            timed.push_back(i);
        }
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (shown[i]) {
            all[i].reader = i;
            summary.exchanges += all[i].exchanges;
            summary.failed += all[i].failed();
            summary.readers.push_back(std::move(all[i]));
        }
    }
    summary.slowest = slowestOf(conversation, std::move(timed));
    return summary;
}

// How the exchanges of a recording ended and how long they took.
#pragma once

#include "commands/statistics.h"
#include "show/conversation.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

struct ReaderSummary {
    std::size_t reader = 0;
    std::size_t exchanges = 0;
    std::array<std::size_t, outcomes.size()> counts{}; // by outcome
    std::size_t withoutRequest = 0;                    // frames that the reader sent unasked
    std::size_t late = 0;                              // of these, those that came after a time-out
    ExchangeTimes times;                               // of answered exchanges, in milliseconds

    std::size_t of(Outcome outcome) const { return counts[static_cast<std::size_t>(outcome)]; }
    std::size_t failed() const;
};

struct Summary {
    std::vector<ReaderSummary> readers; // those that are shown
    std::vector<std::size_t> slowest;   // exchanges, slowest first; failed ones too
    std::size_t exchanges = 0;
    std::size_t failed = 0;
};

// Of the readers that `shown` has as true.
Summary summaryOf(const Conversation& conversation, const std::vector<bool>& shown);

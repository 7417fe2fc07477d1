// Ways to decide which thread runs next: one after the other, as written down, at random.
#pragma once

#include "scheduler.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace schedules {

// Visits every schedule with at most so many preemptions, one in each run.
class EverySchedule : public Decider {
public:
    explicit EverySchedule(unsigned mostPreemptions)
        : mostPreemptions_(mostPreemptions) {}

    std::size_t choose(std::size_t count, bool canContinue) override;

    // Go on to the next schedule. Call it after each run. Returns false after the last schedule.
    bool next();

    // The decisions of the run, to repeat it.
    [[nodiscard]] std::string text() const;

private:
    struct Decision {
        std::size_t chosen;
        std::size_t count;
        bool canContinue;
    };

    unsigned mostPreemptions_;
    std::vector<Decision> decisions_;
    std::size_t repeated_ = 0; // decisions that this run has in common with the one before
    std::size_t made_ = 0;
};

// Repeats a run from its text.
class WrittenSchedule : public Decider {
public:
    // Throws std::invalid_argument.
    explicit WrittenSchedule(std::string_view text);

    std::size_t choose(std::size_t count, bool canContinue) override;

private:
    std::vector<std::size_t> chosen_;
    std::size_t made_ = 0;
};

// Preempts now and then, at random.
class RandomSchedule : public Decider {
public:
    explicit RandomSchedule(std::uint64_t seed);

    std::size_t choose(std::size_t count, bool canContinue) override;

private:
    std::mt19937_64 numbers_;
    std::uint64_t oneIn_; // how seldom a thread is preempted
};

} // namespace schedules

#include "deciders.h"

#include <charconv>
#include <stdexcept>

namespace schedules {

std::size_t EverySchedule::choose(std::size_t count, bool canContinue) {
    const std::size_t present = made_++;
    if (present < repeated_) {
        const Decision& before = decisions_[present];
        if (before.count != count || before.canContinue != canContinue) {
            throw std::logic_error("the run did not repeat: it depends on something else");
        }
        return before.chosen;
    }
    decisions_.push_back({.chosen = 0, .count = count, .canContinue = canContinue});
    return 0;
}

bool EverySchedule::next() {
    unsigned preemptions = 0;
    std::size_t changed = decisions_.size();
    for (std::size_t i = 0; i < decisions_.size(); ++i) {
        const Decision& decision = decisions_[i];
        const unsigned cost = decision.canContinue ? 1 : 0;
        if (decision.chosen + 1 < decision.count && preemptions + cost <= mostPreemptions_) {
            changed = i;
        }
        preemptions += decision.chosen != 0 ? cost : 0;
    }
    made_ = 0;
    if (changed == decisions_.size()) {
        return false;
    }
    decisions_.resize(changed + 1);
    ++decisions_.back().chosen;
    repeated_ = decisions_.size();
    return true;
}

// The first thread is chosen at the end of most runs: leave that out.
std::string EverySchedule::text() const {
    std::size_t size = decisions_.size();
    while (size > 0 && decisions_[size - 1].chosen == 0) {
        --size;
    }
    std::string all;
    for (std::size_t i = 0; i < size; ++i) {
        all += (i == 0 ? "" : ",") + std::to_string(decisions_[i].chosen);
    }
    return all;
}

WrittenSchedule::WrittenSchedule(std::string_view text) {
    while (!text.empty()) {
        std::size_t chosen = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), chosen);
        const auto length = static_cast<std::size_t>(end - text.data());
        if (error != std::errc() ||
            (length < text.size() && (text[length] != ',' || length + 1 == text.size()))) {
            throw std::invalid_argument("not a schedule: numbers and commas are expected");
        }
        chosen_.push_back(chosen);
        text.remove_prefix(length < text.size() ? length + 1 : length);
    }
}

std::size_t WrittenSchedule::choose(std::size_t count, bool /*canContinue*/) {
    const std::size_t chosen = made_ < chosen_.size() ? chosen_[made_] : 0;
    ++made_;
    if (chosen >= count) {
        throw std::logic_error("the schedule is not one of this case");
    }
    return chosen;
}

RandomSchedule::RandomSchedule(std::uint64_t seed)
    : numbers_(seed)
    , oneIn_(2 + numbers_() % 15) {
}

std::size_t RandomSchedule::choose(std::size_t count, bool canContinue) {
    if (canContinue && numbers_() % oneIn_ != 0) {
        return 0;
    }
    return numbers_() % count;
}

} // namespace schedules

#include "call_sequences_check.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace call_sequences {
namespace {

// A ring buffer of the last steps. The next one overwrites the oldest.
std::array<std::atomic<const char*>, 32> latestSteps = {};
std::atomic<std::size_t> steps = 0;

} // namespace

void setCurrentStep(std::string_view name) noexcept {
    latestSteps[steps++ % latestSteps.size()] = name.data();
}

void fail(const std::string& what) {
    const std::size_t next = steps;
    for (std::size_t i = next; i < next + latestSteps.size(); ++i) {
        if (const char* const name = latestSteps[i % latestSteps.size()]) {
            std::fprintf(stderr, "%s\n", name);
        }
    }
    std::fprintf(stderr, "failed: %s; the last steps are above\n", what.c_str());
    std::abort();
}

} // namespace call_sequences

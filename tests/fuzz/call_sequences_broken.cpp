#include "call_sequences_broken.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace call_sequences {
namespace {

// The last steps, oldest at the next place to be written.
std::array<std::atomic<const char*>, 32> latestSteps = {};
std::atomic<std::size_t> steps = 0;

} // namespace

void setPresentStep(std::string_view name) noexcept {
    latestSteps[steps++ % latestSteps.size()] = name.data();
}

void broken(const std::string& what) {
    const std::size_t next = steps;
    for (std::size_t i = next; i < next + latestSteps.size(); ++i) {
        if (const char* const name = latestSteps[i % latestSteps.size()]) {
            std::fprintf(stderr, "%s\n", name);
        }
    }
    std::fprintf(stderr, "broken: %s; these were the last steps\n", what.c_str());
    std::abort();
}

} // namespace call_sequences

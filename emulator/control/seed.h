// The number from which everything random is drawn. It is itself drawn at its first use, and reported, unless it is
// given.
//
// For the launcher's thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <utility>

namespace emulator {

class Seed {
public:
    using Report = std::function<void(std::uint64_t seed)>;

    void give(std::uint64_t seed) { m_seed = seed; }
    void setReport(Report report) { m_report = std::move(report); }

    std::uint64_t value() {
        if (!m_seed) {
            m_seed = std::random_device{}(); // 32 bits are easy to type
            if (m_report) {
                m_report(*m_seed);
            }
        }
        return *m_seed;
    }

private:
    std::optional<std::uint64_t> m_seed;
    Report m_report;
};

} // namespace emulator

// The readers that a bus will have when the commands of a script have run so far.
//
// For the launcher's thread only.
#pragma once

#include "control/roster.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace emulator {

class ExpectedReaders final : public Roster {
public:
    ExpectedReaders(const std::vector<ReaderDescription>& readers, bool hostIsElsewhere)
        : m_hostIsElsewhere(hostIsElsewhere) {
        add(readers);
    }

    std::size_t size() const override { return m_readers.size(); }
    const ReaderDescription& description(std::size_t number) const override;
    bool hostIsElsewhere() const override { return m_hostIsElsewhere; }

    // Both throw TextError if these are too many.
    void add(const std::vector<ReaderDescription>& descriptions);

    // Add all but the first readers again, as a loop does that has added them in its first pass.
    void repeatAllBut(std::size_t first, std::uint64_t times);

private:
    void expectRoom(std::size_t count, std::uint64_t times) const;

    std::vector<std::shared_ptr<const ReaderDescription>> m_readers;
    bool m_hostIsElsewhere;
};

} // namespace emulator

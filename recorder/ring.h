// The recorder's side of the memory that recorded programs write to.
//
// For one thread.
#pragma once

#include "recorder/recording_memory.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace recorder {

class Ring {
public:
    // Throws std::system_error.
    Ring();
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;
    ~Ring();

    // What recording_variable has to be.
    const std::string& name() const { return m_name; }

    using Take = std::function<void(const recording_entry&, std::span<const std::uint8_t> data)>;

    // Take everything that has been written. Entries that no preload writes end the recording.
    void take(const Take& take);

    // Programs go on without being recorded.
    void close();
    bool isClosed() const;

    // Entries that could not be written.
    std::uint64_t lost() const;

private:
    int m_file = -1;
    recording_memory* m_memory = nullptr;
    std::string m_name;
};

} // namespace recorder

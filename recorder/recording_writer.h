// Writes what recorded programs do to a capture file.
//
// For one thread.
#pragma once

#include "capture/pcapng_writer.h"
#include "recorder/recording_memory.h"
#include "recorder/redaction.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>

namespace recorder {

class RecordingWriter {
public:
    struct Options {
        int file = -1;                        // a descriptor
        std::optional<std::uint64_t> largest; // bytes
        Redaction redaction;
        std::string version; // of gvusb
        std::string program;
    };

    // Writes the beginning of the file.
    explicit RecordingWriter(Options options);

    void add(const recording_entry& entry, std::span<const std::uint8_t> data);

    // Write what has been added. Throws std::system_error; from then on nothing is written.
    void flush();

    // Write the end. `status` is the program's, if it has ended.
    void end(std::uint64_t lost, std::optional<int> status);

    bool isFull() const { return m_isFull; }

private:
    using Key = std::pair<unsigned, unsigned>;
    struct Known {
        capture::Bytes facts;
        bool isPresent = false; // it came, or was seen
    };

    void remark(capture::Time time, const capture::Json& value);
    void addTransfer(const recording_entry& entry, std::span<const std::uint8_t> data);
    void addDevice(const recording_entry& entry, std::span<const std::uint8_t> data);
    void addDescriptors(const recording_entry& entry, std::span<const std::uint8_t> descriptors);
    void addReading(const recording_entry& entry, const capture::SetupPacket& setup,
                    std::span<const std::uint8_t> data);
    bool addPresence(const recording_entry& entry);
    void addEvent(const recording_entry& entry, std::span<const std::uint8_t> data);
    void keepWithinLargest(std::size_t before);

    Options m_options;
    capture::Bytes m_buffer;
    std::uint64_t m_size = 0; // of the file, with the buffer
    std::map<Key, Known> m_devices;
    std::unordered_map<std::uint64_t, bool>
        m_frames; // of control transfers under way, whether they hold a frame
    capture::Bytes m_data;
    std::uint64_t m_lastId = 0;
    std::uint64_t m_lastSequence = 0;
    bool m_isFull = false;
    bool m_hasFailed = false;
};

} // namespace recorder

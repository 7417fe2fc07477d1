// What a recording says of its readers, prepared for playing.
//
// Plain values; any thread may use them.
#pragma once

#include "model/description.h"
#include "model/playback.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace emulator::replay {

using Duration = std::chrono::nanoseconds;

// The position of something in the recording, which orders it.
using Position = std::size_t;

// Of bmRequestType in a control request.
constexpr std::uint8_t kindMask = 0x60; // 0: a standard request
constexpr std::uint8_t vendorOut = 0x40;
constexpr std::uint8_t vendorIn = 0xC0;
// With it, vendor requests carry frames.
constexpr std::uint8_t frameRequest = 0;

// How a transfer completed.
struct RecordedAnswer {
    std::uint8_t endpoint = 0; // of one that reads: its address, or 0 for a frame by control transfer
    Duration after{0};         // since the request was submitted
    bool pending = false;      // it was canceled
    int status = 0;
    Bytes data; // may lack the end
    std::size_t actual = 0;
};
using RecordedAnswers = std::vector<RecordedAnswer>;

struct RecordedRequest {
    std::uint8_t endpoint = 0; // 0: control, with `setup`
    std::array<std::uint8_t, 8> setup{};
    Bytes data;              // to the reader, as far as it is known
    std::size_t length = 0;  // of the data
    bool whole = true;       // all data are known
    std::uint64_t chain = 0; // of a transfer that continues another one
    Position position = 0;
    Duration time{0};     // since the beginning of the recording
    bool gone = false;    // the reader had left
    bool byModel = false; // a standard request with the result that every reader gives
    RecordedAnswer result;
    RecordedAnswers answers; // of the transfers that read until the next request
};

struct RecordedReader {
    ReaderDescription description;
    std::vector<RecordedRequest> requests;   // in order
    std::vector<RecordedRequest> standard;   // requests that every device has
    std::vector<RecordedAnswers> beginnings; // before the first request, for each time that it was plugged in
    std::vector<RecordedAnswers> afterResets;
    std::map<std::pair<HostAction, unsigned>, std::vector<int>> results;
};

// A reader comes or leaves.
struct Happening {
    std::size_t reader = 0; // index
    bool comes = false;
    Position position = 0;
    std::size_t requestsBefore = 0; // of all readers
    Duration after{0};              // since the last of them, or since the beginning
};

struct Recording {
    std::string name;
    std::vector<RecordedReader> readers;
    std::vector<Happening> happenings; // in order
    std::vector<std::string> notes;    // what is missing, each a sentence without its period
};

// Libusb moves long data in several transfers of this size, of which each but the first continues the one before.
constexpr std::size_t chainedSize = 16384;

// Numbers the transfers of one endpoint so that those with the same data in a different place of longer data differ.
class Chain {
public:
    // The number of the next transfer.
    std::uint64_t next(const Bytes& data) {
        const std::uint64_t current = m_chain;
        m_chain = data.size() == chainedSize ? hash(current, data) : 0;
        return current;
    }

private:
    // FNV-1a.
    static std::uint64_t hash(std::uint64_t value, const Bytes& data) {
        value ^= 0xCBF29CE484222325;
        for (const std::uint8_t byte : data) {
            value = (value ^ byte) * 0x100000001B3;
        }
        return value | 1;
    }

    std::uint64_t m_chain = 0;
};

} // namespace emulator::replay

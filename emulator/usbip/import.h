// A reader in the hands of the client that has imported it: the client's URBs, by their sequence numbers, on their way
// through the model, in the terms of the client's kernel (errno values as status).
//
// One thread at a time; the owner guards it.
#pragma once

#include "usbip/readers.h"

#include <map>

namespace emulator::usbip {

// What one client may have under way. A client that wants more is ended: its own kernel allows programs 16 MiB.
constexpr std::size_t longestTransfer = std::size_t{16} << 20;
constexpr std::size_t mostBytes = std::size_t{64} << 20;
constexpr std::size_t mostRequests = 4096;

class Import {
public:
    explicit Import(Reader& reader)
        : m_reader(reader) {
        ++m_reader.counts.opens;
    }
    Import(const Import&) = delete;
    Import& operator=(const Import&) = delete;

    // Takes back what flies and leaves the reader as after a reset.
    void release(Time now);

    Reader& reader() const { return m_reader; }

    // What is wrong with a submit, of which only the header is there yet; nullptr if it can be submitted.
    const char* mistake(const UrbHeader& header, const Submit& submit) const;

    // Both append the replies that are due.
    void submit(const UrbHeader& header, const Submit& submit, Input payload, Time now, Bytes& replies);
    void unlink(std::uint32_t sequence, std::uint32_t unlinked, Time now, Bytes& replies);

    // Appends replies to what the model has completed meanwhile.
    void collect(Bytes& replies);

private:
    struct Flying {
        std::uint32_t sequence = 0;
        std::size_t length = 0;
        bool mustBeWhole = false;
    };

    void count(const Submit& submit, std::uint8_t endpoint);

    Reader& m_reader;
    std::map<TransferId, Flying> m_flying;
    std::map<std::uint32_t, TransferId> m_transfers; // by sequence number
    std::size_t m_bytes = 0;
};

} // namespace emulator::usbip

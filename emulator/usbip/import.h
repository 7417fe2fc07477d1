// The pending URBs of a client that has imported a reader, by sequence number. Their status is an errno of
// the client's kernel.
//
// One thread at a time; the owner guards it.
#pragma once

#include "usbip/output.h"
#include "usbip/readers.h"

#include <map>

namespace emulator::usbip {

// The limits of one client's pending transfers, beyond which it is disconnected. The kernel lets programs use
// 16 MiB.
constexpr std::size_t longestTransfer = std::size_t{16} << 20;
constexpr std::size_t mostBytes = std::size_t{64} << 20;
constexpr std::size_t mostRequests = 4096;

// What a pending transfer needs besides its data, in the model and here.
constexpr std::size_t memoryOfRequest = 384;

class Import {
public:
    explicit Import(Reader& reader)
        : m_reader(reader) {
        ++m_reader.counts.opens;
        m_reader.model.note(ReaderEvent::opened);
    }
    Import(const Import&) = delete;
    Import& operator=(const Import&) = delete;

    // Cancel pending transfers and reset the reader.
    void release(Time now);

    Reader& reader() const { return m_reader; }

    // The mistake in a submit, of which only the header has arrived; null if it is valid.
    const char* mistake(const UrbHeader& header, const Submit& submit) const;

    // Both append the replies that are ready.
    void submit(const UrbHeader& header, const Submit& submit, Bytes payload, Time now, Output& replies);
    void unlink(std::uint32_t sequence, std::uint32_t unlinked, Time now, Output& replies);

    // Append replies for the transfers that the model has completed.
    void collect(Output& replies);

    // The memory of the pending transfers.
    std::size_t memory() const { return m_transfers.size() * memoryOfRequest + m_payload; }

private:
    struct PendingUrb {
        std::uint32_t sequence = 0;
        std::size_t length = 0;
        std::size_t payload = 0;
        bool shortNotOk = false;
    };

    void forget(const PendingUrb& urb);
    void count(const Submit& submit, std::uint8_t endpoint);

    Reader& m_reader;
    std::map<TransferId, PendingUrb> m_pending;
    std::map<std::uint32_t, TransferId> m_transfers; // by sequence number
    std::size_t m_bytes = 0;                         // the lengths of all
    std::size_t m_payload = 0; // the data of those to the reader, which is kept until they are performed
};

} // namespace emulator::usbip

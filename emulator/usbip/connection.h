// The protocol with one client: a request for the list, or an import followed by URBs.
//
// It has no socket and no clock: the owner passes received bytes, sends unsent(), and closes when closing()
// says so. Whatever a client sends, memory stays bounded and no other connection is affected, except that a
// client loses its connection if it holds most memory when others need some. One thread at a time.
#pragma once

#include "usbip/import.h"

#include <optional>

namespace emulator::usbip {

class Connection {
public:
    // How many messages one call processes at most. A client that sends thousands must not delay others.
    static constexpr unsigned mostMessages = 32;

    explicit Connection(Readers& readers);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // Process bytes from the client. Call it only while wantsInput().
    void receive(Input bytes, Time now);
    bool wantsInput() const { return readsOutput() && !m_unprocessed; }

    // Process messages that were received before, if mayProceed().
    void proceed(Time now);
    bool mayProceed() const;

    // Whether the next message waits until there is memory for it.
    bool lacksMemory() const { return m_unprocessed && m_lacksMemory; }

    // The bytes to send. sent() removes the first `count` of them.
    const Output& unsent() const { return m_output; }
    Input output() const { return m_output.front(); }
    void sent(std::size_t count);

    // Append replies for the transfers that the reader has completed.
    void collect();

    // End the connection at once and discard the output. The reader can be imported again.
    void abort();

    // The same because of the client's mistake, which complaint() returns then.
    void refuse(const char* complaint);

    // Whether the connection has ended and its output has been sent.
    bool closing() const { return m_ended && m_output.empty(); }

    // Whether the client has sent part of a message.
    bool hasPartialMessage() const { return wantsInput() && (!m_input.empty() || m_long); }
    bool hasImported() const { return m_import.has_value(); }

    // The memory that the client occupies, its reader's included.
    std::size_t memory() const;

    // The client's mistake that ended the connection, or null.
    const char* complaint() const { return m_complaint; }

private:
    // A submit with so much data that it does not wait in m_input until it is complete.
    struct LongSubmit {
        UrbHeader header;
        Submit submit;
        Bytes payload;

        std::size_t missing() const { return static_cast<std::size_t>(submit.length) - payload.size(); }
    };

    // No input is processed while the client leaves this much output unread.
    static constexpr std::size_t fullOutput = std::size_t{1} << 20;

    bool readsOutput() const { return !m_ended && m_output.size() < fullOutput; }
    void receiveAll(Input bytes, Time now);
    std::size_t process(Input bytes, Time now);
    void keepFrom(std::size_t done);
    std::size_t message(Input bytes, Time now);
    std::size_t operation(Input bytes);
    std::size_t list();
    std::size_t importReader(Input bytes);
    std::size_t urb(Input bytes, Time now);
    std::size_t submit(const UrbHeader& header, Input bytes, Time now);
    std::size_t continueLong(Input bytes, Time now);
    bool hasMemory(std::size_t needed);
    void account();

    Readers& m_readers;
    std::optional<Import> m_import;
    Bytes m_input; // messages that have not been processed, the last of them perhaps incomplete
    std::optional<LongSubmit> m_long;
    Output m_output;
    bool m_unprocessed = false; // m_input begins with a message that is complete or needs memory
    bool m_lacksMemory = false;
    std::uint64_t m_releases = 0; // of memory, when it lacked last
    bool m_ended = false;
    const char* m_complaint = nullptr;
    std::size_t m_accounted = 0; // of the memory that all clients occupy, without the reader's
    Time m_last{};               // time of the last call
};

} // namespace emulator::usbip

// The protocol with one client: a request for the list, or an import followed by URBs.
//
// It has no socket and no clock: the owner passes received bytes, sends output(), and closes when closing()
// says so. Whatever a client sends, memory stays bounded and no other connection is affected. One thread at a
// time.
#pragma once

#include "usbip/import.h"

#include <optional>
#include <span>

namespace emulator::usbip {

class Connection {
public:
    explicit Connection(Readers& readers)
        : m_readers(readers) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { abort(); }

    // Process bytes from the client. Call it only while wantsInput().
    void receive(Input bytes, Time now);
    bool wantsInput() const { return !m_ended && m_output.size() - m_sent < fullOutput; }

    // The bytes to send. sent() removes the first `count` of them and may append others.
    Input output() const { return Input(m_output).subspan(m_sent); }
    void sent(std::size_t count, Time now);

    // Append replies for the transfers that the reader has completed.
    void collect();

    // End the connection at once and discard the output. The reader can be imported again.
    void abort();

    // Whether the connection has ended and its output has been sent.
    bool closing() const { return m_ended && m_output.size() == m_sent; }

    // Whether the client has sent part of a message.
    bool hasPartialMessage() const { return wantsInput() && !m_input.empty(); }
    bool hasImported() const { return m_import.has_value(); }

    // The client's mistake that ended the connection, or null.
    const char* complaint() const { return m_complaint; }

private:
    // No input is processed while the client leaves this much output unread.
    static constexpr std::size_t fullOutput = std::size_t{1} << 20;

    void proceed(Time now);
    std::size_t operation(Input bytes);
    std::size_t importReader(Input bytes);
    std::size_t urb(Input bytes, Time now);
    std::size_t refuse(const char* complaint);

    Readers& m_readers;
    std::optional<Import> m_import;
    Bytes m_input; // an incomplete message
    Bytes m_output;
    std::size_t m_sent = 0;
    bool m_ended = false;
    const char* m_complaint = nullptr;
    Time m_last{}; // time of the last call
};

} // namespace emulator::usbip

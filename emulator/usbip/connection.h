// What one client says and is answered, byte by byte: requests for the list, an import, then URBs, until either side ends
// it.
//
// The connection knows no socket, no clock and no thread: a transport hands it what came, sends what output() has, and
// closes when closing() says so. Whatever comes, memory is bounded and only this connection suffers. One thread at a
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

    // Takes bytes from the client. To be called only while wantsInput().
    void receive(Input bytes, Time now);
    bool wantsInput() const { return !m_ended && m_output.size() - m_sent < fullOutput; }

    // What the client is to be sent; sent() takes so many bytes off and may add others.
    Input output() const { return Input(m_output).subspan(m_sent); }
    void sent(std::size_t count, Time now);

    // Adds the replies to what the reader has completed meanwhile.
    void collect();

    // Ends it at once, whatever is still to be sent. The reader can be imported again.
    void abort();

    // Nothing more is taken, and nothing is left to be sent.
    bool closing() const { return m_ended && m_output.size() == m_sent; }

    // Whether the client has begun to say something and owes the rest.
    bool owesRest() const { return wantsInput() && !m_input.empty(); }
    bool hasImported() const { return m_import.has_value(); }

    // Why it was ended, where the client is to blame.
    const char* complaint() const { return m_complaint; }

private:
    // A client that does not read what it is sent is not listened to.
    static constexpr std::size_t fullOutput = std::size_t{1} << 20;

    void proceed(Time now);
    std::size_t operation(Input bytes);
    std::size_t importReader(Input bytes);
    std::size_t urb(Input bytes, Time now);
    std::size_t refuse(const char* complaint);

    Readers& m_readers;
    std::optional<Import> m_import;
    Bytes m_input; // the beginning of a message
    Bytes m_output;
    std::size_t m_sent = 0;
    bool m_ended = false;
    const char* m_complaint = nullptr;
    Time m_last{}; // when something was last heard or done
};

} // namespace emulator::usbip

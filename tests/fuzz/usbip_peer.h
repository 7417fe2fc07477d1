// A USB/IP client that sends arbitrary data and checks that the server's replies follow the protocol.
#pragma once

#include "expect.h"

#include "usbip/client.h"
#include "usbip/connection.h"

#include <cerrno>
#include <deque>
#include <map>

namespace fuzz {

class UsbipPeer {
public:
    explicit UsbipPeer(emulator::usbip::Readers& readers)
        : connection(readers) {}

    // Send only while the server reads, like a socket.
    void send(const emulator::Bytes& bytes, emulator::Time now) {
        if (!connection.wantsInput()) {
            return;
        }
        m_sent.insert(m_sent.end(), bytes.begin(), bytes.end());
        noteSent();
        connection.receive(bytes, now);
    }

    // Read at most this many of the bytes that the server has to send.
    void receive(std::size_t most, emulator::Time now) {
        while (most != 0 && !connection.unsent().empty()) {
            const auto output = connection.output();
            const std::size_t count = std::min(most, output.size());
            m_received.insert(m_received.end(), output.begin(),
                              output.begin() + static_cast<std::ptrdiff_t>(count));
            connection.sent(count);
            most -= count;
        }
        connection.proceed(now);
        checkReceived();
    }

    emulator::usbip::Connection connection;

private:
    struct Submitted {
        bool in = false;
        std::uint32_t length = 0;
    };
    struct Unlink {
        std::uint32_t sequence = 0;
        std::uint32_t unlinked = 0;
    };

    static void removeFront(emulator::Bytes& bytes, std::size_t count) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    }

    void noteSent() {
        while (noteMessage()) {
        }
    }

    // The server closes the connection at an invalid message, and does not answer later ones.
    bool noteMessage() {
        using namespace usbip_client;
        if (!m_wantsUrbs) {
            if (m_sent.size() < importRequestSize ||
                ntohs(recordOf<usbip_operation>(m_sent).code) != usbip_request_import) {
                return false;
            }
            removeFront(m_sent, importRequestSize);
            m_wantsUrbs = true;
            return true;
        }
        if (m_sent.size() < headerSize) {
            return false;
        }
        const auto submit = recordOf<usbip_submit>(m_sent);
        const std::uint32_t sequence = ntohl(submit.header.sequence);
        const bool in = ntohl(submit.header.direction) != usbip_out;
        if (ntohl(submit.header.command) == usbip_command_unlink) {
            const std::uint32_t unlinked = ntohl(recordOf<usbip_unlink>(m_sent).unlinked);
            m_unlinks.push_back({.sequence = sequence, .unlinked = unlinked});
            removeFront(m_sent, headerSize);
            return true;
        }
        const std::uint32_t length = ntohl(submit.length);
        const std::size_t size = headerSize + (in ? 0 : std::size_t{length});
        if (m_sent.size() < size) {
            return false;
        }
        m_submitted[sequence].push_back({.in = in, .length = length});
        removeFront(m_sent, size);
        return true;
    }

    void checkReceived() {
        while (checkMessage()) {
        }
    }

    bool checkMessage() {
        using namespace usbip_client;
        if (!m_answered) {
            if (m_received.size() < sizeof(usbip_operation)) {
                return false;
            }
            const auto reply = recordOf<usbip_operation>(m_received);
            const std::uint16_t code = ntohs(reply.code);
            expect(ntohs(reply.version) == usbip_protocol_version, "a reply has the protocol's version");
            expect(code == usbip_reply_list || code == usbip_reply_import,
                   "a reply answers a list or an import");
            if (code == usbip_reply_list || statusOf(m_received) != usbip_ok) {
                return false; // a device list or nothing follows
            }
            if (m_received.size() < importReplySize) {
                return false;
            }
            removeFront(m_received, importReplySize);
            m_answered = true;
            return true;
        }
        if (m_received.size() < headerSize) {
            return false;
        }
        const auto reply = recordOf<usbip_submit_reply>(m_received);
        const std::uint32_t command = ntohl(reply.header.command);
        const std::uint32_t sequence = ntohl(reply.header.sequence);
        const auto status = static_cast<std::int32_t>(ntohl(reply.status));
        if (command == usbip_reply_unlink) {
            expect(!m_unlinks.empty() && m_unlinks.front().sequence == sequence,
                   "unlinks are answered in order");
            expect(status == 0 || status == -ECONNRESET, "an unlink cancels its submit or comes too late");
            if (status != 0) {
                takeAnswered(m_unlinks.front().unlinked);
            }
            m_unlinks.pop_front();
            removeFront(m_received, headerSize);
            return true;
        }
        expect(command == usbip_reply_submit, "a reply answers a submit or an unlink");
        expect(!m_submitted[sequence].empty(), "a submit is answered once");
        expect(status <= 0, "a status is 0 or negative");
        const Submitted& submitted = m_submitted[sequence].front();
        const std::uint32_t actual = ntohl(reply.actual_length);
        expect(actual <= submitted.length, "no more data than requested");
        const std::size_t size = headerSize + (submitted.in ? actual : 0);
        if (m_received.size() < size) {
            return false;
        }
        takeAnswered(sequence);
        removeFront(m_received, size);
        return true;
    }

    void takeAnswered(std::uint32_t sequence) {
        expect(!m_submitted[sequence].empty(), "only requests are answered");
        m_submitted[sequence].pop_front();
    }

    emulator::Bytes m_sent;
    emulator::Bytes m_received;
    bool m_wantsUrbs = false;
    bool m_answered = false;
    // By sequence number, which a client may reuse.
    std::map<std::uint32_t, std::deque<Submitted>> m_submitted;
    std::deque<Unlink> m_unlinks;
};

} // namespace fuzz

// A USB/IP client that says anything at all, and holds the server to what the protocol promises.
#pragma once

#include "expect.h"

#include "usbip/client.h"
#include "usbip/connection.h"

#include <deque>
#include <map>

namespace fuzz {

class UsbipPeer {
public:
    explicit UsbipPeer(emulator::usbip::Readers& readers)
        : connection(readers) {}

    // Says it if the server listens, as a socket would.
    void say(const emulator::Bytes& bytes, emulator::Time now) {
        if (!connection.wantsInput())
            return;
        m_said.insert(m_said.end(), bytes.begin(), bytes.end());
        noteSaid();
        connection.receive(bytes, now);
    }

    // Reads so many bytes of what there is to be read.
    void hear(std::size_t most, emulator::Time now) {
        const auto output = connection.output();
        const std::size_t count = std::min(most, output.size());
        m_heard.insert(m_heard.end(), output.begin(), output.begin() + static_cast<std::ptrdiff_t>(count));
        connection.sent(count, now);
        checkHeard();
    }

    emulator::usbip::Connection connection;

private:
    struct Asked {
        bool in = false;
        std::uint32_t length = 0;
    };
    struct Unlink {
        std::uint32_t sequence = 0;
        std::uint32_t unlinked = 0;
    };

    static void takeOff(emulator::Bytes& bytes, std::size_t count) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    }

    void noteSaid() {
        while (noteMessage()) {
        }
    }

    // Where the server takes offence at a message, nothing is heard any more.
    bool noteMessage() {
        using namespace usbip_client;
        if (!m_wantsUrbs) {
            constexpr std::size_t importSize = 40;
            if (m_said.size() < importSize || m_said[3] != 3)
                return false;
            takeOff(m_said, importSize);
            m_wantsUrbs = true;
            return true;
        }
        if (m_said.size() < headerSize)
            return false;
        const std::uint32_t sequence = wordAt(m_said, 4);
        const bool in = wordAt(m_said, 12) != 0;
        if (wordAt(m_said, 0) == 2) {
            m_unlinks.push_back({.sequence = sequence, .unlinked = wordAt(m_said, 20)});
            takeOff(m_said, headerSize);
            return true;
        }
        const std::uint32_t length = wordAt(m_said, 24);
        const std::size_t size = headerSize + (in ? 0 : std::size_t{length});
        if (m_said.size() < size)
            return false;
        m_asked[sequence].push_back({.in = in, .length = length});
        takeOff(m_said, size);
        return true;
    }

    void checkHeard() {
        while (checkMessage()) {
        }
    }

    bool checkMessage() {
        using namespace usbip_client;
        if (!m_answered) {
            if (m_heard.size() < 8)
                return false;
            expect(m_heard[0] == 0x01 && m_heard[1] == 0x11, "a reply has the protocol's version");
            const bool list = m_heard[3] == 5;
            expect(m_heard[2] == 0 && (list || m_heard[3] == 3), "a reply answers a list or an import");
            if (list || wordAt(m_heard, 4) != 0)
                return false; // the rest is text, or nothing
            if (m_heard.size() < importReplySize)
                return false;
            takeOff(m_heard, importReplySize);
            m_answered = true;
            return true;
        }
        if (m_heard.size() < headerSize)
            return false;
        const std::uint32_t sequence = wordAt(m_heard, 4);
        const auto status = static_cast<std::int32_t>(wordAt(m_heard, 20));
        if (wordAt(m_heard, 0) == 4) {
            expect(!m_unlinks.empty() && m_unlinks.front().sequence == sequence,
                   "unlinks are answered in order");
            expect(status == 0 || status == -104, "an unlink has been in time or not");
            if (status != 0)
                takeAnswered(m_unlinks.front().unlinked);
            m_unlinks.pop_front();
            takeOff(m_heard, headerSize);
            return true;
        }
        expect(wordAt(m_heard, 0) == 3, "a reply is one of two");
        expect(!m_asked[sequence].empty(), "a submit is answered once");
        expect(status <= 0, "a status is 0 or negative");
        const Asked& asked = m_asked[sequence].front();
        const std::uint32_t actual = wordAt(m_heard, 24);
        expect(actual <= asked.length, "no more comes than was asked for");
        const std::size_t size = headerSize + (asked.in ? actual : 0);
        if (m_heard.size() < size)
            return false;
        takeAnswered(sequence);
        takeOff(m_heard, size);
        return true;
    }

    void takeAnswered(std::uint32_t sequence) {
        expect(!m_asked[sequence].empty(), "what is answered was asked for");
        m_asked[sequence].pop_front();
    }

    emulator::Bytes m_said;
    emulator::Bytes m_heard;
    bool m_wantsUrbs = false;
    bool m_answered = false;
    std::map<std::uint32_t, std::deque<Asked>> m_asked; // by sequence number, which may come again
    std::deque<Unlink> m_unlinks;
};

} // namespace fuzz

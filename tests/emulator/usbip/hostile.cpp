// Hostile USB/IP clients, on the server that runs this program: the neighbor, who attaches the last reader,
// must exchange frames all the time, and the server's memory stays limited.
//
//   gvusb-emulate --usbip --listen 127.0.0.1:0 --reader copies=12 -- usbip_hostile
#include "control/channel.h"
#include "usbip/address.h"
#include "usbip/client.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace usbip_client;

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr unsigned attackers = 11;
constexpr unsigned neighborsReader = attackers + 1;
constexpr std::uint32_t longest = 16 << 20;

[[noreturn]] void fail(const std::string& what) {
    std::cerr << what << '\n';
    std::_Exit(EXIT_FAILURE);
}

std::size_t serverMemory(const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(::getppid()) + "/status");
    std::string word;
    std::size_t kibibytes = 0;
    while (status >> word) {
        if (word == key + ":") {
            status >> kibibytes;
        }
    }
    return kibibytes * 1024;
}

void command(const std::string& line) {
    const std::string answer = emulator::sendCommand(std::getenv("GVUSB_EMULATE_SOCKET"), line);
    if (!answer.starts_with("ok")) {
        fail(line + ": " + answer);
    }
}

class Peer {
public:
    explicit Peer(unsigned reader)
        : m_device(0x00010000 + reader) {
        const auto server = emulator::parseSocketAddress(std::getenv("GVUSB_EMULATE_USBIP"));
        if (::connect(m_descriptor, server.get(), server.size) != 0) {
            fail("connect");
        }
        send(importRequest("1-" + std::to_string(reader)));
        if (receive(importReplySize).size() != importReplySize) {
            fail("reader " + std::to_string(reader) + " is not free");
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { ::close(m_descriptor); }

    void send(const Bytes& bytes) const { ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // What the socket accepts now; the rest is sent by later calls.
    void push(const Bytes& bytes) {
        m_unsent.insert(m_unsent.end(), bytes.begin(), bytes.end());
        pushOn();
    }
    bool pushOn() {
        const ssize_t count = ::send(m_descriptor, m_unsent.data() + m_sent, m_unsent.size() - m_sent,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        m_sent += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        return count > 0;
    }

    Bytes receive(std::size_t count) const {
        Bytes bytes(count);
        const ssize_t got = ::recv(m_descriptor, bytes.data(), bytes.size(), MSG_WAITALL);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return bytes;
    }

    Bytes frame(std::uint32_t size, std::size_t present) {
        return submit({.sequence = ++m_sequence,
                       .endpoint = 2,
                       .length = size,
                       .data = Bytes(present, 0x5A),
                       .device = m_device});
    }
    Bytes fetch(std::uint32_t size) {
        return submit(
            {.sequence = ++m_sequence, .direction = in, .endpoint = 1, .length = size, .device = m_device});
    }

    void exchange() {
        send(join({frame(16, 16), fetch(64)}));
        if (receive(2 * headerSize + 16).size() != 2 * headerSize + 16) {
            fail("the neighbor lost its reader");
        }
    }

private:
    std::uint32_t m_device;
    int m_descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::uint32_t m_sequence = 0;
    Bytes m_unsent;
    std::size_t m_sent = 0;
};

// Each attacker does the same; then all send until the server takes nothing more.
void attack(const char* name, Peer& neighbor, const std::function<void(Peer&)>& begin) {
    {
        std::vector<std::unique_ptr<Peer>> peers;
        for (unsigned reader = 1; reader <= attackers; ++reader) {
            peers.push_back(std::make_unique<Peer>(reader));
            begin(*peers.back());
            neighbor.exchange();
        }
        for (int idle = 0; idle < 200; ++idle) {
            for (const auto& peer : peers) {
                while (peer->pushOn()) {
                    idle = 0;
                }
            }
            neighbor.exchange();
        }
    }
    // The readers are free again.
    for (unsigned reader = 1; reader <= attackers; ++reader) {
        for (int i = 0; i < 50; ++i) {
            neighbor.exchange();
        }
    }
    std::cout << name << ": server's memory " << serverMemory("VmRSS") / mebibyte << " MiB, at most "
              << serverMemory("VmHWM") / mebibyte << " MiB\n";
}

} // namespace

int main() {
    const std::size_t before = serverMemory("VmRSS");
    Peer neighbor(neighborsReader);
    neighbor.exchange();

    attack("unread replies", neighbor, [](Peer& peer) {
        for (int i = 0; i < 3; ++i) {
            peer.push(join({peer.frame(longest, longest), peer.fetch(longest)}));
        }
    });
    attack("answers that are not fetched", neighbor, [](Peer& peer) {
        for (int i = 0; i < 3; ++i) {
            peer.push(peer.frame(longest, longest));
        }
    });
    attack("half messages", neighbor, [](Peer& peer) { peer.push(peer.frame(longest, longest - 1)); });
    attack("many short requests", neighbor, [](Peer& peer) {
        for (int i = 0; i < 4096; ++i) {
            peer.push(peer.fetch(16));
        }
    });
    for (unsigned reader = 1; reader <= attackers; ++reader) {
        command("mute " + std::to_string(reader) + " out");
    }
    attack("transfers that are not answered", neighbor, [](Peer& peer) {
        for (int i = 0; i < 3; ++i) {
            peer.push(peer.frame(longest, longest));
        }
    });

    // Beyond the limit: what copies and the allocator need for a transfer.
    constexpr std::size_t limit = 64 * mebibyte;
    const std::size_t used = serverMemory("VmHWM") - before;
    if (used > limit + 2 * longest) {
        fail("the server used " + std::to_string(used / mebibyte) + " MiB");
    }
    return EXIT_SUCCESS;
}

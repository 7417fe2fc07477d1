#include "control/commands.h"
#include "usbip/bus.h"

#include "usbip/client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <span>
#include <thread>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;
using namespace usbip_client;

// The client's socket.
class Client {
public:
    explicit Client(const std::string& address, int receiveBuffer = 0) {
        const SocketAddress server = parseSocketAddress(address);
        m_descriptor = ::socket(server.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receiveBuffer != 0) {
            ::setsockopt(m_descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        EXPECT_EQ(::connect(m_descriptor, server.get(), server.size), 0) << address;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { ::close(m_descriptor); }

    void send(const Bytes& bytes) const {
        EXPECT_EQ(::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT),
                  static_cast<ssize_t>(bytes.size()));
    }

    // As many bytes as the socket accepts now.
    std::size_t sendSome(std::span<const std::uint8_t> bytes) const {
        const ssize_t count = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    // Read everything that has arrived.
    void receive() {
        std::array<std::uint8_t, 65536> buffer;
        ssize_t count = 1;
        while (count > 0) {
            count = ::recv(m_descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
            received.insert(received.end(), buffer.begin(), buffer.begin() + std::max<ssize_t>(count, 0));
        }
        ended |= count == 0 || errno != EAGAIN;
    }

    Bytes received;
    bool ended = false;

private:
    int m_descriptor = -1;
};

class UsbipServerTest : public testing::Test {
protected:
    template <typename Loop>
    static void turn(Loop& loop, std::chrono::milliseconds atMost) {
        std::vector<pollfd> polled(1,
                                   {.fd = -1, .events = 0, .revents = 0}); // a descriptor of the launcher's
        loop.addPolled(polled);
        ::poll(polled.data(), polled.size(), static_cast<int>(atMost.count()));
        loop.serve(polled, 1);
    }

    // Serve until the condition holds, for at most 30 seconds.
    template <typename Condition>
    bool until(Condition condition) {
        const Time end = std::chrono::steady_clock::now() + 30s;
        while (!condition() && std::chrono::steady_clock::now() < end) {
            turn(bus, 5ms);
        }
        return condition();
    }

    bool receives(Client& client, std::size_t count) {
        return until([&] {
            client.receive();
            return client.received.size() >= count || client.ended;
        });
    }

    bool ends(Client& client) {
        return until([&] {
            client.receive();
            return client.ended;
        });
    }

    void imports(Client& client, std::string_view busId = "1-1") {
        client.send(importRequest(busId));
        ASSERT_TRUE(receives(client, importReplySize));
        ASSERT_EQ(client.received.size(), importReplySize) << "status " << statusOf(client.received);
        client.received.clear();
    }

    std::string exchange(Client& client, const Bytes& request, std::size_t count,
                         std::initializer_list<std::uint32_t> fetched = {}) {
        client.received.clear();
        client.send(request);
        EXPECT_TRUE(receives(client, count));
        return Replies(client.received, fetched).text();
    }

    std::string command(std::string_view line) { return runCommand(bus, line).text; }

    std::vector<std::string> reports;
    UsbipBus bus{parseSocketAddress("127.0.0.1:0"),
                 [this](const char* complaint) { reports.emplace_back(complaint); }};
    std::string two = command("plug copies=2");
};

TEST_F(UsbipServerTest, EchoesAFrame) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(exchange(client, join({sendFrame(1, {1, 2, 3}), fetchFrame(2)}), 2 * headerSize + 3, {2}),
              "submitted 1 0 +3; submitted 2 0 010203");
    EXPECT_EQ(command("frames 1"), "ok 1 0x02 010203");
}

TEST_F(UsbipServerTest, MovesALargeTransfer) {
    Client client(bus.address());
    imports(client);
    constexpr std::uint32_t size = 16 << 20;
    const Bytes request = join({sendFrame(1, Bytes(size, 0x5A)), fetchFrame(2, size)});
    std::size_t sent = 0;
    EXPECT_TRUE(until([&] {
        sent += client.sendSome(std::span(request).subspan(sent));
        client.receive();
        return client.received.size() == 2 * headerSize + size || client.ended;
    }));
    ASSERT_FALSE(client.ended);
    EXPECT_EQ(client.received.back(), 0x5A);
    const auto fetched = std::span(client.received).subspan(headerSize);
    EXPECT_EQ(ntohl(recordOf<usbip_submit_reply>(fetched).actual_length), size);
}

TEST_F(UsbipServerTest, ServesSeveralClientsAtOnce) {
    Client first(bus.address());
    Client second(bus.address());
    Client third(bus.address());
    imports(first, "1-1");
    imports(second, "1-2");
    third.send(importRequest("1-1"));
    EXPECT_TRUE(ends(third));
    EXPECT_EQ(third.received, (Bytes{0x01, 0x11, 0, 3, 0, 0, 0, 2}));
    second.send(submit({.direction = in, .endpoint = 1, .length = 64, .device = firstReader + 1}));
    EXPECT_EQ(exchange(first, sendFrame(1, {9}), headerSize), "submitted 1 0 +1");
    second.receive();
    EXPECT_TRUE(second.received.empty());
    EXPECT_EQ(
        exchange(second,
                 submit({.sequence = 2, .endpoint = 2, .length = 1, .data = {8}, .device = firstReader + 1}),
                 2 * headerSize + 1, {1}),
        "submitted 2 0 +1; submitted 1 0 08");
    EXPECT_EQ(command("frames 2"), "ok 1 0x02 08");
}

TEST_F(UsbipServerTest, ReaderIsFreeWhenItsClientIsGone) {
    auto gone = std::make_unique<Client>(bus.address());
    imports(*gone);
    gone->send(Bytes(20)); // part of a message
    gone.reset();
    EXPECT_TRUE(until([&] { return command("counts 1").starts_with("ok opens=1 closes=1 "); }));
    Client next(bus.address());
    imports(next);
}

TEST_F(UsbipServerTest, ListensOnIpVersion6) {
    UsbipBus other(parseSocketAddress("[::1]:0"), {});
    EXPECT_EQ(other.address().find("[::1]:"), 0U) << other.address();
    EXPECT_EQ(other.address().find(":0", 5), std::string::npos) << other.address();
    Client client(other.address());
    client.send(listRequest());
    for (int i = 0; i < 100 && !client.ended; ++i) {
        turn(other, 5ms);
        client.receive();
    }
    EXPECT_EQ(client.received, (Bytes{0x01, 0x11, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(UsbipServerTest, SecondListenerOnAPortIsRefused) {
    EXPECT_THROW(UsbipBus(parseSocketAddress(bus.address()), {}), std::system_error);
}

// ---- commands

TEST_F(UsbipServerTest, UnplugEndsTheImportAndPlugAllowsAnother) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(command("unplug 1"), "ok");
    client.receive();
    EXPECT_TRUE(client.ended) << "immediately";
    EXPECT_EQ(command("list"), "ok 1 1209:0001 unplugged 1A2B3C; 2 1209:0001 1-2 1A2B3D");
    Client early(bus.address());
    early.send(importRequest("1-1"));
    EXPECT_TRUE(ends(early));
    EXPECT_EQ(early.received, (Bytes{0x01, 0x11, 0, 3, 0, 0, 0, 4}));
    EXPECT_EQ(command("plug 1"), "ok");
    Client next(bus.address());
    imports(next);
    EXPECT_EQ(command("replug all"), "ok");
    EXPECT_TRUE(ends(next));
}

TEST_F(UsbipServerTest, FaultsReachTheClient) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(command("stall 1 in"), "ok");
    EXPECT_EQ(exchange(client, fetchFrame(1), headerSize, {1}), "submitted 1 -32 ");
    EXPECT_EQ(command("unstall 1 in"), "ok");
    EXPECT_EQ(command("mute 1 out"), "ok");
    EXPECT_EQ(exchange(client, join({sendFrame(2, {1}), unlink(3, 2)}), headerSize), "unlinked 3 -104");
    client.received.clear();
    client.send(sendFrame(4, {1}));
    turn(bus, 1s);
    client.receive();
    EXPECT_TRUE(client.received.empty());
    EXPECT_EQ(command("unmute 1 out"), "ok");
    client.receive();
    EXPECT_EQ(Replies(client.received).text(), "submitted 4 0 +1") << "immediately";
    EXPECT_EQ(command("flush 1"), "ok");
    EXPECT_EQ(command("reply 1 fixed:9000"), "ok");
    EXPECT_EQ(command("short 1 in 1"), "ok");
    EXPECT_EQ(exchange(client, join({sendFrame(5, {1}), fetchFrame(6)}), 2 * headerSize + 1, {6}),
              "submitted 5 0 +1; submitted 6 0 90");
    EXPECT_EQ(command("string 1 5 Gate"), "ok");
    EXPECT_EQ(exchange(client, control(7, {0x80, 6, 5, 3, 9, 4, 255, 0}), headerSize + 10, {7}),
              "submitted 7 0 0a034700610074006500");
    EXPECT_EQ(command("fail-string 1 5 on"), "ok");
    EXPECT_EQ(exchange(client, control(8, {0x80, 6, 5, 3, 9, 4, 255, 0}), headerSize, {8}),
              "submitted 8 -32 ");
    EXPECT_EQ(command("fail-configuration 1 on"), "ok");
    EXPECT_EQ(exchange(client, control(9, {0x00, 9, 1, 0, 0, 0, 0, 0}), headerSize), "submitted 9 -32 +0");
}

TEST_F(UsbipServerTest, RulesAndSingleFaultsReachTheClient) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(command("push 1 0102"), "ok");
    EXPECT_EQ(exchange(client, fetchFrame(1), headerSize + 2, {1}), "submitted 1 0 0102");
    EXPECT_EQ(command("on 1 05 reply 9000"), "ok");
    EXPECT_EQ(exchange(client, join({sendFrame(2, {5, 6}), fetchFrame(3)}), 2 * headerSize + 2, {3}),
              "submitted 2 0 +2; submitted 3 0 9000");
    EXPECT_EQ(command("fail 1 in 2"), "ok");
    EXPECT_EQ(
        exchange(client, join({sendFrame(4, {7}), fetchFrame(5), fetchFrame(6)}), 3 * headerSize + 1, {5, 6}),
        "submitted 4 0 +1; submitted 5 0 07; submitted 6 -32 ");
    EXPECT_EQ(command("unstall 1 in"), "ok");
    EXPECT_EQ(command("chance 1 out 100 stall"), "ok");
    EXPECT_EQ(exchange(client, sendFrame(7, {1}), headerSize), "submitted 7 -32 +0");
}

TEST_F(UsbipServerTest, ReaderThatUnplugsItselfEndsTheImport) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(command("on all DEAD unplug"), "ok");
    client.send(sendFrame(1, {0xDE, 0xAD}));
    EXPECT_TRUE(ends(client));
    EXPECT_EQ(Replies(client.received).text(), "submitted 1 0 +2");
    EXPECT_EQ(command("list"), "ok 1 1209:0001 unplugged 1A2B3C; 2 1209:0001 1-2 1A2B3D");
    EXPECT_EQ(command("plug 1"), "ok");
    Client next(bus.address());
    imports(next);
    EXPECT_EQ(exchange(next, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");

    // A frame that a command lets through.
    EXPECT_EQ(command("mute 1 out"), "ok");
    next.send(sendFrame(2, {0xDE, 0xAD}));
    turn(bus, 1s);
    EXPECT_EQ(command("unmute 1 out"), "ok");
    EXPECT_TRUE(ends(next));
}

TEST_F(UsbipServerTest, ZeroLengthPacketEndsALongFrame) {
    EXPECT_EQ(command("plug frames=short-packet"), "ok 3");
    Client client(bus.address());
    imports(client, "1-3");
    constexpr std::uint32_t third = firstReader + 2;
    const auto send = [&](std::uint32_t sequence, std::uint32_t flags) {
        return exchange(client,
                        submit({.sequence = sequence,
                                .endpoint = 2,
                                .length = 64,
                                .data = Bytes(64, 1),
                                .device = third,
                                .flags = flags}),
                        headerSize);
    };
    EXPECT_EQ(send(1, 0), "submitted 1 0 +64");
    EXPECT_EQ(command("frames 3"), "ok 0");
    EXPECT_EQ(send(2, usbip_zero_packet), "submitted 2 0 +64");
    EXPECT_EQ(command("frames 3").substr(0, 9), "ok 1 0x02");
}

TEST_F(UsbipServerTest, DelayedAnswerComesWhenItIsDue) {
    Client client(bus.address());
    imports(client);
    EXPECT_EQ(command("delay 1 out 60"), "ok");
    client.send(sendFrame(1, {1}));
    const Time start = std::chrono::steady_clock::now();
    EXPECT_TRUE(until([&] { return bus.nextDeadline() < start + 1s; }));
    EXPECT_TRUE(receives(client, headerSize));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST_F(UsbipServerTest, HostFaultsAreRefused) {
    for (const char* line :
         {"busy 1 on", "driver 1 usbhid", "refuse 1 EACCES", "fail-reset 1 on", "plug driver=usbhid"}) {
        EXPECT_EQ(command(line),
                  "error: not possible over USB/IP: the machine that attaches the reader is its host")
            << line;
    }
}

TEST_F(UsbipServerTest, IsochronousEndpointsAreRefused) {
    EXPECT_EQ(command("plug endpoints=0x81+0x02+0x83:iso"),
              "error: not possible over USB/IP: isochronous endpoints");
    EXPECT_EQ(bus.size(), 2U);
}

TEST_F(UsbipServerTest, CountsWhatTheClientDid) {
    Client client(bus.address());
    imports(client);
    exchange(client,
             join({control(1, {0x00, 9, 1, 0, 0, 0, 0, 0}), control(2, {0x02, 1, 0, 0, 0x81, 0, 0, 0}),
                   fetchFrame(3), unlink(4, 3), control(5, {0x23, 3, 4, 0, 1, 0, 0, 0})}),
             4 * headerSize);
    EXPECT_EQ(command("counts 1"),
              "ok opens=1 closes=0 clear-halts=1 resets=1 set-configurations=1 transfers=3 cancels=1");
}

// ---- hostile clients

TEST_F(UsbipServerTest, InvalidInputEndsOnlyItsOwnConnection) {
    Client good(bus.address());
    imports(good);
    for (const Bytes& nonsense :
         {Bytes(8), Bytes{'G', 'E', 'T', ' ', '/', ' ', 'H', 'T'}, Bytes(100000, 0xFF)}) {
        Client client(bus.address());
        client.send(nonsense);
        EXPECT_TRUE(ends(client));
        EXPECT_TRUE(client.received.empty());
    }
    EXPECT_EQ(exchange(good, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");
    EXPECT_EQ(reports, std::vector<std::string>(3, "unsupported protocol version"));
}

TEST_F(UsbipServerTest, StopsReadingFromAClientThatDoesNotRead) {
    Client client(bus.address(), 4096);
    imports(client);
    EXPECT_EQ(command("reply 1 pattern:65536"), "ok");
    std::uint32_t sequence = 0;
    std::size_t refused = 0;
    while (sequence < 100'000 && refused < 20) {
        const Bytes request = join({sendFrame(sequence, {1}), fetchFrame(sequence + 1, 65536)});
        if (client.sendSome(request) == request.size()) {
            sequence += 2;
            refused = 0;
        } else {
            ++refused;
        }
        turn(bus, 0ms);
    }
    EXPECT_EQ(refused, 20U) << "after " << sequence;
    Client other(bus.address());
    imports(other, "1-2");
}

class UsbipImpatientServerTest : public UsbipServerTest {
protected:
    // A server without a bus, with a short time-out.
    bool endsWithin(Client& client, std::chrono::milliseconds time) {
        const Time end = std::chrono::steady_clock::now() + time;
        while (!client.ended && std::chrono::steady_clock::now() < end) {
            turn(server, 5ms);
            client.receive();
        }
        return client.ended;
    }

    usbip::Readers readers;
    usbip::Server server{readers, parseSocketAddress("127.0.0.1:0"), {}, 100ms};
    std::size_t reader = readers.add(parseReaders("").front());
};

TEST_F(UsbipImpatientServerTest, SilentClientIsDisconnected) {
    readers.plug(reader, std::chrono::steady_clock::now());
    Client silent(server.address());
    Client halfRequest(server.address());
    halfRequest.send({0x01, 0x11, 0x80});
    Client importer(server.address());
    importer.send(importRequest("1-1"));
    EXPECT_TRUE(endsWithin(silent, 5s));
    EXPECT_TRUE(endsWithin(halfRequest, 5s));
    EXPECT_FALSE(endsWithin(importer, 200ms)) << "it may be silent between messages";
    importer.send(Bytes{0, 0, 0, 1});
    EXPECT_TRUE(endsWithin(importer, 5s)) << "but not inside a message";
    EXPECT_EQ(readers.at(reader).importer, nullptr);
}

// A client whose input is not read cannot complete a message.
TEST_F(UsbipImpatientServerTest, TimeoutRestartsWhenAClientIsReadAgain) {
    constexpr auto patience = 500ms;
    usbip::Server patient(readers, parseSocketAddress("127.0.0.1:0"), {}, patience);
    readers.at(reader).model.setReply(ReplyRule::parse("pattern:65536"));
    readers.plug(reader, std::chrono::steady_clock::now());
    const auto listens = [&] {
        std::vector<pollfd> polled;
        patient.addPolled(polled);
        return polled.size() == 2 && (polled[1].events & POLLIN) != 0;
    };
    Client client(patient.address());
    client.send(importRequest("1-1"));
    turn(patient, 1s);

    // An incomplete message always follows the complete ones.
    const Bytes begun = {0, 0, 0, 1};
    client.send(begun);
    turn(patient, 1s);
    std::uint32_t sent = 0;
    const auto restOfRequests = [&] {
        Bytes requests = join({sendFrame(sent, {1}), fetchFrame(sent + 1, 65536)});
        sent += 2;
        return Bytes(requests.begin() + static_cast<std::ptrdiff_t>(begun.size()), requests.end());
    };
    while (listens() && sent < 100'000) {
        client.send(join({restOfRequests(), begun}));
        turn(patient, 10ms);
    }
    ASSERT_FALSE(listens());
    std::this_thread::sleep_for(patience + 10ms);
    const Time end = std::chrono::steady_clock::now() + 30s;
    while (!listens() && !client.ended && std::chrono::steady_clock::now() < end) {
        client.receive();
        turn(patient, 1ms);
    }
    turn(patient, 0ms);
    client.send(restOfRequests());
    const std::size_t all = importReplySize + sent / 2 * (2 * headerSize + 65536);
    while (client.received.size() < all && !client.ended && std::chrono::steady_clock::now() < end) {
        turn(patient, 1ms);
        client.receive();
    }
    EXPECT_EQ(client.received.size(), all);
    EXPECT_FALSE(client.ended);
}

TEST_F(UsbipServerTest, ImportersAreServedDespiteManySilentClients) {
    Client importer(bus.address());
    imports(importer);
    std::vector<std::unique_ptr<Client>> silent;
    for (std::ptrdiff_t i = 0; i < usbip::Server::mostUnattachedClients + 10; ++i) {
        silent.push_back(std::make_unique<Client>(bus.address()));
        turn(bus, 1ms);
    }
    std::vector<pollfd> polled;
    bus.addPolled(polled);
    EXPECT_EQ(polled.size(), 1 + 1 + static_cast<std::size_t>(usbip::Server::mostUnattachedClients));
    EXPECT_EQ(polled[0].events, 0) << "no other client is accepted";
    EXPECT_EQ(exchange(importer, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");
    silent.clear();
    Client next(bus.address());
    imports(next, "1-2");
}

TEST_F(UsbipServerTest, PausesWhenDescriptorsRunOut) {
    Client client(bus.address());
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 3, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    turn(bus, 1s);
    std::vector<pollfd> polled;
    bus.addPolled(polled);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(polled[0].events, 0) << "the loop must not spin";
    imports(client);
}

} // namespace
} // namespace emulator

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

#include <netinet/in.h>
#include <netinet/tcp.h>
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

// Changes how many files this process may open, by default to as many as possible.
class FileLimit {
public:
    FileLimit() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        set(m_before.rlim_max);
    }
    explicit FileLimit(rlim_t files) {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        set(files);
    }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;
    ~FileLimit() { set(m_before.rlim_cur); }

private:
    void set(rlim_t files) const {
        const rlimit limit{.rlim_cur = files, .rlim_max = m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

    rlimit m_before{};
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
    usbip::Server server{readers, parseSocketAddress("127.0.0.1:0"), {}, {.patience = 100ms}};
    std::size_t reader = readers.add(parseReaders("").front());
};

TEST_F(UsbipImpatientServerTest, SilentClientIsDisconnected) {
    readers.plug(reader, std::chrono::steady_clock::now());
    Client silent(server.address());
    Client halfRequest(server.address());
    halfRequest.send({0x01, 0x11, 0x80});
    Client importer(server.address());
    importer.send(importRequest("1-1"));
    EXPECT_TRUE(endsWithin(silent, 60s));
    EXPECT_TRUE(endsWithin(halfRequest, 60s));
    EXPECT_FALSE(endsWithin(importer, 200ms)) << "it may be silent between messages";
    importer.send(Bytes{0, 0, 0, 1});
    EXPECT_TRUE(endsWithin(importer, 60s)) << "but not inside a message";
    EXPECT_EQ(readers.at(reader).importer, nullptr);
}

// A client whose input is not read cannot complete a message.
TEST_F(UsbipImpatientServerTest, TimeoutRestartsWhenAClientIsReadAgain) {
    constexpr auto patience = 500ms;
    usbip::Server patient(readers, parseSocketAddress("127.0.0.1:0"), {}, {.patience = patience});
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

TEST_F(UsbipImpatientServerTest, ClientThatDoesNotReadIsDisconnected) {
    usbip::Server other(readers, parseSocketAddress("127.0.0.1:0"),
                        [this](const char* complaint) { reports.emplace_back(complaint); },
                        {.replyPatience = 200ms, .patience = 30s});
    readers.at(reader).model.setReply(ReplyRule::parse("pattern:65536"));
    readers.plug(reader, std::chrono::steady_clock::now());
    Client client(other.address(), 4096);
    client.send(importRequest("1-1"));
    turn(other, 1s);
    ASSERT_NE(readers.at(reader).importer, nullptr);
    const Time end = std::chrono::steady_clock::now() + 30s;
    for (std::uint32_t sequence = 0;
         readers.at(reader).importer != nullptr && std::chrono::steady_clock::now() < end; sequence += 2) {
        client.sendSome(join({sendFrame(sequence, {1}), fetchFrame(sequence + 1, 65536)}));
        turn(other, 1ms);
    }
    EXPECT_EQ(readers.at(reader).importer, nullptr);
    EXPECT_EQ(reports, std::vector<std::string>{"did not read its replies in time"});
    Client next(other.address());
    next.send(importRequest("1-1"));
    turn(other, 1s);
    EXPECT_NE(readers.at(reader).importer, nullptr) << "its reader is free";
}

TEST_F(UsbipImpatientServerTest, ClientThatWaitsForMemoryIsDisconnected) {
    usbip::Readers few(std::size_t{1} << 20);
    usbip::Server other(few, parseSocketAddress("127.0.0.1:0"),
                        [this](const char* complaint) { reports.emplace_back(complaint); },
                        {.replyPatience = 200ms, .patience = 30s});
    few.plug(few.add(parseReaders("").front()), std::chrono::steady_clock::now());
    few.at(1).model.setPipeFaults(pipeOf(0x02), {.mute = true}, std::chrono::steady_clock::now());
    Client client(other.address());
    client.send(importRequest("1-1"));
    turn(other, 1s);
    ASSERT_NE(few.at(1).importer, nullptr);
    const Time end = std::chrono::steady_clock::now() + 30s;
    for (std::uint32_t sequence = 0; few.at(1).importer != nullptr && std::chrono::steady_clock::now() < end;
         ++sequence) {
        client.sendSome(sendFrame(sequence, Bytes(50'000)));
        turn(other, 1ms);
        EXPECT_LE(few.memory(), std::size_t{1} << 20);
    }
    EXPECT_EQ(reports, std::vector<std::string>{"needs more memory than there is"});
}

TEST_F(UsbipServerTest, NewcomersAreServedDespiteManySilentClients) {
    const FileLimit limit;
    Client importer(bus.address());
    imports(importer);
    constexpr int silent = 1200;
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < silent; ++i) {
        clients.push_back(std::make_unique<Client>(bus.address()));
        if (i % 2 != 0) {
            clients.back()->send({0x01, 0x11, 0x80}); // part of a request
        }
        turn(bus, 0ms);
    }
    Client next(bus.address());
    next.send(importRequest("1-2"));
    int turns = 0;
    while (next.received.size() < importReplySize && !next.ended && turns < 10'000) {
        turn(bus, 1ms);
        next.receive();
        ++turns;
    }
    EXPECT_EQ(next.received.size(), importReplySize);
    // Some clients that connected before may be accepted first.
    EXPECT_LT(turns, 100 + silent / Listener::mostAccepted);
    EXPECT_EQ(exchange(importer, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");
    std::vector<pollfd> polled;
    bus.addPolled(polled);
    EXPECT_LE(polled.size(), 1 + 2 + usbip::Server::mostUnattachedClients);
}

// So that a client that sends nothing cannot take the last descriptor.
TEST_F(UsbipServerTest, SilentClientsAreDisconnectedWhenDescriptorsRunOut) {
    Client importer(bus.address());
    imports(importer);
    std::vector<std::unique_ptr<Client>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<Client>(bus.address()));
    }
    Client next(bus.address());
    next.send(importRequest("1-2"));
    const int free = ::dup(0);
    ::close(free);
    {
        const FileLimit limit(static_cast<rlim_t>(free) + 3); // three descriptors are left
        EXPECT_TRUE(receives(next, importReplySize));
        EXPECT_EQ(exchange(importer, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");
    }
    EXPECT_EQ(next.received.size(), importReplySize);
}

TEST_F(UsbipServerTest, NewcomersAreTurnedAwayWhenImportersUseAllDescriptors) {
    Client importer(bus.address());
    imports(importer);
    std::vector<std::unique_ptr<Client>> newcomers;
    for (int i = 0; i < 3; ++i) {
        newcomers.push_back(std::make_unique<Client>(bus.address()));
    }
    const int free = ::dup(0);
    ::close(free);
    const FileLimit limit(static_cast<rlim_t>(free)); // only the reserve is below
    for (const auto& newcomer : newcomers) {
        EXPECT_TRUE(ends(*newcomer));
    }
    std::vector<pollfd> polled;
    bus.addPolled(polled);
    EXPECT_GE(polled[0].fd, 0) << "it still listens";
    EXPECT_EQ(exchange(importer, sendFrame(1, {1}), headerSize), "submitted 1 0 +1");
}

TEST_F(UsbipServerTest, PausesWhenDescriptorsRunOut) {
    Client client(bus.address());
    std::vector<pollfd> polled;
    {
        const FileLimit limit(3);
        turn(bus, 1s);
        bus.addPolled(polled);
    }
    EXPECT_EQ(polled[0].fd, -1) << "the loop must not spin";
    imports(client);
}

// Within a minute, the kernel reports that the machine of a client is gone.
TEST_F(UsbipServerTest, SocketsDetectDeadClients) {
    Client client(bus.address());
    imports(client);
    std::vector<pollfd> polled;
    bus.addPolled(polled);
    ASSERT_EQ(polled.size(), 2U);
    const auto option = [&](int level, int name) {
        int value = 0;
        socklen_t size = sizeof value;
        EXPECT_EQ(::getsockopt(polled[1].fd, level, name, &value, &size), 0);
        return value;
    };
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1);
    const int idle = option(IPPROTO_TCP, TCP_KEEPIDLE);
    const int interval = option(IPPROTO_TCP, TCP_KEEPINTVL);
    EXPECT_LT(idle + interval * option(IPPROTO_TCP, TCP_KEEPCNT), 50);
    EXPECT_LT(option(IPPROTO_TCP, TCP_USER_TIMEOUT) + interval * 1000, 50'000);
}

// What a turn costs does not depend on how much a client sends.
TEST_F(UsbipServerTest, TurnHasFewMessagesOfEachClient) {
    Client flooding(bus.address());
    imports(flooding);
    Bytes unlinks;
    for (std::uint32_t sequence = 0; sequence < 1000; ++sequence) {
        unlinks = join({unlinks, unlink(sequence, 77)});
    }
    flooding.send(unlinks);
    Client other(bus.address());
    imports(other, "1-2");
    other.send(submit({.endpoint = 2, .length = 1, .data = {1}, .device = firstReader + 1}));
    flooding.receive();
    turn(bus, 1s);
    turn(bus, 1s);
    other.receive();
    EXPECT_EQ(Replies(other.received).text(), "submitted 1 0 +1") << "in spite of messages that came before";
    flooding.receive();
    std::size_t before = flooding.received.size();
    std::size_t turns = 0;
    while (flooding.received.size() < unlinks.size() && turns < 1000) {
        EXPECT_LE(bus.nextDeadline(), std::chrono::steady_clock::now());
        turn(bus, 0ms);
        flooding.receive();
        EXPECT_LE(flooding.received.size() - before, headerSize * usbip::Connection::mostMessages);
        before = flooding.received.size();
        ++turns;
    }
    EXPECT_EQ(flooding.received.size(), unlinks.size());
    EXPECT_GE(turns, 20U);
}

} // namespace
} // namespace emulator

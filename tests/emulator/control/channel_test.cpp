#include "control/channel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;

class CommandClient {
public:
    explicit CommandClient(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    CommandClient(const CommandClient&) = delete;
    CommandClient& operator=(const CommandClient&) = delete;
    ~CommandClient() { ::close(m_descriptor); }

    // As many bytes as the socket accepts now.
    std::size_t send(std::string_view text) const {
        const ssize_t count = ::send(m_descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    void endInput() const { ::shutdown(m_descriptor, SHUT_WR); }

    void receive() {
        std::array<char, 65536> buffer;
        ssize_t count = 1;
        while (count > 0) {
            count = ::recv(m_descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
            received.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
        ended |= count == 0 || errno != EAGAIN;
    }

    std::string received;
    bool ended = false;

private:
    int m_descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

class CommandChannelTest : public testing::Test {
protected:
    ~CommandChannelTest() override { std::filesystem::remove(path); }

    void turn(std::chrono::milliseconds atMost = 1ms) {
        std::vector<pollfd> polled(1, {.fd = -1, .events = 0, .revents = 0}); // the launcher's
        channel.addPolled(polled);
        ::poll(polled.data(), polled.size(), static_cast<int>(atMost.count()));
        channel.serve(polled);
    }

    template <typename Condition>
    bool until(Condition condition) {
        const Time end = std::chrono::steady_clock::now() + 30s;
        while (!condition() && std::chrono::steady_clock::now() < end) {
            turn();
        }
        return condition();
    }

    std::string ask(CommandClient& client, std::string_view line) {
        client.received.clear();
        client.send(line);
        EXPECT_TRUE(until([&] {
            client.receive();
            return client.received.ends_with('\n') || client.ended;
        }));
        return client.received;
    }

    bool ends(CommandClient& client) {
        return until([&] {
            client.receive();
            return client.ended;
        });
    }

    CommandAnswer run(std::string_view line) {
        ++commands;
        if (line == "long") {
            return {.text = std::string(100'000, 'x')};
        }
        if (line == "wait") {
            return {.text = "waited", .pause = 50ms};
        }
        return {.text = "ran " + std::string(line)};
    }

    std::string path =
        (std::filesystem::temp_directory_path() / ("channel-" + std::to_string(::getpid()))).string();
    int commands = 0;
    CommandChannel channel{path, [this](std::string_view line) { return run(line); }, 200ms};
};

TEST_F(CommandChannelTest, AnswersLinesInOrder) {
    CommandClient client(path);
    client.send("wait\none\n");
    EXPECT_TRUE(until([&] {
        client.receive();
        return client.received == "waited\nran one\n";
    }));
}

TEST_F(CommandChannelTest, RunsOneCommandOfAClientInATurn) {
    CommandClient flooding(path);
    CommandClient other(path);
    std::string lines;
    for (int i = 0; i < 10'000; ++i) {
        lines += "x\n";
    }
    ASSERT_EQ(flooding.send(lines), lines.size());
    EXPECT_EQ(ask(other, "y\n"), "ran y\n");
    EXPECT_LT(commands, 20);
    while (commands < 10'001) {
        const int before = commands;
        EXPECT_LE(channel.nextDeadline(), std::chrono::steady_clock::now());
        turn(0ms);
        flooding.receive();
        ASSERT_EQ(commands, before + 1);
    }
    EXPECT_EQ(flooding.received.size(), 10'000 * std::string_view("ran x\n").size());
}

TEST_F(CommandChannelTest, ClientThatDoesNotReadDelaysNobodyAndIsDisconnected) {
    CommandClient deaf(path);
    CommandClient other(path);
    for (int i = 0; i < 100; ++i) {
        deaf.send("long\n");
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(ask(other, "y\n"), "ran y\n");
    }
    EXPECT_LT(commands, 150) << "what it does not read stops it";
    const int before = commands;
    EXPECT_TRUE(until([&] { return !channel.nextDeadline(); }));
    EXPECT_EQ(commands, before);
    EXPECT_TRUE(ends(deaf));
    EXPECT_EQ(ask(other, "y\n"), "ran y\n");
}

TEST_F(CommandChannelTest, EndlessLineEndsItsClient) {
    CommandClient endless(path);
    const std::string piece(65536, 'x');
    std::size_t sent = 0;
    while (!endless.ended && sent < 100 * CommandChannel::longestLine) {
        sent += endless.send(piece);
        turn();
        endless.receive();
    }
    EXPECT_EQ(endless.received, "error: line too long\n");
    EXPECT_LT(sent, 3 * CommandChannel::longestLine);
    EXPECT_EQ(commands, 0);
    CommandClient other(path);
    EXPECT_EQ(ask(other, "y\n"), "ran y\n");
}

TEST_F(CommandChannelTest, RunsLinesThatComeInPieces) {
    CommandClient client(path);
    for (const char letter : std::string_view("one\ntw")) {
        client.send({&letter, 1});
        turn();
    }
    EXPECT_EQ(commands, 1);
    client.send("o\n");
    EXPECT_TRUE(until([&] {
        client.receive();
        return client.received == "ran one\nran two\n";
    }));
}

TEST_F(CommandChannelTest, HalfALineDoesNotRun) {
    {
        CommandClient client(path);
        client.send("one\ntw");
        turn();
    }
    CommandClient other(path);
    EXPECT_EQ(ask(other, "y\n"), "ran y\n");
    EXPECT_TRUE(until([&] { return commands == 2; }));
    EXPECT_EQ(ask(other, "y\n"), "ran y\n");
    EXPECT_EQ(commands, 3);
}

TEST_F(CommandChannelTest, CommandsOfAClientThatHasGoneStillRun) {
    {
        CommandClient client(path);
        client.send("one\nwait\nlong\nlong\nlong\ntwo\n");
    }
    EXPECT_TRUE(until([&] { return commands == 6; }));
    EXPECT_TRUE(until([&] { return !channel.nextDeadline(); }));
    std::vector<pollfd> polled;
    channel.addPolled(polled);
    EXPECT_TRUE(until([&] {
        polled.clear();
        channel.addPolled(polled);
        return polled.size() == 1;
    }));
}

TEST_F(CommandChannelTest, AnswersAClientThatSendsNothingMore) {
    CommandClient client(path);
    client.send("wait\none\n");
    client.endInput();
    EXPECT_TRUE(ends(client));
    EXPECT_EQ(client.received, "waited\nran one\n");
}

// A hang-up would wake the loop all the time.
TEST_F(CommandChannelTest, DoesNotPollAClientThatWaits) {
    auto client = std::make_unique<CommandClient>(path);
    client->send("wait\n");
    EXPECT_TRUE(until([&] { return commands == 1; }));
    client.reset();
    std::vector<pollfd> polled;
    channel.addPolled(polled);
    ASSERT_EQ(polled.size(), 2U);
    EXPECT_EQ(polled[1].fd, -1);
}

TEST_F(CommandChannelTest, NewcomersTakeThePlaceOfIdleClients) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit all{.rlim_cur = before.rlim_max, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &all), 0);
    std::vector<std::unique_ptr<CommandClient>> clients;
    for (std::size_t i = 0; i < 2 * CommandChannel::mostClients; ++i) {
        clients.push_back(std::make_unique<CommandClient>(path));
        turn(0ms);
    }
    CommandClient next(path);
    EXPECT_EQ(ask(next, "y\n"), "ran y\n");
    std::vector<pollfd> polled;
    channel.addPolled(polled);
    EXPECT_EQ(polled.size(), 1 + CommandChannel::mostClients);
    clients.front()->receive();
    EXPECT_TRUE(clients.front()->ended);
    clients.clear();
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(CommandChannelTest, NewcomersAreAnsweredWhenDescriptorsRunOut) {
    std::vector<std::unique_ptr<CommandClient>> idle;
    for (int i = 0; i < 10; ++i) {
        idle.push_back(std::make_unique<CommandClient>(path));
    }
    CommandClient next(path);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const int free = ::dup(0);
    ::close(free);
    const rlimit few{.rlim_cur = static_cast<rlim_t>(free) + 2, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_EQ(ask(next, "y\n"), "ran y\n");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

} // namespace
} // namespace emulator

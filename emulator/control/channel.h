// The Unix socket for commands: each line is a command, answered by one line, in order.
//
// No client delays the bus or other clients: a turn runs at most one command of each, and what a client sends
// and leaves unread is limited. For the launcher's thread only, which polls the descriptors.
#pragma once

#include "control/commands.h"
#include "control/listener.h"

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace emulator {

class CommandChannel {
public:
    using Run = std::function<CommandAnswer(std::string_view line)>;

    static constexpr std::size_t longestLine = std::size_t{1} << 20;

    // One more client takes the place of the one that has been idle longest.
    static constexpr std::size_t mostClients = 256;

    // How long a client may leave answers unread.
    static constexpr Milliseconds defaultPatience{30'000};

    // Throws std::system_error.
    CommandChannel(const std::string& path, Run run, Milliseconds patience = defaultPatience);
    CommandChannel(const CommandChannel&) = delete;
    CommandChannel& operator=(const CommandChannel&) = delete;
    ~CommandChannel();

    void addPolled(std::vector<pollfd>& descriptors);
    void serve(const std::vector<pollfd>& polled);

    // When to call serve() even if no descriptor is ready.
    std::optional<Time> nextDeadline() const;

private:
    struct Client {
        // Whether it has sent a line that can run now.
        bool hasLine() const { return !due && unsent.size() < fullOutput && lineEnd != std::string::npos; }
        bool wantsInput() const { return !ended && !due && unsent.size() < fullOutput && !hasLine(); }
        bool idle() const { return received.empty() && unsent.empty() && !due; }
        void findLine(std::size_t from) { lineEnd = received.find('\n', from); }

        int descriptor;
        Time lastActive;
        std::string received = {};
        std::size_t lineEnd = std::string::npos; // of the first line in `received`
        std::size_t taken = 0;                   // where that line begins
        std::string unsent = {};
        std::size_t sent = 0; // of `unsent`
        std::optional<Time> unreadSince = {};
        std::string held = {};        // a delayed answer; the next command waits until it is sent
        std::optional<Time> due = {}; // of the held answer
        bool ended = false;           // sends nothing more; commands received before are still answered
        bool deaf = false;            // reads nothing more
    };

    static constexpr std::size_t fullOutput = std::size_t{64} << 10;

    void serve(Client& client, short ready, Time now);
    void answer(Client& client, const std::string& text, Time now) const;
    void runLine(Client& client, Time now);
    static void receive(Client& client);
    static void send(Client& client, Time now);
    bool closeIdlest();

    Listener m_listener;
    Run m_run;
    Milliseconds m_patience;
    std::list<Client> m_clients;
    std::size_t m_first = 0; // where the descriptors of the last addPolled() start
};

// Send one command over the socket at `path` and return the answer without its line end. Throws
// std::system_error.
std::string sendCommand(const std::string& path, std::string_view command);

} // namespace emulator

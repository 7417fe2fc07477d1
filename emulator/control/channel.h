// The Unix socket for commands: each line is a command, answered by one line, in order.
//
// For the launcher's thread only, which polls the descriptors.
#pragma once

#include "control/commands.h"

#include <deque>
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

    // Throws std::system_error.
    CommandChannel(const std::string& path, Run run);
    CommandChannel(const CommandChannel&) = delete;
    CommandChannel& operator=(const CommandChannel&) = delete;
    ~CommandChannel();

    void addPolled(std::vector<pollfd>& descriptors) const;
    void serve(const std::vector<pollfd>& polled);

    // When the next delayed answer is due.
    std::optional<Time> nextDeadline() const;

private:
    struct Client {
        int descriptor;
        std::string received;
        std::string held;        // a delayed answer; the next command waits until it is sent
        std::optional<Time> due; // of the held answer
        bool ended = false;      // sends nothing more; commands received before are still answered
        bool gone = false;
    };

    void accept();
    void receive(Client& client);
    void runLines(Client& client);
    static void send(Client& client, const std::string& text);

    int m_listening;
    Run m_run;
    std::list<Client> m_clients;
};

// Send one command over the socket at `path` and return the answer without its line end. Throws
// std::system_error.
std::string sendCommand(const std::string& path, std::string_view command);

} // namespace emulator

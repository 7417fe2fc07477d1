// A Unix socket on which programs send commands: one command a line, one answer a line, in order.
//
// One thread, the launcher's, calls the members; it polls the descriptors and says which are readable.
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

    // When an answer is due that a command put off.
    std::optional<Time> nextDeadline() const;

private:
    struct Client {
        int descriptor;
        std::string received;
        std::string held;        // an answer that is put off; no further command is run before it is given
        std::optional<Time> due; // of the held answer
        bool ended = false;      // it sends nothing more, but what it sent is still answered
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

// Sends one command over the socket at `path` and returns the answer without its line end. Throws
// std::system_error.
std::string sendCommand(const std::string& path, std::string_view command);

} // namespace emulator

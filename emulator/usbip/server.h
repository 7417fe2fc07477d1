// The sockets of USB/IP clients: moves bytes between each socket and its connection, and disconnects clients
// that take too long.
//
// For the launcher's thread only, which polls the descriptors.
#pragma once

#include "control/listener.h"
#include "usbip/address.h"
#include "usbip/connection.h"

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace emulator::usbip {

struct Limits {
    // The memory for data from clients, for their replies and for answers of readers.
    std::size_t memory = Readers::defaultMemory;

    // How long a client may leave replies unread. It may wait as long for memory.
    Milliseconds replyPatience{30'000};

    // How long a client may take from connecting to the end of its request and its reply, and how long it may
    // pause inside a message.
    Milliseconds patience{10'000};
};

class Server {
public:
    // How many clients without an imported reader may be connected. One more takes the place of the oldest.
    static constexpr std::size_t mostUnattachedClients = 256;

    // Called for each client that is disconnected because of a mistake.
    using Report = std::function<void(const char* complaint)>;

    // Start to listen. Throws std::system_error.
    Server(Readers& readers, const SocketAddress& address, Report report, const Limits& limits = {});
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    // Where it listens, with the actual port.
    std::string address() const;

    void addPolled(std::vector<pollfd>& descriptors);

    // The descriptors that addPolled() added start at `polled[first]`.
    void serve(const std::vector<pollfd>& polled, std::size_t first);

    // Send output as far as clients accept it, and close the connections that have ended.
    void settle();

    std::optional<Time> nextDeadline() const;

private:
    struct Client {
        Client(Readers& readers, int socket, Time now)
            : connection(readers)
            , descriptor(socket)
            , accepted(now)
            , lastInput(now) {}

        Connection connection;
        int descriptor;
        Time accepted;
        Time lastInput;
        std::optional<Time> unreadSince; // no output has been accepted since
        std::optional<Time> lackingSince;
    };

    void acceptClients(Time now);
    bool closeOldest(Time now);
    static void receive(Client& client, Time now);
    static void send(Client& client, Time now);
    void disconnectIfLate(Client& client, Time now) const;
    void close(const Client& client) const;

    // When to disconnect a client, and why.
    struct Deadline {
        Time time;
        const char* complaint;
    };
    std::optional<Deadline> deadline(const Client& client) const;

    Readers& m_readers;
    Report m_report;
    Limits m_limits;
    Listener m_listener;
    std::list<Client> m_clients;
};

} // namespace emulator::usbip

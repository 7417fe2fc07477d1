// The sockets of USB/IP clients: moves bytes between each socket and its connection, and disconnects clients
// that take too long.
//
// For the launcher's thread only, which polls the descriptors.
#pragma once

#include "usbip/address.h"
#include "usbip/connection.h"

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

namespace emulator::usbip {

class Server {
public:
    // How long a client may take from connecting to the end of its request and its reply, and how long it may
    // pause inside a message.
    static constexpr Milliseconds defaultPatience{10'000};

    // How many clients without an imported reader may be connected.
    static constexpr std::ptrdiff_t mostUnattachedClients = 64;

    // Called for each client that is disconnected because of a mistake.
    using Report = std::function<void(const char* complaint)>;

    // Start to listen. Throws std::system_error.
    Server(Readers& readers, const SocketAddress& address, Report report,
           Milliseconds patience = defaultPatience);
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
    };

    void accept(Time now);
    static void receive(Client& client, Time now);
    static void send(Client& client, Time now);
    std::optional<Time> deadline(const Client& client) const;
    bool full() const;

    Readers& m_readers;
    Report m_report;
    Milliseconds m_patience;
    int m_listening = -1;
    std::list<Client> m_clients;
    std::optional<Time> m_pausedUntil; // no client is accepted before, for lack of descriptors
};

} // namespace emulator::usbip

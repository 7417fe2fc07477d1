// The sockets of the USB/IP clients: bytes go between each and its connection, and those that take too long are closed.
//
// One thread, the launcher's, calls the members; it polls the descriptors.
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
    // How long a client may take to say what it wants and read the answer, and how long it may stop inside a message.
    static constexpr Milliseconds usualPatience{10'000};

    // How many clients may be there that have not imported a reader. Those that have are as many as the readers at most.
    static constexpr std::ptrdiff_t mostStrangers = 64;

    // Told of each client that was ended for what it said.
    using Report = std::function<void(const char* complaint)>;

    // Listens. Throws std::system_error.
    Server(Readers& readers, const SocketAddress& address, Report report,
           Milliseconds patience = usualPatience);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    // Where it listens, with the port that was chosen.
    std::string address() const;

    void addPolled(std::vector<pollfd>& descriptors);

    // Takes the descriptors that addPolled() began to add at `polled[first]`.
    void serve(const std::vector<pollfd>& polled, std::size_t first);

    // Sends what there is to be sent, as far as clients take it, and closes what has ended.
    void settle();

    std::optional<Time> nextDeadline() const;

private:
    struct Client {
        Client(Readers& readers, int socket, Time now)
            : connection(readers)
            , descriptor(socket)
            , accepted(now)
            , heard(now) {}

        Connection connection;
        int descriptor;
        Time accepted;
        Time heard;
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
    std::optional<Time> m_pausedUntil; // no client is accepted before: there is no descriptor for one
};

} // namespace emulator::usbip

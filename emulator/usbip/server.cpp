#include "usbip/server.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace emulator::usbip {

namespace {

// What the kernel does to find that the machine of a silent client is gone: within 45 seconds it asks several
// times and then ends the connection.
constexpr int silentSeconds = 15;
constexpr int secondsBetweenProbes = 5;
constexpr int mostProbes = 5;
constexpr Milliseconds deadAfter(40'000);

// How much one call sends to a client at most. A client with long replies must not delay others.
constexpr std::size_t mostSent = std::size_t{256} << 10;

Time now() {
    return std::chrono::steady_clock::now();
}

void set(int descriptor, int level, int option, int value) {
    ::setsockopt(descriptor, level, option, &value, sizeof value);
}

// Accepted connections inherit the options. The kernel also ends a connection whose client does not read for
// `patience`.
int listeningSocket(const SocketAddress& address, Milliseconds patience) {
    const int descriptor =
        ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
    if (descriptor >= 0) {
        set(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
        set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
        set(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
        set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, silentSeconds);
        set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, secondsBetweenProbes);
        set(descriptor, IPPROTO_TCP, TCP_KEEPCNT, mostProbes);
        set(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT,
            static_cast<int>(std::max(deadAfter, patience).count()));
    }
    if (descriptor < 0 || ::bind(descriptor, address.get(), address.size) != 0 ||
        ::listen(descriptor, SOMAXCONN) != 0) {
        const int error = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        throw std::system_error(error, std::generic_category(), socketAddressText(address));
    }
    return descriptor;
}

} // namespace

Server::Server(Readers& readers, const SocketAddress& address, Report report, const Limits& limits)
    : m_readers(readers)
    , m_report(std::move(report))
    , m_limits(limits)
    , m_listener(listeningSocket(address, limits.replyPatience)) {
}

Server::~Server() {
    for (const Client& client : m_clients) {
        ::close(client.descriptor);
    }
}

std::string Server::address() const {
    SocketAddress address;
    address.size = sizeof address.storage;
    if (::getsockname(m_listener.descriptor(), address.get(), &address.size) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockname");
    }
    return socketAddressText(address);
}

void Server::addPolled(std::vector<pollfd>& descriptors) {
    descriptors.push_back(m_listener.polled());
    for (const Client& client : m_clients) {
        const bool reads = client.connection.wantsInput();
        const bool writes = !client.connection.unsent().empty();
        descriptors.push_back({.fd = client.descriptor,
                               .events = static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)),
                               .revents = 0});
    }
}

void Server::serve(const std::vector<pollfd>& polled, std::size_t first) {
    const Time present = now();
    std::size_t at = first + 1;
    for (Client& client : m_clients) {
        const short ready = polled[at++].revents;
        if (client.connection.mayProceed()) {
            client.connection.proceed(present);
        } else if (client.connection.wantsInput() && ready != 0) {
            receive(client, present);
        } else if ((ready & (POLLHUP | POLLERR)) != 0) {
            client.connection.abort();
        }
        disconnectIfLate(client, present);
    }
    if (m_listener.ready(polled[first], present)) {
        acceptClients(present);
    }
    settle();
}

void Server::acceptClients(Time now) {
    auto unattached = static_cast<std::size_t>(std::ranges::count_if(
        m_clients, [](const Client& client) { return !client.connection.hasImported(); }));
    const auto take = [&](int descriptor) {
        if (unattached >= mostUnattachedClients && closeOldest(now)) {
            --unattached;
        }
        Client& client = m_clients.emplace_back(m_readers, descriptor, now);
        receive(client, now); // a request that is there already must not wait for its turn
        unattached += client.connection.hasImported() ? 0 : 1;
    };
    m_listener.accept(now, take, [&] { return closeOldest(now); });
}

// Clients are in the order in which they connected.
bool Server::closeOldest(Time now) {
    const auto oldest = std::ranges::find_if(
        m_clients, [](const Client& client) { return !client.connection.hasImported(); });
    if (oldest == m_clients.end()) {
        return false;
    }
    send(*oldest, now);
    if (!oldest->connection.closing()) {
        oldest->connection.refuse("made room for a newer client without sending a request");
    }
    close(*oldest);
    m_clients.erase(oldest);
    return true;
}

void Server::receive(Client& client, Time now) {
    std::array<std::uint8_t, 65536> buffer;
    const ssize_t count = ::recv(client.descriptor, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        client.lastInput = now;
        client.connection.receive(Input(buffer).first(static_cast<std::size_t>(count)), now);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        client.connection.abort();
    }
}

void Server::send(Client& client, Time now) {
    Connection& connection = client.connection;
    if (connection.unsent().empty()) {
        client.unreadSince.reset();
        return;
    }
    std::array<iovec, 64> pieces;
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = connection.unsent().describe(pieces, mostSent);
    const ssize_t count = ::sendmsg(client.descriptor, &message, MSG_NOSIGNAL);
    if (count < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            connection.abort();
        } else if (!client.unreadSince) {
            client.unreadSince = now;
        }
        return;
    }
    const bool wasReading = connection.wantsInput();
    connection.sent(static_cast<std::size_t>(count));
    client.unreadSince = connection.unsent().empty() ? std::nullopt : std::optional(now);
    if (!wasReading) {
        client.lastInput = now; // its input was not read before
    }
}

void Server::settle() {
    const Time present = now();
    for (Client& client : m_clients) {
        send(client, present);
        if (!client.connection.lacksMemory()) {
            client.lackingSince.reset();
        } else if (!client.lackingSince) {
            client.lackingSince = present;
        }
    }
    m_clients.remove_if([this](const Client& client) {
        const bool ended = client.connection.closing();
        if (ended) {
            close(client);
        }
        return ended;
    });
}

void Server::close(const Client& client) const {
    ::close(client.descriptor);
    if (client.connection.complaint() != nullptr && m_report) {
        m_report(client.connection.complaint());
    }
}

void Server::disconnectIfLate(Client& client, Time now) const {
    const std::optional<Deadline> due = deadline(client);
    if (due && due->time <= now) {
        client.connection.refuse(due->complaint);
    }
}

std::optional<Server::Deadline> Server::deadline(const Client& client) const {
    if (!client.connection.hasImported()) {
        return Deadline{client.accepted + m_limits.patience, "did not complete its request in time"};
    }
    std::optional<Deadline> earliest;
    const auto consider = [&](std::optional<Time> since, Milliseconds patience, const char* complaint) {
        if (since && (!earliest || *since + patience < earliest->time)) {
            earliest = Deadline{*since + patience, complaint};
        }
    };
    consider(client.unreadSince, m_limits.replyPatience, "did not read its replies in time");
    consider(client.lackingSince, m_limits.replyPatience, "needs more memory than there is");
    if (client.connection.hasPartialMessage()) {
        consider(client.lastInput, m_limits.patience, "did not complete its message in time");
    }
    return earliest;
}

std::optional<Time> Server::nextDeadline() const {
    std::optional<Time> earliest = m_listener.nextDeadline();
    for (const Client& client : m_clients) {
        if (client.connection.mayProceed()) {
            return Time{}; // at once
        }
        if (const std::optional<Deadline> due = deadline(client)) {
            earliest = std::min(earliest.value_or(due->time), due->time);
        }
    }
    return earliest;
}

} // namespace emulator::usbip

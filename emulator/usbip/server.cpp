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

// How long to accept no client after a lack of descriptors.
constexpr std::chrono::milliseconds pause(100);

Time now() {
    return std::chrono::steady_clock::now();
}

void set(int descriptor, int level, int option) {
    const int on = 1;
    ::setsockopt(descriptor, level, option, &on, sizeof on);
}

} // namespace

Server::Server(Readers& readers, const SocketAddress& address, Report report, Milliseconds patience)
    : m_readers(readers)
    , m_report(std::move(report))
    , m_patience(patience)
    , m_listening(
          ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP)) {
    if (m_listening >= 0) {
        set(m_listening, SOL_SOCKET, SO_REUSEADDR);
    }
    if (m_listening < 0 || ::bind(m_listening, address.get(), address.size) != 0 ||
        ::listen(m_listening, SOMAXCONN) != 0) {
        const int error = errno;
        if (m_listening >= 0) {
            ::close(m_listening);
        }
        throw std::system_error(error, std::generic_category(), socketAddressText(address));
    }
}

Server::~Server() {
    for (const Client& client : m_clients) {
        ::close(client.descriptor);
    }
    ::close(m_listening);
}

std::string Server::address() const {
    SocketAddress address;
    address.size = sizeof address.storage;
    if (::getsockname(m_listening, address.get(), &address.size) != 0) {
        throw std::system_error(errno, std::generic_category(), "getsockname");
    }
    return socketAddressText(address);
}

bool Server::full() const {
    return std::ranges::count_if(m_clients, [](const Client& client) {
               return !client.connection.hasImported();
           }) >= mostUnattachedClients;
}

void Server::addPolled(std::vector<pollfd>& descriptors) {
    const bool accepts = !full() && !m_pausedUntil;
    descriptors.push_back(
        {.fd = m_listening, .events = static_cast<short>(accepts ? POLLIN : 0), .revents = 0});
    for (const Client& client : m_clients) {
        const bool reads = client.connection.wantsInput();
        const bool writes = !client.connection.output().empty();
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
        if ((ready & (POLLIN | POLLHUP | POLLERR)) != 0) {
            receive(client, present);
        }
        const std::optional<Time> due = deadline(client);
        if (due && *due <= present) {
            client.connection.abort();
        }
    }
    settle();
    if (m_pausedUntil && *m_pausedUntil <= present) {
        m_pausedUntil.reset();
    }
    if (polled[first].revents != 0) {
        accept(present);
    }
}

void Server::accept(Time now) {
    const int descriptor = ::accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            m_pausedUntil = now + pause;
        }
        return;
    }
    set(descriptor, IPPROTO_TCP, TCP_NODELAY);
    set(descriptor, SOL_SOCKET, SO_KEEPALIVE);
    m_clients.emplace_back(m_readers, descriptor, now);
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
    for (Input output = client.connection.output(); !output.empty(); output = client.connection.output()) {
        const ssize_t count = ::send(client.descriptor, output.data(), output.size(), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                client.connection.abort();
            }
            return;
        }
        const bool wasReading = client.connection.wantsInput();
        client.connection.sent(static_cast<std::size_t>(count), now);
        if (!wasReading && client.connection.wantsInput()) {
            client.lastInput = now; // its input was not read before
        }
    }
}

void Server::settle() {
    const Time present = now();
    for (Client& client : m_clients) {
        send(client, present);
    }
    m_clients.remove_if([this](const Client& client) {
        if (!client.connection.closing()) {
            return false;
        }
        ::close(client.descriptor);
        if (client.connection.complaint() != nullptr) {
            m_report(client.connection.complaint());
        }
        return true;
    });
}

std::optional<Time> Server::deadline(const Client& client) const {
    if (!client.connection.hasImported()) {
        return client.accepted + m_patience;
    }
    if (client.connection.hasPartialMessage()) {
        return client.lastInput + m_patience;
    }
    return std::nullopt;
}

std::optional<Time> Server::nextDeadline() const {
    std::optional<Time> earliest = m_pausedUntil;
    for (const Client& client : m_clients) {
        if (const std::optional<Time> due = deadline(client)) {
            earliest = std::min(earliest.value_or(*due), *due);
        }
    }
    return earliest;
}

} // namespace emulator::usbip

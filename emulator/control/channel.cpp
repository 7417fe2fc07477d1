#include "control/channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        fail(ENAMETOOLONG, path);
    }
    path.copy(address.sun_path, path.size());
    return address;
}

int listeningSocket(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0 ||
        ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(descriptor, SOMAXCONN) != 0) {
        const int error = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        fail(error, path);
    }
    return descriptor;
}

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

CommandChannel::CommandChannel(const std::string& path, Run run, Milliseconds patience)
    : m_listener(listeningSocket(path))
    , m_run(std::move(run))
    , m_patience(patience) {
}

CommandChannel::~CommandChannel() {
    for (const Client& client : m_clients) {
        ::close(client.descriptor);
    }
}

// A client that neither may send nor is sent anything is not polled: it could only report a hang-up, again and
// again.
void CommandChannel::addPolled(std::vector<pollfd>& descriptors) {
    m_first = descriptors.size();
    descriptors.push_back(m_listener.polled());
    for (const Client& client : m_clients) {
        const auto events =
            static_cast<short>((client.wantsInput() ? POLLIN : 0) | (client.unsent.empty() ? 0 : POLLOUT));
        descriptors.push_back({.fd = events == 0 ? -1 : client.descriptor, .events = events, .revents = 0});
    }
}

void CommandChannel::serve(const std::vector<pollfd>& polled) {
    const Time present = now();
    std::size_t at = m_first + 1;
    for (Client& client : m_clients) {
        serve(client, polled[at++].revents, present);
    }
    std::erase_if(m_clients, [&](const Client& client) {
        const bool done = client.ended && !client.due && !client.hasLine() && client.unsent.empty();
        const bool late = client.unreadSince && *client.unreadSince + m_patience <= present;
        if (done || late) {
            ::close(client.descriptor);
        }
        return done || late;
    });
    if (m_listener.ready(polled[m_first], present)) {
        const auto take = [&](int descriptor) {
            if (m_clients.size() >= mostClients) {
                closeIdlest();
            }
            m_clients.push_back({.descriptor = descriptor, .lastActive = present});
        };
        m_listener.accept(present, take, [this] { return closeIdlest(); });
    }
}

void CommandChannel::serve(Client& client, short ready, Time now) {
    if (client.due && *client.due <= now) {
        client.due.reset();
        answer(client, std::exchange(client.held, {}), now);
    }
    if (ready != 0) {
        client.lastActive = now;
        if (client.wantsInput()) {
            receive(client);
        }
        send(client, now);
    }
    if (client.hasLine()) {
        runLine(client, now);
    }
    if (client.lineEnd == std::string::npos && client.received.size() - client.taken > longestLine) {
        client.received.clear();
        client.taken = 0;
        client.ended = true;
        answer(client, "error: line too long", now);
    }
}

bool CommandChannel::closeIdlest() {
    const auto idlest = std::ranges::min_element(
        m_clients, {}, [](const Client& client) { return std::pair(!client.idle(), client.lastActive); });
    if (idlest == m_clients.end()) {
        return false;
    }
    ::close(idlest->descriptor);
    m_clients.erase(idlest);
    return true;
}

void CommandChannel::receive(Client& client) {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(client.descriptor, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        client.received.erase(0, client.taken);
        client.taken = 0;
        const std::size_t before = client.received.size();
        client.received.append(buffer.data(), static_cast<std::size_t>(count));
        client.findLine(before);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        client.ended = true;
        client.deaf |= count < 0;
    }
}

void CommandChannel::runLine(Client& client, Time now) {
    const std::string line = client.received.substr(client.taken, client.lineEnd - client.taken);
    client.taken = client.lineEnd + 1;
    if (client.taken == client.received.size()) {
        client.received.clear();
        client.taken = 0;
    }
    client.findLine(client.taken);
    const CommandAnswer result = m_run(trimmed(line));
    if (result.pause.count() == 0) {
        answer(client, result.text, now);
    } else {
        client.held = result.text;
        client.due = now + result.pause;
    }
}

void CommandChannel::answer(Client& client, const std::string& text, Time now) const {
    client.unsent += text + "\n";
    send(client, now);
}

void CommandChannel::send(Client& client, Time now) {
    while (!client.unsent.empty() && !client.deaf) {
        const ssize_t count = ::send(client.descriptor, client.unsent.data() + client.sent,
                                     client.unsent.size() - client.sent, MSG_NOSIGNAL);
        if (count >= 0) {
            client.sent += static_cast<std::size_t>(count);
            if (client.sent >= client.unsent.size() / 2) {
                client.unsent.erase(0, std::exchange(client.sent, 0));
            }
            client.unreadSince.reset();
        } else if (errno == EAGAIN) {
            client.unreadSince = client.unreadSince.value_or(now);
            return;
        } else if (errno != EINTR) {
            client.deaf = true;
        }
    }
    client.unsent.clear();
    client.sent = 0;
    client.unreadSince.reset();
}

std::optional<Time> CommandChannel::nextDeadline() const {
    std::optional<Time> earliest = m_listener.nextDeadline();
    const auto consider = [&](std::optional<Time> time) {
        if (time) {
            earliest = std::min(earliest.value_or(*time), *time);
        }
    };
    for (const Client& client : m_clients) {
        if (client.hasLine()) {
            return Time{}; // at once
        }
        consider(client.due);
        if (client.unreadSince) {
            consider(*client.unreadSince + m_patience);
        }
    }
    return earliest;
}

std::string sendCommand(const std::string& path, std::string_view command) {
    const sockaddr_un address = socketAddress(path);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0 ||
        ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        fail(error, path);
    }
    std::string line(command);
    std::ranges::replace(line, '\n', ' ');
    line += '\n';
    std::string answer;
    std::array<char, 4096> buffer;
    ssize_t count = ::send(descriptor, line.data(), line.size(), MSG_NOSIGNAL);
    while (count > 0 && answer.find('\n') == std::string::npos) {
        count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        if (count > 0) {
            answer.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }
    ::close(descriptor);
    const auto end = answer.find('\n');
    if (end == std::string::npos) {
        fail(EPIPE, path);
    }
    answer.erase(end);
    return answer;
}

} // namespace emulator

#include "control/channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr std::size_t longestLine = 1U << 20;

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

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

CommandChannel::CommandChannel(const std::string& path, Run run)
    : m_listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    , m_run(std::move(run)) {
    const sockaddr_un address = socketAddress(path);
    if (m_listening < 0 ||
        ::bind(m_listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_listening, SOMAXCONN) != 0) {
        fail(errno, path);
    }
}

CommandChannel::~CommandChannel() {
    for (const Client& client : m_clients) {
        ::close(client.descriptor);
    }
    ::close(m_listening);
}

void CommandChannel::addPolled(std::vector<pollfd>& descriptors) const {
    descriptors.push_back({.fd = m_listening, .events = POLLIN, .revents = 0});
    for (const Client& client : m_clients) {
        if (!client.ended) {
            descriptors.push_back({.fd = client.descriptor, .events = POLLIN, .revents = 0});
        }
    }
}

void CommandChannel::serve(const std::vector<pollfd>& polled) {
    const auto readable = [&](int descriptor) {
        const auto found = std::ranges::find(polled, descriptor, &pollfd::fd);
        return found != polled.end() && found->revents != 0;
    };
    for (Client& client : m_clients) {
        if (client.due && *client.due <= now()) {
            client.due.reset();
            send(client, client.held);
        }
        if (readable(client.descriptor)) {
            receive(client);
        }
        runLines(client);
        client.gone |= client.ended && !client.due;
    }
    std::erase_if(m_clients, [](const Client& client) {
        if (client.gone) {
            ::close(client.descriptor);
        }
        return client.gone;
    });
    if (readable(m_listening)) {
        accept();
    }
}

void CommandChannel::accept() {
    const int descriptor = ::accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    // A client that does not read its answers must not block the bus.
    const timeval patience{.tv_sec = 1, .tv_usec = 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    m_clients.push_back({.descriptor = descriptor, .received = {}, .held = {}, .due = {}});
}

void CommandChannel::receive(Client& client) {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(client.descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count > 0) {
        client.received.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
        client.ended = true;
    } else if (errno != EAGAIN && errno != EINTR) {
        client.gone = true;
    }
    if (client.received.size() > longestLine && client.received.find('\n') == std::string::npos) {
        send(client, "error: line too long");
        client.gone = true;
    }
}

void CommandChannel::runLines(Client& client) {
    for (auto end = client.received.find('\n'); !client.due && end != std::string::npos;
         end = client.received.find('\n')) {
        const std::string line = client.received.substr(0, end);
        client.received.erase(0, end + 1);
        const CommandAnswer answer = m_run(trimmed(line));
        if (answer.pause.count() == 0) {
            send(client, answer.text);
        } else {
            client.held = answer.text;
            client.due = now() + answer.pause;
        }
    }
}

void CommandChannel::send(Client& client, const std::string& text) {
    const std::string line = text + "\n";
    for (std::size_t sent = 0; sent < line.size() && !client.gone;) {
        const ssize_t count = ::send(client.descriptor, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            client.gone = true;
        }
    }
}

std::optional<Time> CommandChannel::nextDeadline() const {
    std::optional<Time> earliest;
    for (const Client& client : m_clients) {
        if (client.due) {
            earliest = std::min(earliest.value_or(*client.due), *client.due);
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

#include "usbfs/uevents.h"

#include "model/text.h"
#include "preload_contract.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr std::size_t mostKept = 16384;

// What precedes the properties in an event of udev. libudev's socket filters look at the hashes.
struct UdevHeader {
    std::array<char, 8> prefix = {'l', 'i', 'b', 'u', 'd', 'e', 'v', '\0'};
    std::uint32_t magic = htonl(0xFEEDCAFE);
    std::uint32_t headerSize = 40;
    std::uint32_t propertiesOffset = 40;
    std::uint32_t propertiesLength = 0;
    std::uint32_t subsystemHash = 0;
    std::uint32_t typeHash = 0;
    std::array<std::uint32_t, 2> tags = {0, 0};
};
static_assert(sizeof(UdevHeader) == 40);

// MurmurHash2 with seed 0, as udev has it.
std::uint32_t hashOf(std::string_view text) {
    constexpr std::uint32_t factor = 0x5BD1E995;
    auto hash = static_cast<std::uint32_t>(text.size());
    for (; text.size() >= 4; text.remove_prefix(4)) {
        std::uint32_t part = 0;
        std::memcpy(&part, text.data(), sizeof part);
        part *= factor;
        part ^= part >> 24;
        hash = hash * factor ^ part * factor;
    }
    if (!text.empty()) {
        std::uint32_t rest = 0;
        for (std::size_t i = text.size(); i > 0; --i) {
            rest = rest << 8 | static_cast<std::uint8_t>(text[i - 1]);
        }
        hash = (hash ^ rest) * factor;
    }
    hash ^= hash >> 13;
    hash *= factor;
    return hash ^ hash >> 15;
}

sockaddr_un addressOf(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// The socket's own name is how programs know events from other messages.
bool bindSender(int socket, unsigned number) {
    const std::string name = std::string(1, '\0') + emulate_event_sender +
                             numbered("%u.%u", static_cast<unsigned>(::getpid()), number);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

} // namespace

Uevents::Uevents(const std::filesystem::path& scratch)
    : m_folder(scratch / emulate_listeners)
    , m_epoll(::epoll_create1(EPOLL_CLOEXEC), "epoll") {
    if (::mkdir(m_folder.c_str(), 0700) != 0) {
        throw std::system_error(errno, std::generic_category(), m_folder);
    }
}

void Uevents::findListeners() {
    DIR* const folder = ::opendir(m_folder.c_str());
    if (folder == nullptr) {
        return;
    }
    std::vector<std::string> found;
    while (const dirent* entry =
               ::readdir(folder)) { // NOLINT(concurrency-mt-unsafe): the stream is this one's own
        if (entry->d_name[0] != '.' && !m_listeners.contains(entry->d_name)) {
            found.emplace_back(entry->d_name);
        }
    }
    ::closedir(folder);
    for (const std::string& name : found) {
        connect(name);
    }
}

void Uevents::connect(const std::string& name) {
    Listener listener;
    listener.socket = FileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(m_folder + "/" + name);
    if (!listener.socket || !bindSender(listener.socket.get(), ++m_lastSender)) {
        return;
    }
    if (::connect(listener.socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno == ECONNREFUSED) {
            ::unlink(address.sun_path); // closed
        }
        return;
    }
    listener.ofKernel = name.starts_with("1.");
    m_listeners.emplace(name, std::move(listener));
}

void Uevents::watch(const Listener& listener, bool waiting) const {
    epoll_event event{};
    event.events = EPOLLOUT;
    ::epoll_ctl(m_epoll.get(), waiting ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, listener.socket.get(), &event);
}

// False if the program has no room; true if it has got the message or is gone.
bool Uevents::sendOne(Listener& listener, const std::string& message) const {
    ssize_t sent = 0;
    do {
        sent = ::send(listener.socket.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && errno != EAGAIN && errno != ENOBUFS) {
        listener.socket.reset();
    }
    return sent >= 0 || !listener.socket;
}

void Uevents::drop(const std::string& name) {
    ::unlink((m_folder + "/" + name).c_str());
    m_listeners.erase(name);
}

void Uevents::send(std::string_view action, const ShownDevice& device) {
    findListeners();
    if (m_listeners.empty()) {
        ++m_lastEvent;
        return;
    }
    std::string properties;
    const auto property = [&](std::string_view name, std::string_view value) {
        properties.append(name).append("=").append(value).append(1, '\0');
    };
    const std::string path = devicePath(device);
    property("ACTION", action);
    property("DEVPATH", path);
    property("SUBSYSTEM", "usb");
    property("SEQNUM", std::to_string(++m_lastEvent));
    std::string ofUdev;
    for (const auto& [name, value] : propertiesOf(device)) {
        property(name, value);
    }
    UdevHeader header;
    header.subsystemHash = htonl(hashOf("usb"));
    header.typeHash = htonl(hashOf("usb_device"));
    header.propertiesLength = static_cast<std::uint32_t>(properties.size());
    ofUdev.assign(reinterpret_cast<const char*>(&header), sizeof header).append(properties);
    const std::string ofKernel = std::string(action) + "@" + path + std::string(1, '\0') + properties;

    std::vector<std::string> gone;
    for (auto& [name, listener] : m_listeners) {
        const std::string& message = listener.ofKernel ? ofKernel : ofUdev;
        if (!listener.kept.empty() || !sendOne(listener, message)) {
            if (listener.kept.empty()) {
                watch(listener, true);
            }
            if (listener.kept.size() < mostKept) {
                listener.kept.push_back(message);
            }
        }
        if (!listener.socket) {
            gone.push_back(name);
        }
    }
    for (const std::string& name : gone) {
        drop(name);
    }
}

void Uevents::sendKept() {
    std::vector<std::string> gone;
    for (auto& [name, listener] : m_listeners) {
        if (listener.kept.empty()) {
            continue;
        }
        while (!listener.kept.empty() && sendOne(listener, listener.kept.front())) {
            listener.kept.pop_front();
            if (!listener.socket) {
                gone.push_back(name);
                break;
            }
        }
        if (listener.socket && listener.kept.empty()) {
            watch(listener, false);
        }
    }
    for (const std::string& name : gone) {
        drop(name);
    }
}

} // namespace emulator

#include "usbfs/uevent_listeners.h"

#include "preload_contract.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace emulator {

namespace {

using Clock = std::chrono::steady_clock;

// A socket connected to the listener's is writable as long as the listener has room.
bool waitForRoom(const std::string& path, Clock::time_point deadline) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return true;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return true;
    }
    bool room = true;
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        pollfd writable = {.fd = descriptor, .events = POLLOUT, .revents = 0};
        int result = 0;
        do {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            result = ::poll(&writable, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        } while (result < 0 && errno == EINTR);
        room = result != 0;
    } // else the listener is gone
    ::close(descriptor);
    return room;
}

} // namespace

bool waitForRoomAtListeners(const std::filesystem::path& testbed, std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    for (const auto& entry : std::filesystem::directory_iterator(testbed)) {
        if (entry.path().filename().string().starts_with(emulate_event_socket) &&
            !waitForRoom(entry.path().string(), deadline)) {
            return false;
        }
    }
    return true;
}

} // namespace emulator

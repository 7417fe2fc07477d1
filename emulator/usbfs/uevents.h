// Sends udev events to the programs on the bus. Each udev monitor of a program is a Unix socket in a folder.
//
// A program that does not read its events delays nobody: they are kept for it, and the newest are lost if there are too
// many, as in the kernel. For the launcher's thread only.
#pragma once

#include "usbfs/file_descriptor.h"
#include "usbfs/sysfs.h"

#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace emulator {

class Uevents {
public:
    // Create the folder. Throws std::system_error.
    explicit Uevents(const std::filesystem::path& scratch);
    Uevents(const Uevents&) = delete;
    Uevents& operator=(const Uevents&) = delete;
    ~Uevents() = default;

    // `action` is "add" or "remove".
    void send(std::string_view action, const ShownDevice& device);

    int descriptor() const { return m_epoll.get(); } // readable when a program has room for what is kept
    void sendKept();

private:
    struct Listener {
        FileDescriptor socket;
        bool ofKernel = false; // wants events of the kernel, not of udev
        std::deque<std::string> kept;
    };

    void findListeners();
    void connect(const std::string& name);
    bool sendOne(Listener& listener, const std::string& message) const;
    void drop(const std::string& name);
    void watch(const Listener& listener, bool waiting) const;

    std::string m_folder;
    FileDescriptor m_epoll;
    std::map<std::string, Listener> m_listeners; // by file name
    unsigned m_lastSender = 0;
    std::uint64_t m_lastEvent = 0;
};

} // namespace emulator

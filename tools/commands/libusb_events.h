// A thread that handles the events of libusb's default context, which the library uses.
#pragma once

#include <atomic>
#include <thread>

class LibusbEvents {
public:
    LibusbEvents();
    LibusbEvents(const LibusbEvents&) = delete;
    LibusbEvents& operator=(const LibusbEvents&) = delete;
    ~LibusbEvents();

private:
    std::atomic<bool> m_ended = false;
    std::thread m_thread;
};

// A thread that handles the events of libusb's default context, which is the library's.
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
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

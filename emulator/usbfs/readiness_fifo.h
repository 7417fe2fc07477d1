// A FIFO that stands in for a usbfs node: programs poll the node for "writable" to learn that a transfer has
// completed, so a full FIFO means "nothing" and a drained one "come and reap". A regular file would always be
// writable and keep libusb's event thread spinning.
//
// One thread at a time; the owner guards it.
#pragma once

#include <string>

namespace emulator {

class ReadinessFifo {
public:
    // Makes the file, not ready. Throws std::system_error.
    explicit ReadinessFifo(const std::string& file);
    ReadinessFifo(const ReadinessFifo&) = delete;
    ReadinessFifo& operator=(const ReadinessFifo&) = delete;
    ~ReadinessFifo();

    void setReady(bool ready);

private:
    int m_descriptor;
    bool m_ready = true;
};

} // namespace emulator

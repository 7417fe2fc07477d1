// A FIFO in the place of a usbfs node. Programs poll the node for POLLOUT, which says that a URB can be
// reaped: the FIFO is kept full or empty accordingly. A regular file would always be writable, so libusb's
// event loop would spin.
//
// One thread at a time; the owner guards it.
#pragma once

#include <string>

namespace emulator {

class ReadinessFifo {
public:
    // Create the file, full. Throws std::system_error.
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

// The same libusb calls that the library makes, made directly.
#pragma once

#include <cstddef>
#include <vector>

#include <libusb.h>

// Get the device list, read each descriptor and free the list.
void listDevices();

void zeroFill(unsigned char* buffer, std::size_t size);

// The first reader on the bus, opened, with its interface claimed. Uses the endpoints of virtual readers.
class BareReader {
public:
    BareReader();
    BareReader(const BareReader&) = delete;
    BareReader& operator=(const BareReader&) = delete;
    ~BareReader();

    // Send a frame and receive the answer. Throws std::runtime_error.
    int exchange(unsigned char* data, int length, unsigned char* buffer, int size);

private:
    libusb_device_handle* m_handle = nullptr;
};

// Keeps the readers that the last scan found, as a scan list does.
class BareBus {
public:
    BareBus() = default;
    BareBus(const BareBus&) = delete;
    BareBus& operator=(const BareBus&) = delete;
    ~BareBus();

    void scan();

private:
    void forget();

    std::vector<libusb_device*> m_readers;
};

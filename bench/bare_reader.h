// What the library does for an application, done by the application itself: the same calls to libusb, and nothing else.
#pragma once

#include <cstddef>
#include <vector>

#include <libusb.h>

// What any look at the bus takes: the list, a descriptor for each device, and giving the list back.
void listDevices();

void zeroFill(unsigned char* buffer, std::size_t size);

// The first reader on the bus, open, with its interface claimed. Its endpoints are those of virtual readers.
class BareReader {
public:
    BareReader();
    BareReader(const BareReader&) = delete;
    BareReader& operator=(const BareReader&) = delete;
    ~BareReader();

    // Sends a frame and receives the answer. Throws std::runtime_error.
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

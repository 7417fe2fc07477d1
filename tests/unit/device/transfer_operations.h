// The three public transfers of a device as table entries, for tests of their common behavior.
#pragma once

#include "device_test.h"

#include <ostream>

struct TransferOperation {
    const char* tag; // of its own log lines
    bool sends;
    bool receives;
    int (*run)(GVDevice& device, const char* name);
};

inline const fake::Bytes sentFrame = {0x02, 0x00, 0x07, 0xFF, 0x01};
inline constexpr unsigned int receiveSize = 8;
inline constexpr const char* protocol = "TESK-RCI2";

inline const TransferOperation transferOperations[] = {
    {"transmit", true, false,
     [](GVDevice& device, const char* name) {
         return device.Transmit(name, sentFrame.data(), static_cast<unsigned int>(sentFrame.size()));
     }},
    {"receive", false, true,
     [](GVDevice& device, const char* name) {
         unsigned char buffer[receiveSize];
         return device.Receive(name, buffer, receiveSize);
     }},
    {"transceive", true, true,
     [](GVDevice& device, const char* name) {
         unsigned char buffer[receiveSize];
         return device.Transceive(name, sentFrame.data(), static_cast<unsigned int>(sentFrame.size()), buffer,
                                  receiveSize);
     }},
};

inline void PrintTo(const TransferOperation& operation, std::ostream* stream) {
    *stream << operation.tag;
}

// The names that libusb and the library use for a transfer in each mode.
struct TransferMedium {
    fake::FakeReader reader;
    fake::Transfer out;
    fake::Transfer in;
    const char* sendTag;
    const char* receiveTag; // of the dump; on failure, the tag has no trailing blank
    int otherError;
};

inline TransferMedium mediumOf(TransferMode mode) {
    if (mode == TransferMode::bulk) {
        return {fake::bulkReader(), fake::Transfer::bulkOut, fake::Transfer::bulkIn,
                "bulkTransmit",     "bulkReceive",           GVUSB_ERR_BULK_TRANSFER};
    }
    return {fake::controlReader(), fake::Transfer::controlOut, fake::Transfer::controlIn, "ctrlTransmit",
            "ctrlReceive",         GVUSB_ERR_CONTROL_TRANSFER};
}

// The code that a failed transfer returns to the caller.
inline int expectedCode(int usbResult, int otherError) {
    return usbResult == -7 ? -1130 : usbResult == -4 ? -1137 : otherError;
}

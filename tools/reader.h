// An open reader that a command works with.
#pragma once

#include <string>

#include <gvusb.h>

class Reader {
public:
    // Open the reader at a USB path, or the first reader on the bus with a device ID. Print a note on standard error
    // if several have this ID.
    explicit Reader(const std::string& name);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader();

    int handle() const { return m_handle; }
    // "reader 1A2B3C" or "reader usb:1-2", for messages.
    const std::string& title() const { return m_title; }

    // The value of a parameter. The library has no parameter "PRESENT"; GVUSB_IsDevicePresent() provides it.
    std::string parameter(const std::string& key) const;

private:
    std::string m_title;
    int m_handle;
};

// A parameter of an open reader or of the driver (GVUSB_DRIVER).
std::string readParameter(const std::string& title, int handle, const std::string& key);

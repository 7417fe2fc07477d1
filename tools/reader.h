// A reader that a command works with, and the scan that finds it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <gvusb.h>

// What a scan found. `typeNumber` takes opening the reader, so it may be missing.
struct ReaderFacts {
    std::string id;
    std::string family;
    std::string name;
    std::string interfaceType;
    std::optional<std::string> typeNumber;
};

// Every reader on the bus that matches the search record (null: every one), in the bus's order.
std::vector<ReaderFacts> findReaders(GVUSB_SCANSEARCH* search);

// An open reader, closed at the end.
class Reader {
public:
    // The first one on the bus with this device ID. Says so on standard error when there are more.
    explicit Reader(unsigned int id);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader();

    int handle() const { return handle_; }
    // "reader 1A2B3C", to begin messages with.
    const std::string& title() const { return title_; }

    // The value of a parameter. "PRESENT", which the library does not answer, is asked for in another way.
    std::string parameter(const std::string& key) const;

private:
    std::string title_;
    int handle_;
};

// A parameter of an open reader or of the driver (GVUSB_DRIVER).
std::string readParameter(const std::string& title, int handle, const std::string& key);

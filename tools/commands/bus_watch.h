// The library's reports of readers that come and go, collected for the thread that prints them.
#pragma once

#include "commands/libusb_events.h"
#include "commands/presence.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gvusb.h>

// Brings the library to report, whatever hot-plug mode the configuration names. In mode 2 it reports while
// somebody handles libusb's events, so that is done here; in any other mode it polls, and where polling is
// off it is set going. There is one of these at a time.
class BusWatch {
public:
    explicit BusWatch(unsigned int pollMilliseconds);
    BusWatch(const BusWatch&) = delete;
    BusWatch& operator=(const BusWatch&) = delete;
    ~BusWatch();

    // How it watches, in words.
    const std::string& manner() const { return manner_; }

    // Readable when there are reports to be taken.
    int descriptor() const { return wakeUp_; }
    std::vector<Report> take();

private:
    static void onConnect(int handle, unsigned int id, const char* text);
    static void onDisconnect(int handle, unsigned int id, const char* text);
    void add(const Report& report);

    static BusWatch* current_;

    int wakeUp_;
    GVUSB_EVENT_INIT connect_;
    GVUSB_EVENT_INIT disconnect_;
    std::string manner_;
    std::mutex mutex_;
    std::vector<Report> reports_;
    std::optional<LibusbEvents> events_;
};

// The library's reports of readers that connect and disconnect, collected for the thread that prints them.
#pragma once

#include "commands/libusb_events.h"
#include "commands/presence.h"

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gvusb.h>

// Makes the library report in whatever hot-plug mode it is configured. In mode 2 it reports while libusb's
// events are handled, so a thread handles them. In every other mode polling is turned on. Only one object may
// exist at a time.
class BusWatch {
public:
    explicit BusWatch(unsigned int pollMilliseconds);
    BusWatch(const BusWatch&) = delete;
    BusWatch& operator=(const BusWatch&) = delete;
    ~BusWatch();

    // How the bus is watched, in words.
    const std::string& method() const { return m_method; }

    // Readable while there are reports to take.
    int descriptor() const { return m_wakeUp; }
    std::vector<Report> take();

private:
    static void onConnect(int handle, unsigned int id, const char* text);
    static void onDisconnect(int handle, unsigned int id, const char* text);
    void add(const Report& report);

    static BusWatch* current;

    int m_wakeUp;
    GVUSB_EVENT_INIT m_connect;
    GVUSB_EVENT_INIT m_disconnect;
    std::string m_method;
    std::mutex m_mutex;
    std::vector<Report> m_reports;
    std::optional<LibusbEvents> m_events;
};

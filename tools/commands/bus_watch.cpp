#include "commands/bus_watch.h"

#include "failure.h"
#include "reader.h"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

BusWatch* BusWatch::current = nullptr;

void BusWatch::onConnect(int handle, unsigned int id, const char*) {
    current->add({.arrived = true, .id = id, .handle = handle});
}

void BusWatch::onDisconnect(int handle, unsigned int id, const char*) {
    current->add({.arrived = false, .id = id, .handle = handle});
}

void BusWatch::add(const Report& report) {
    {
        const std::lock_guard lock(m_mutex);
        m_reports.push_back(report);
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wakeUp, &one, sizeof one);
}

std::vector<Report> BusWatch::take() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(m_wakeUp, &count, sizeof count);
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_reports, {});
}

BusWatch::BusWatch(unsigned int pollMilliseconds)
    : m_wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , m_connect{GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onConnect}
    , m_disconnect{GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onDisconnect} {
    if (m_wakeUp < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    // Otherwise, reading what was scanned would wait for a poll that meets a hung reader.
    check("driver: PARALLEL", GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", "1"));
    current = this;
    check("event handlers", GVUSB_AddEventHandler(0, &m_connect));
    check("event handlers", GVUSB_AddEventHandler(0, &m_disconnect));

    const std::string mode = readParameter("driver", GVUSB_DRIVER, "HOTPLUG-MODE");
    if (mode == "2") {
        m_method = "handling libusb's events (hot-plug mode 2)";
        m_events.emplace();
        return;
    }
    const std::string microseconds = std::to_string(std::uint64_t{pollMilliseconds} * 1000);
    check("driver: HOTPLUG-UPDATERATE",
          GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", microseconds.c_str()));
    check("driver: HOTPLUG-SUSPEND", GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"));
    m_method = "polling every " + std::to_string(pollMilliseconds) + " ms (hot-plug mode " + mode +
               (mode == "1" ? ")" : ", which does not report by itself)");
}

BusWatch::~BusWatch() {
    // Each call waits for a handler that is running.
    GVUSB_DelEventHandler(0, &m_connect);
    GVUSB_DelEventHandler(0, &m_disconnect);
    m_events.reset();
    ::close(m_wakeUp);
}

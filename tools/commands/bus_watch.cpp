#include "commands/bus_watch.h"

#include "failure.h"
#include "reader.h"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

BusWatch* BusWatch::current_ = nullptr;

void BusWatch::onConnect(int handle, unsigned int id, const char*) {
    current_->add({.arrived = true, .id = id, .handle = handle});
}

void BusWatch::onDisconnect(int handle, unsigned int id, const char*) {
    current_->add({.arrived = false, .id = id, .handle = handle});
}

void BusWatch::add(const Report& report) {
    {
        const std::lock_guard lock(mutex_);
        reports_.push_back(report);
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeUp_, &one, sizeof one);
}

std::vector<Report> BusWatch::take() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(wakeUp_, &count, sizeof count);
    const std::lock_guard lock(mutex_);
    return std::exchange(reports_, {});
}

BusWatch::BusWatch(unsigned int pollMilliseconds)
    : wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , connect_{GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onConnect}
    , disconnect_{GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, onDisconnect} {
    if (wakeUp_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    current_ = this;
    check("event handlers", GVUSB_AddEventHandler(0, &connect_));
    check("event handlers", GVUSB_AddEventHandler(0, &disconnect_));

    const std::string mode = readParameter("driver", GVUSB_DRIVER, "HOTPLUG-MODE");
    if (mode == "2") {
        manner_ = "by libusb's events (hot-plug mode 2)";
        events_.emplace();
        return;
    }
    const std::string microseconds = std::to_string(std::uint64_t{pollMilliseconds} * 1000);
    check("driver: HOTPLUG-UPDATERATE",
          GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", microseconds.c_str()));
    check("driver: HOTPLUG-SUSPEND", GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"));
    manner_ = "by polling every " + std::to_string(pollMilliseconds) + " ms (hot-plug mode " + mode +
              (mode == "1" ? ")" : ", which reports nothing by itself)");
}

BusWatch::~BusWatch() {
    // Waits for a handler that is running.
    GVUSB_DelEventHandler(0, &connect_);
    GVUSB_DelEventHandler(0, &disconnect_);
    events_.reset();
    ::close(wakeUp_);
}

// Build a new manager in place of the global one, with the stand-in for libusb, and discard the log.
#pragma once

#include "configuration_file.h"
#include "expect.h"
#include "fake_libusb.h"
#include "manager/gvdrvhnd.h"
#include "worker_sleep.h"

#include <cstdio>
#include <new>
#include <string>

namespace fuzz {

inline void discardStdout() {
    static const bool discarded = std::freopen("/dev/null", "w", stdout) != nullptr;
    expect(discarded, "standard output goes to /dev/null");
}

inline void expectNoMisuse() {
    std::string text;
    for (const std::string& misuse : fake_libusb::misuses()) {
        text += misuse + "\n";
    }
    expectEmpty(text, "libusb is misused");
}

// Empty the bus, free unplugged devices and stop recording calls.
inline void clearBus() {
    fake_libusb::reset();
    fake_libusb::forgetDead();
    fake_libusb::recordNothing();
}

inline bool& managerExists() {
    static bool exists = true;
    return exists;
}

// The previous manager must be destroyed.
inline void buildManager(const std::string& configuration) {
    clearBus();
    support::setConfigurationText(configuration);
    new (&g_GvUsbMan) GVDrvHnd;
    managerExists() = true;
}

// The process destroys the global manager when it exits, so one must exist.
inline void buildManagerAtExit() {
    static const struct Builder {
        ~Builder() {
            if (!managerExists()) {
                buildManager("nopnp");
            }
        }
    } builder;
}

inline void destroyManager() {
    if (!managerExists()) {
        return;
    }
    buildManagerAtExit();
    g_GvUsbMan.~GVDrvHnd();
    managerExists() = false;
    expectEmpty(fake_libusb::leftovers(), "leaked");
    expectNoMisuse();
}

// Make the worker sleep, so that it does not poll. When the process exits, destroy the manager and end the sleep.
inline void putWorkerToSleep() {
    buildManagerAtExit();
    static struct Sleeping {
        ~Sleeping() { destroyManager(); }
        support::SteeredSleep sleep;
    } sleeping;
}

} // namespace fuzz

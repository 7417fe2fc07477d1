// The manager of a fuzz target: built anew in the place of the global one, on the stand-in for libusb, and with
// standard output, which the log goes to, out of the way.
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

// An empty bus; nothing is recorded, and nothing is kept of what is gone.
inline void clearBus() {
    fake_libusb::reset();
    fake_libusb::forgetDead();
    fake_libusb::recordNothing();
}

inline bool& managerLives() {
    static bool lives = true;
    return lives;
}

// For the place of a manager that is destroyed.
inline void buildManager(const std::string& configuration) {
    clearBus();
    support::setConfigurationText(configuration);
    new (&g_GvUsbMan) GVDrvHnd;
    managerLives() = true;
}

// The program's end destroys the global manager: what has no manager by then gets one before.
inline void buildManagerAtExit() {
    static const struct Builder {
        ~Builder() {
            if (!managerLives()) {
                buildManager("nopnp");
            }
        }
    } builder;
}

inline void destroyManager() {
    if (!managerLives()) {
        return;
    }
    buildManagerAtExit();
    g_GvUsbMan.~GVDrvHnd();
    managerLives() = false;
    expectEmpty(fake_libusb::leftovers(), "left over");
    expectNoMisuse();
}

// From now on the worker sleeps and never polls. Before the program's end it goes, with its manager.
inline void putWorkerToSleep() {
    buildManagerAtExit();
    static struct Sleeping {
        ~Sleeping() { destroyManager(); }
        support::SteeredSleep sleep;
    } sleeping;
}

} // namespace fuzz

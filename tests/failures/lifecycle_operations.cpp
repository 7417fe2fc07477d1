// Unloading and loading, in each hot-plug mode. Loading never fails: without libusb the library finds no
// readers, and without its callbacks it reports no events.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

#include "allocation_failure.h"
#include "fake_libusb.h"
#include "manager/gvdrvhnd.h"

#include <new>
#include <string_view>
#include <thread>

namespace failures {
namespace {

void reloadHere() {
    g_GvUsbMan.~GVDrvHnd();
    new (&g_GvUsbMan) GVDrvHnd;
}

// The manager destroys a locked mutex, which the thread sanitizer counts as held by the thread until the
// thread ends, so use a separate thread. Planned allocation failures affect only this thread, so stay in it
// if they are possible. Returns the number of registered callbacks.
int reload() {
    if (support::allocationsAreWatched) {
        reloadHere();
    } else {
        std::thread(reloadHere).join();
    }
    return fake_libusb::registeredCallbacks();
}

Outcome withoutCallbacks(const Failing& /*failing*/) {
    return {.lastError = 0, .scanned = std::vector<unsigned>()};
}

Outcome withCallbacks(const Failing& failing) {
    int callbacks = 0;
    for (const std::size_t nth : {1u, 2u}) {
        const bool registered =
            !failing.fails("libusb_init") && !failing.fails("libusb_hotplug_register_callback", "", nth);
        callbacks += registered ? 1 : 0;
    }
    return {.result = callbacks, .lastError = 0, .scanned = std::vector<unsigned>()};
}

Operation reloadIn(const char* name, const char* configuration, Outcome (*outcome)(const Failing&)) {
    return {.name = name,
            .prepare = exchanging,
            .run = reload,
            .outcome = outcome,
            .configuration = configuration,
            .polls = std::string_view(configuration).starts_with("gvusb_hotplug=1")};
}

} // namespace

std::vector<Operation> lifecycleOperations() {
    return {
        reloadIn("reloadOff", "gvusb_hotplug=0", withoutCallbacks),
        reloadIn("reloadPolling", "gvusb_hotplug=1", withoutCallbacks),
        reloadIn("reloadCallbacks", "gvusb_hotplug=2", withCallbacks),
        reloadIn("reloadPollingWithLog", "gvusb_hotplug=1 gvusb_debuglevel=3", withoutCallbacks),
        reloadIn("reloadCallbacksWithLog", "gvusb_hotplug=2 gvusb_debuglevel=3", withCallbacks),
    };
}

} // namespace failures

// Programs of library calls, bus events, failures, polls and deliveries, from arbitrary bytes: whatever their
// order, what the manager promises holds after each step, and at the end nothing is left over.
//
// With GVUSB_FUZZ_TELL in the environment the program tells at its end how often each instruction was run.

#include "call_sequences_attempt.h"
#include "configuration_file.h"
#include "worker_sleep.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

namespace fake = fake_libusb;
using namespace call_sequences;

namespace {

constexpr int mostSteps = 200;
constexpr int lastHandleCount = 0x0FFFFFFF;

// The programs poll themselves: the worker, whose sleep ends it, would do so at any time.
void load() {
    support::setConfigurationText("gvusb_hotplug=2");
    const support::SteeredSleep sleep;
    new (&g_GvUsbMan) GVDrvHnd;
    pthread_cancel(g_GvUsbMan.m_Thread);
    pthread_join(g_GvUsbMan.m_Thread, nullptr);
    g_GvUsbMan.m_bThreadStarted = false;
}

// In a thread of its own: the manager goes with a mutex held, and the thread sanitizer counts that against the
// thread as long as it lives.
void unload() {
    std::thread([] { g_GvUsbMan.~GVDrvHnd(); }).join();
}

void prepareOnce() {
    static const bool prepared = [] {
        // The log is written for nobody.
        expect(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null cannot be opened");
        if (std::getenv("GVUSB_FUZZ_TELL") != nullptr) {
            std::atexit(tellInstructions);
        }
        fake::reset();
        unload();
        load();
        return true;
    }();
    static_cast<void>(prepared);
}

void startHandlesAt(int count) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    g_GvUsbMan.m_iHandleCounter = count;
}

// As an application would, all but the bus.
void giveEverythingBack(Session& session) {
    setPresentStep("giving everything back");
    while (const int devHnd = GVUSB_GetDeviceList(0)) {
        expectEqual(GVUSB_CloseDevice(devHnd), 0, "the result of closing");
    }
    for (const auto& [event, handler] : session.model.registrations) {
        GVUSB_EVENT_INIT registration = {event, 0, GVUSB_CALLBACK_FUNCTION, 0, handler};
        expectEqual(GVUSB_DelEventHandler(0, &registration), 0, "the result of removing a handler");
    }
    for (const Device& device : session.bus.devices()) {
        if (device.plugged) {
            fake::unplug(device.name);
        }
    }
    // Forgets what was reported and which entry is the current one.
    expectEqual(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), int{GVUSB_ERR_NO_DEVICE_FOUND}, "the last scan");
    expectEqual(GVUSB_GetScanListSize(), 0, "the size of the scan list");
}

void expectNothingLeft() {
    const std::string leftovers = fake::leftovers();
    if (!leftovers.empty()) {
        broken("left over: " + leftovers);
    }
    const std::vector<std::string> misuses = fake::misuses();
    if (!misuses.empty()) {
        broken("libusb is misused: " + misuses.front());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    prepareOnce();
    fake::reset();
    fake::recordNothing();
    Input input({data, size});
    const std::uint8_t manner = input.byte();
    const bool unloads = (manner & 0x07) == 0x07;
    startHandlesAt((manner & 0x08) != 0 ? lastHandleCount - 3 : 0);

    Session session(input);
    present = &session;
    for (int step = 0; step < mostSteps && !session.input.atEnd(); ++step) {
        runInstruction(session);
    }

    GVLOG_SetLevel(0);
    session.bus.stopFailing();
    fake::setEventsHandled(false);
    if (unloads) {
        setPresentStep("unloading");
        unload();
        expectNothingLeft();
        load();
    } else {
        giveEverythingBack(session);
        expectNothingLeft();
    }
    present = nullptr;
    return 0;
}

// Interpret arbitrary bytes as a program of library calls, bus events, failures, polls and deliveries. Compare the
// manager with a model after each step, and check for leaks at the end.
//
// With GVUSB_FUZZ_COUNTS in the environment, the process prints how often it ran each instruction when it exits.

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

constexpr int maxSteps = 200;
constexpr int lastHandleCount = 0x0FFFFFFF;

// Build the manager and stop its worker thread, which would poll at any time. Only instructions poll.
void load() {
    support::setConfigurationText("gvusb_hotplug=2");
    const support::SteeredSleep sleep;
    new (&g_GvUsbMan) GVDrvHnd;
    pthread_cancel(g_GvUsbMan.m_Thread);
    pthread_join(g_GvUsbMan.m_Thread, nullptr);
    g_GvUsbMan.m_bThreadStarted = false;
}

// Destroy the manager in a separate thread, because the destructor leaves a mutex locked. The thread sanitizer attributes the lock to
// the thread until the thread exits.
void unload() {
    std::thread([] { g_GvUsbMan.~GVDrvHnd(); }).join();
}

void prepareOnce() {
    static const bool prepared = [] {
        expect(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null cannot be opened");
        if (std::getenv("GVUSB_FUZZ_COUNTS") != nullptr) {
            std::atexit(printInstructionCounts);
        }
        fake::reset();
        unload();
        load();
        return true;
    }();
    static_cast<void>(prepared);
}

void setHandleCounter(int count) {
    const MutexLock lock(g_GvUsbMan.m_mtxDevList);
    g_GvUsbMan.m_iHandleCounter = count;
}

// Close all readers and remove all handlers, as an application does, and unplug all readers.
void releaseEverything(Session& session) {
    setCurrentStep("release everything");
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
    // This scan resets which readers were reported and which entry is the current one.
    expectEqual(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), int{GVUSB_ERR_NO_DEVICE_FOUND}, "the last scan");
    expectEqual(GVUSB_GetScanListSize(), 0, "the size of the scan list");
}

void expectNoLeaks() {
    const std::string leftovers = fake::leftovers();
    if (!leftovers.empty()) {
        fail("leaked: " + leftovers);
    }
    const std::vector<std::string> misuses = fake::misuses();
    if (!misuses.empty()) {
        fail("libusb is misused: " + misuses.front());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    prepareOnce();
    fake::reset();
    fake::recordNothing();
    Input input({data, size});
    const std::uint8_t flags = input.byte();
    const bool unloads = (flags & 0x07) == 0x07;
    setHandleCounter((flags & 0x08) != 0 ? lastHandleCount - 3 : 0);

    Session session(input);
    currentSession = &session;
    for (int step = 0; step < maxSteps && !session.input.atEnd(); ++step) {
        runInstruction(session);
    }

    GVLOG_SetLevel(0);
    session.bus.stopFailing();
    fake::setEventsHandled(false);
    if (unloads) {
        setCurrentStep("unload");
        unload();
        expectNoLeaks();
        load();
    } else {
        releaseEverything(session);
        expectNoLeaks();
    }
    currentSession = nullptr;
    return 0;
}

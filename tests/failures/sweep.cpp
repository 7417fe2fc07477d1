#include "sweep.h"

#include "list_invariants.h"
#include "situations.h"

#include "allocation_failure.h"
#include "configuration_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>
#include <thread>
#include <utility>

#include <gmock/gmock.h>

namespace fake = fake_libusb;

namespace failures {
namespace {

using Events = std::vector<std::string>;

// A nonzero last error shows whether the operation stores one.
void begin(const Operation& operation) {
    forgetSituation();
    support::setConfigurationText(operation.configuration);
    manager_lists::reload();
    fake::forgetDead(); // which thousands of situations would leave behind
    fake::recordNothing();
    operation.prepare();
    g_GvUsbMan.SetLastError(earlierError);
}

int storedError(int devHnd) {
    int code = 0;
    char text[GVUSB_TEXT_SIZE] = {};
    GVUSB_GetLastError(devHnd, &code, text);
    return code;
}

void expectOutcome(const Outcome& expected, int result) {
    if (expected.handleOf != 0) {
        EXPECT_GT(result, 0);
        EXPECT_EQ(result, handleOf(expected.handleOf));
    } else {
        EXPECT_EQ(result, expected.result);
    }
    EXPECT_EQ(storedError(0), expected.lastError.value_or(std::min(expected.result, 0)));
    if (expected.reader != 0) {
        EXPECT_EQ(storedError(handleOf(expected.reader)), expected.readerError);
    }
    if (expected.scanned) {
        EXPECT_THAT(manager_lists::deviceIds(manager_lists::scanList()),
                    testing::ElementsAreArray(*expected.scanned));
    }
}

struct NamedMutex {
    const char* name;
    Mutex* mutex;
};

std::vector<NamedMutex> mutexesOfManager() {
    return {{"the scan-list mutex", &g_GvUsbMan.m_mtxScanList},
            {"the device-list mutex", &g_GvUsbMan.m_mtxDevList},
            {"the mutex of the registrations", &g_MtxEvtInitAry}};
}

std::vector<NamedMutex> mutexesOfReaders() {
    std::vector<NamedMutex> mutexes;
    for (const manager_lists::Devices& list : {manager_lists::scanList(), manager_lists::deviceList()}) {
        for (GVDevice* const device : list) {
            if (device != nullptr) {
                mutexes.push_back({"a reader's mutex", &device->mutex});
            }
        }
    }
    return mutexes;
}

// Lock each mutex in another thread. A locked mutex would hang the next operation, so report it and end the
// program.
void requireFree(const std::vector<NamedMutex>& mutexes, const std::string& failure) {
    std::thread([&] {
        for (const auto& [name, mutex] : mutexes) {
            if (!mutex->tryLock()) {
                std::fprintf(stderr, "%s: %s is still held\n", failure.c_str(), name);
                std::abort();
            }
            mutex->unlock();
        }
    }).join();
}

void requireEveryMutexFree(const std::string& failure) {
    requireFree(mutexesOfManager(), failure);
    requireFree(mutexesOfReaders(), failure);
}

// Everything acquired from libusb must belong to a record in a list.
void expectNothingHeldOrLost() {
    manager_lists::expectConsistentLists(deviceNames());
    std::istringstream leftovers(fake::leftovers());
    for (std::string line; std::getline(leftovers, line);) {
        EXPECT_EQ(line.find("not freed"), std::string::npos) << line;
        EXPECT_FALSE(line.starts_with("events lock")) << line;
    }
    EXPECT_EQ(fake::misuses(), std::vector<std::string>());
}

void tryAgain(const Operation& operation, Events events) {
    SCOPED_TRACE("tried again");
    operation.restore();
    takeEvents();
    g_GvUsbMan.SetLastError(earlierError);
    const int result = operation.run();
    const Outcome expected = operation.outcome(Failing());
    const Events later = takeEvents();
    expectOutcome(expected, result);
    expectNothingHeldOrLost();
    events.insert(events.end(), later.begin(), later.end());
    requireEveryMutexFree("after the second try");
    operation.settled(events);
    expectEverythingWorks();
}

} // namespace

Trace callsOf(const Operation& operation) {
    begin(operation);
    const TraceRecorder recorder;
    operation.run();
    return recorder.trace();
}

void runWithFailure(const Operation& operation, const Failing& failing, std::size_t n, int logLevel) {
    SCOPED_TRACE(failing.text());
    begin(operation);
    GVLOG_SetLevel(logLevel);
    int result = 0;
    {
        std::optional<LastingFailure> lasting;
        if (failing.lasts()) {
            lasting.emplace(n, failing.code());
        } else {
            fake::failCall(n, failing.code());
        }
        result = operation.run();
        EXPECT_TRUE(fake::failurePlayed());
    }
    fake::stopFailing();
    GVLOG_SetLevel(0);
    requireEveryMutexFree(failing.text());
    const Outcome expected = operation.outcome(failing);
    const Events events = takeEvents();
    expectOutcome(expected, result);
    if (expected.events) {
        EXPECT_THAT(events, testing::ElementsAreArray(*expected.events));
    }
    expectNothingHeldOrLost();
    tryAgain(operation, events);
}

// Some functions run neither callbacks nor cancellation points. What an exception from event handling leaves behind is another
// test's subject.
bool mayThrow(std::string_view function) {
    constexpr std::string_view excluded[] = {
        "libusb_alloc_transfer",         "libusb_close",
        "libusb_free_config_descriptor", "libusb_free_device_list",
        "libusb_free_transfer",          "libusb_get_bus_number",
        "libusb_get_device_address",     "libusb_handle_events_completed",
        "libusb_release_interface",      "libusb_unref_device"};
    return std::ranges::find(excluded, function) == std::end(excluded);
}

bool runWithException(const Operation& operation, std::size_t n) {
    struct Thrown {};
    const std::string failure = "libusb call " + std::to_string(n) + " throws";
    SCOPED_TRACE(failure);
    begin(operation);
    const std::thread::id caller = std::this_thread::get_id();
    std::size_t calls = 0;
    fake::setHook([&](std::string_view function, std::string_view) {
        if (std::this_thread::get_id() == caller && mayThrow(function) && ++calls == n) {
            throw Thrown();
        }
    });
    bool passed = false;
    try {
        operation.run();
    } catch (const Thrown&) {
        passed = true;
    }
    fake::setHook({});
    requireEveryMutexFree(failure);
    EXPECT_EQ(passed, calls >= n);
    EXPECT_EQ(fake::misuses(), std::vector<std::string>());
    return calls >= n;
}

bool runOutOfMemory(const Operation& operation, std::size_t n, int logLevel) {
    const std::string failure =
        "allocation " + std::to_string(n) + " fails at log level " + std::to_string(logLevel);
    SCOPED_TRACE(failure);
    begin(operation);
    GVLOG_SetLevel(logLevel);
    bool happened = false;
    bool passed = false;
    int result = 0;
    {
        const auto planned = support::failAllocation(n);
        try {
            result = operation.run();
        } catch (const std::bad_alloc&) {
            passed = true;
        }
        happened = planned.happened();
    }
    GVLOG_SetLevel(0);
    requireEveryMutexFree(failure);
    EXPECT_TRUE(happened || !passed);
    const Events events = takeEvents();
    // An operation that does not need the memory has its usual outcome.
    if (!passed) {
        const Outcome expected = operation.outcome(Failing());
        expectOutcome(expected, result);
        if (expected.events && !(operation.mayLoseEvents && happened)) {
            EXPECT_THAT(events, testing::ElementsAreArray(*expected.events));
        }
    }
    expectNothingHeldOrLost();
    tryAgain(operation, events);
    return happened;
}

} // namespace failures

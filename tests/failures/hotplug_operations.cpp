// The poll and libusb's two callbacks. They return nothing and do not change the last error, so check their
// reports and the lists.
#include "expected_codes.h"
#include "operations.h"
#include "situations.h"

#include "manager_lists.h"
#include "waiting.h"

#include <algorithm>

namespace fake = fake_libusb;

namespace failures {
namespace {

using Events = std::vector<std::string>;

constexpr const char* callbackMode = "gvusb_hotplug=2";

int poll() {
    g_GvUsbMan.UpdateDevices();
    return 0;
}

std::string disconnect(int devHnd, unsigned devId) {
    return "disconnect hnd=" + manager_lists::hex(static_cast<unsigned>(devHnd)) +
           " id=" + manager_lists::hex(devId);
}

std::string connect(unsigned devId) {
    return "connect hnd=0 id=" + manager_lists::hex(devId);
}

Outcome reports(Events events) {
    return {.lastError = earlierError, .events = std::move(events)};
}

void listening(void (*prepare)()) {
    prepare();
    listenForEvents();
}

// The present readers, from the given one on, whose descriptors a poll cannot read. The poll considers them
// unplugged.
Events missed(const Failing& failing, int from = 0) {
    Events events;
    for (int i = from; i < 3; ++i) {
        if (isMissed(failing, "dev" + std::to_string(i + 1))) {
            events.push_back(disconnect(firstHandle + i, bulkId + static_cast<unsigned>(i)));
        }
    }
    return events;
}

Events firstIsGone(const Failing& failing, int devHnd) {
    Events events = missed(failing, 1);
    events.insert(events.begin(), disconnect(devHnd, bulkId));
    return events;
}

Outcome unchangedOf(const Failing& failing) {
    return reports(missed(failing));
}

Outcome newcomerOf(const Failing& failing) {
    Events events = missed(failing);
    if (!staysUnidentified(failing, "dev5")) {
        events.push_back(connect(newcomerId));
    }
    return reports(events);
}

void reportedNewcomer(const Events& events) {
    EXPECT_EQ(std::ranges::count(events, connect(newcomerId)), 1);
}

Outcome allNewOf(const Failing& failing) {
    Events events;
    for (unsigned i = 0; i < 3; ++i) {
        if (!staysUnidentified(failing, "dev" + std::to_string(i + 1))) {
            events.push_back(connect(bulkId + i));
        }
    }
    return reports(events);
}

void reportedAllNew(const Events& events) {
    for (const unsigned devId : {bulkId, kernelDriverId, controlId}) {
        EXPECT_EQ(std::ranges::count(events, connect(devId)), 1) << devId;
    }
}

Outcome vanishedOf(const Failing& failing) {
    return reports(firstIsGone(failing, firstHandle));
}

void reportedVanished(const Events& events) {
    EXPECT_EQ(std::ranges::count(events, disconnect(firstHandle, bulkId)), 1);
}

// A poll reports a reader that came back as disconnected, whether or not its new record replaces the old one.
// Only an open reader passes its handle on to the new record.
Outcome reconnectedOf(const Failing& failing, bool wasOpen) {
    const bool replaced = !staysUnidentified(failing, "dev4", 2);
    return reports(firstIsGone(failing, replaced && !wasOpen ? firstHandle + 3 : firstHandle));
}

void recordIsRenewed(const Events& /*events*/) {
    EXPECT_EQ(manager_lists::scanList().at(0)->usbdev, fake::device("dev4"));
}

// The callback may queue the report for another thread, which keeps the device until it is done.
template <int (*fire)(std::string_view, fake::Delivery), fake::Delivery delivery>
int deliver() {
    EXPECT_EQ(fire("dev1", delivery), 1);
    EXPECT_TRUE(waiting::eventually([] { return fake::references("dev1") == 0; }));
    return 0;
}

bool cannotBeRead(const Failing& failing) {
    return failing.fails("libusb_open") || failing.fails("libusb_get_string_descriptor_ascii");
}

Outcome queuedArrivalOf(const Failing& failing) {
    return reports(cannotBeRead(failing) ? Events{} : Events{connect(bulkId)});
}

// A read that fails with BUSY, as in libusb's event handling, is repeated once.
Outcome arrivalOf(const Failing& failing) {
    const bool readLater = failing.code() == LIBUSB_ERROR_BUSY && !failing.lasts();
    return reports(cannotBeRead(failing) && !readLater ? Events{} : Events{connect(bulkId)});
}

Outcome departureOf(const Failing& /*failing*/) {
    return reports({disconnect(0, 0)});
}

constexpr auto inside = fake::Delivery::insideEventHandling;
constexpr auto outside = fake::Delivery::plain;

} // namespace

std::vector<Operation> hotPlugOperations() {
    return {
        {.name = "pollUnchanged",
         .prepare = [] { listening(exchanging); },
         .run = poll,
         .outcome = unchangedOf},
        {.name = "pollUnscanned",
         .prepare = [] { listening(plugged); },
         .run = poll,
         .outcome = allNewOf,
         .settled = reportedAllNew},
        {.name = "pollArrival",
         .prepare =
             [] {
                 listening([] {
                     exchanging();
                     plugNewcomer();
                 });
             },
         .run = poll,
         .outcome = newcomerOf,
         .settled = reportedNewcomer},
        {.name = "pollVanished",
         .prepare = [] { listening(unplugged); },
         .run = poll,
         .outcome = vanishedOf,
         .settled = reportedVanished},
        {.name = "pollReconnectedClosed",
         .prepare = [] { listening(closedReplugged); },
         .run = poll,
         .outcome = [](const Failing& failing) { return reconnectedOf(failing, false); },
         .settled = recordIsRenewed},
        {.name = "pollReconnectedOpen",
         .prepare = [] { listening(openReplugged); },
         .run = poll,
         .outcome = [](const Failing& failing) { return reconnectedOf(failing, true); },
         .settled = recordIsRenewed},
        {.name = "arrival",
         .prepare = [] { listening(plugged); },
         .run = deliver<fake::fireArrived, outside>,
         .outcome = arrivalOf,
         .configuration = callbackMode,
         .mayLoseEvents = true},
        {.name = "arrivalInsideEventHandling",
         .prepare = [] { listening(plugged); },
         .run = deliver<fake::fireArrived, inside>,
         .outcome = queuedArrivalOf,
         .configuration = callbackMode,
         .mayLoseEvents = true},
        {.name = "departure",
         .prepare = [] { listening(plugged); },
         .run = deliver<fake::fireLeft, outside>,
         .outcome = departureOf,
         .configuration = callbackMode,
         .callsLibusb = false,
         .mayLoseEvents = true},
        {.name = "departureInsideEventHandling",
         .prepare = [] { listening(plugged); },
         .run = deliver<fake::fireLeft, inside>,
         .outcome = departureOf,
         .configuration = callbackMode,
         .callsLibusb = false,
         .mayLoseEvents = true},
    };
}

} // namespace failures

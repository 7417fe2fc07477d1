#include "manager/event_handlers.h"

#include "allocation_failure.h"
#include "manager_lists.h"
#include "manager_test.h"
#include "mutex_probe.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using manager_lists::lastError;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Fired {
    char handler;
    int devHnd;
    unsigned int devId;
    std::string text;
    bool operator==(const Fired&) const = default;
};

std::vector<Fired> fired;
bool heldWhileRunning = false;

template <char Name>
void handler(int devHnd, unsigned int devId, const char* text) {
    fired.push_back({Name, devHnd, devId, text == nullptr ? "null" : text});
    heldWhileRunning = support::isHeld(g_MtxEvtInitAry);
}

void throwingHandler(int, unsigned int, const char*) {
    throw std::runtime_error("from a handler");
}

void lockAgain() {
    pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(&g_MtxEvtInitAry));
}

GVUSB_EVENT_INIT registration(unsigned int event, GVUSB_EventCallback callback, unsigned int type = 3) {
    return {event, 0, type, 0, callback};
}

struct Known {
    unsigned int event;
    unsigned int type;
    GVUSB_EventCallback callback;
    bool operator==(const Known&) const = default;
};

std::vector<Known> registrations() {
    const MutexLock lock(g_MtxEvtInitAry);
    std::vector<Known> all;
    for (const auto* each : g_EvtInitAry) {
        all.push_back({each->uiEvent, each->uiCallbackType, each->cbFct});
    }
    return all;
}

class EventHandlersTest : public ManagerTest {
protected:
    EventHandlersTest() {
        fired.clear();
        heldWhileRunning = false;
        g_GvUsbMan.SetLastError(-1199);
    }
    ~EventHandlersTest() override { EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry)); }

    static int add(GVUSB_EVENT_INIT record, int devHnd = 0) {
        return g_GvUsbMan.AddEventHandler(devHnd, &record);
    }
    static int remove(GVUSB_EVENT_INIT record, int devHnd = 0) {
        return g_GvUsbMan.DelEventHandler(devHnd, &record);
    }
    static std::vector<Fired> fire(unsigned int event, int devHnd = 0, unsigned int devId = 0) {
        fired.clear();
        GVDrvHnd::ExecEventInitListCallbacks(event, devHnd, devId);
        return fired;
    }
};

} // namespace

TEST_F(EventHandlersTest, OnlyHandleZeroAcceptsHandlers) {
    for (const int devHnd : {1, -1, 0x10000001}) {
        EXPECT_EQ(add(registration(1, handler<'a'>), devHnd), -1106);
        EXPECT_EQ(lastError(), -1106);
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(remove(registration(1, handler<'a'>), devHnd), -1106);
        EXPECT_EQ(lastError(), -1106);
    }
    EXPECT_EQ(add(registration(1, handler<'a'>, 4), 1), -1106); // the handle is checked first
    EXPECT_THAT(registrations(), IsEmpty());
}

TEST_F(EventHandlersTest, OnlyCallbackFunctionsAreAccepted) {
    for (const unsigned int type : {0u, 1u, 2u, 4u, 0xFFFFFFFFu}) {
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(add(registration(1, handler<'a'>, type)), -1150) << type;
        EXPECT_EQ(lastError(), -1150) << type;
    }
    EXPECT_THAT(registrations(), IsEmpty());
}

TEST_F(EventHandlersTest, RegistrationsAreKeptInOrder) {
    EXPECT_EQ(add(registration(1, handler<'b'>)), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_EQ(add(registration(2, handler<'a'>)), 0);
    EXPECT_EQ(add(registration(1, handler<'a'>)), 0);
    EXPECT_THAT(registrations(),
                ElementsAre(Known{1, 3, handler<'b'>}, Known{2, 3, handler<'a'>}, Known{1, 3, handler<'a'>}));
}

TEST_F(EventHandlersTest, TheSameRegistrationIsKeptOnce) {
    GVUSB_EVENT_INIT again = registration(1, handler<'a'>);
    again.uiReserved1 = 5;
    again.uiReserved2 = 6;
    EXPECT_EQ(add(registration(1, handler<'a'>)), 0);
    g_GvUsbMan.SetLastError(-1199);
    EXPECT_EQ(add(again), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(registrations(), ElementsAre(Known{1, 3, handler<'a'>}));
    EXPECT_EQ(remove(again), 0);
    EXPECT_EQ(lastError(), 0);
    EXPECT_THAT(registrations(), IsEmpty());
    EXPECT_EQ(remove(again), -1150);
    EXPECT_EQ(lastError(), -1150);
}

TEST_F(EventHandlersTest, RegistrationIsACopy) {
    GVUSB_EVENT_INIT record = registration(1, handler<'a'>);
    ASSERT_EQ(GVUSB_AddEventHandler(0, &record), 0);
    record = registration(2, handler<'b'>);
    EXPECT_THAT(registrations(), ElementsAre(Known{1, 3, handler<'a'>}));
}

TEST_F(EventHandlersTest, OneHandlerMayServeBothEvents) {
    add(registration(1, handler<'a'>));
    add(registration(2, handler<'a'>));
    EXPECT_EQ(remove(registration(1, handler<'a'>)), 0);
    EXPECT_THAT(registrations(), ElementsAre(Known{2, 3, handler<'a'>}));
    EXPECT_EQ(remove(registration(2, handler<'a'>)), 0);
    EXPECT_THAT(registrations(), IsEmpty());
}

TEST_F(EventHandlersTest, RemovingNeedsTheSameEventCallbackAndType) {
    add(registration(1, handler<'a'>));
    for (const auto& other : {registration(2, handler<'a'>), registration(1, handler<'b'>),
                              registration(1, nullptr), registration(1, handler<'a'>, 2)}) {
        g_GvUsbMan.SetLastError(0);
        EXPECT_EQ(remove(other), -1150);
        EXPECT_EQ(lastError(), -1150);
    }
    EXPECT_THAT(registrations(), ElementsAre(Known{1, 3, handler<'a'>}));
}

TEST_F(EventHandlersTest, RemovingKeepsTheOrderOfTheOthers) {
    add(registration(1, handler<'a'>));
    add(registration(1, handler<'b'>));
    add(registration(1, handler<'c'>));
    add(registration(1, handler<'d'>));
    EXPECT_EQ(remove(registration(1, handler<'b'>)), 0);
    EXPECT_THAT(registrations(),
                ElementsAre(Known{1, 3, handler<'a'>}, Known{1, 3, handler<'c'>}, Known{1, 3, handler<'d'>}));
}

TEST_F(EventHandlersTest, ListFunctionsReportWhetherTheyChangedSomething) {
    GVUSB_EVENT_INIT record = registration(1, handler<'a'>);
    EXPECT_TRUE(GVDrvHnd::AddToEventInitList(&record));
    EXPECT_FALSE(GVDrvHnd::AddToEventInitList(&record));
    EXPECT_TRUE(GVDrvHnd::RemoveFromEventInitList(&record));
    EXPECT_FALSE(GVDrvHnd::RemoveFromEventInitList(&record));
    GVDrvHnd::AddToEventInitList(&record);
    GVDrvHnd::ClearEventInitList();
    EXPECT_THAT(registrations(), IsEmpty());
    GVDrvHnd::ClearEventInitList();
    EXPECT_EQ(lastError(), -1199);
}

TEST_F(EventHandlersTest, HandlersOfTheEventFireInOrderOfRegistration) {
    add(registration(1, handler<'c'>));
    add(registration(2, handler<'a'>));
    add(registration(1, handler<'b'>));
    EXPECT_THAT(fire(1, 0x10000001, 0x1A2B3C),
                ElementsAre(Fired{'c', 0x10000001, 0x1A2B3C, ""}, Fired{'b', 0x10000001, 0x1A2B3C, ""}));
    EXPECT_THAT(fire(2, 0, 0xFFFFFFFF), ElementsAre(Fired{'a', 0, 0xFFFFFFFF, ""}));
}

TEST_F(EventHandlersTest, NothingFiresWithoutHandlers) {
    EXPECT_THAT(fire(1), IsEmpty());
    add(registration(2, handler<'a'>));
    EXPECT_THAT(fire(1), IsEmpty());
}

TEST_F(EventHandlersTest, OtherEventsAreStoredButNeverFire) {
    for (const unsigned int event : {0u, 3u, 0xFFFFFFFFu}) {
        EXPECT_EQ(add(registration(event, handler<'a'>)), 0);
        EXPECT_THAT(fire(event), IsEmpty()) << event;
    }
    EXPECT_EQ(registrations().size(), 3u);
    EXPECT_THAT(fire(1), IsEmpty());
    EXPECT_THAT(fire(2), IsEmpty());
    EXPECT_EQ(remove(registration(3, handler<'a'>)), 0);
}

TEST_F(EventHandlersTest, NullCallbackIsStoredAndSkipped) {
    EXPECT_EQ(add(registration(1, nullptr)), 0);
    EXPECT_EQ(add(registration(1, nullptr)), 0);
    EXPECT_EQ(add(registration(1, handler<'a'>)), 0);
    EXPECT_EQ(registrations().size(), 2u);
    EXPECT_THAT(fire(1, 0, 7), ElementsAre(Fired{'a', 0, 7, ""}));
    EXPECT_EQ(remove(registration(1, nullptr)), 0);
    EXPECT_EQ(registrations().size(), 1u);
}

TEST_F(EventHandlersTest, RecordOfAnotherTypeDoesNotFire) {
    add(registration(1, handler<'a'>));
    add(registration(1, handler<'b'>));
    {
        const MutexLock lock(g_MtxEvtInitAry);
        g_EvtInitAry[0]->uiCallbackType = 4;
    }
    EXPECT_THAT(fire(1, 0, 7), ElementsAre(Fired{'b', 0, 7, ""}));
}

TEST_F(EventHandlersTest, RegistrationsAreLockedWhileHandlersRun) {
    add(registration(1, handler<'a'>));
    fire(1);
    EXPECT_TRUE(heldWhileRunning);
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
}

TEST_F(EventHandlersTest, HandlersMayCallTheOtherFunctions) {
    const auto calling = [](int, unsigned int, const char*) {
        char value[GVUSB_PARAMETER_SIZE];
        EXPECT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), -1112);
        EXPECT_EQ(GVUSB_GetDevicePara(-1, "HOTPLUG-MODE", value), 0);
        fired.push_back({'x', 0, 0, value});
    };
    add(registration(2, calling));
    EXPECT_THAT(fire(2), ElementsAre(Fired{'x', 0, 0, "0"}));
}

TEST_F(EventHandlersTest, ExceptionOfAHandlerPassesAndUnlocks) {
    add(registration(1, handler<'a'>));
    add(registration(1, throwingHandler));
    add(registration(1, handler<'b'>));
    EXPECT_THROW(GVDrvHnd::ExecEventInitListCallbacks(1, 0, 0), std::runtime_error);
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
    EXPECT_THAT(fired, ElementsAre(Fired{'a', 0, 0, ""}));
}

TEST_F(EventHandlersTest, EveryAccessWaitsForTheMutex) {
    GVUSB_EVENT_INIT record = registration(1, handler<'a'>);
    using manager_lists::waitsFor;
    EXPECT_TRUE(waitsFor(g_MtxEvtInitAry, [&] { GVUSB_AddEventHandler(0, &record); }));
    EXPECT_TRUE(waitsFor(g_MtxEvtInitAry, [&] { GVDrvHnd::ExecEventInitListCallbacks(1, 0, 0); }));
    EXPECT_TRUE(waitsFor(g_MtxEvtInitAry, [&] { GVUSB_DelEventHandler(0, &record); }));
    EXPECT_TRUE(waitsFor(g_MtxEvtInitAry, [] { GVDrvHnd::ClearEventInitList(); }));
}

TEST_F(EventHandlersTest, OutOfMemoryLeavesTheListAsItWas) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    bool added = false;
    for (unsigned int event = 10; event < 20; ++event) { // the list grows at some of these
        added = false;
        for (std::size_t n = 1; !added; ++n) {
            ASSERT_LT(n, 20u);
            GVUSB_EVENT_INIT record = registration(event, handler<'a'>);
            const auto before = registrations();
            const auto failure = support::failAllocation(n);
            try {
                EXPECT_EQ(GVUSB_AddEventHandler(0, &record), 0);
                added = true;
            } catch (const std::bad_alloc&) {
            }
            const support::AllocationPause pause;
            EXPECT_NE(added, failure.happened());
            EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
            if (!added) {
                EXPECT_EQ(registrations(), before);
            }
        }
    }
    EXPECT_EQ(registrations().size(), 10u);
}

TEST_F(EventHandlersTest, LeavingAHandlerForExitLetsNoOtherRun) {
    add(registration(1, [](int, unsigned int, const char*) {
        leaveEventHandlerForExit();
        EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
        GVDrvHnd::ExecEventInitListCallbacks(2, 0, 0);
        lockAgain(); // the process would have ended here
    }));
    add(registration(2, handler<'a'>));
    EXPECT_THAT(fire(1), IsEmpty());
    EXPECT_THAT(fire(2), IsEmpty());
    allowEventHandlers();
    EXPECT_THAT(fire(2), ElementsAre(Fired{'a', 0, 0, ""}));
}

TEST_F(EventHandlersTest, LeavingForExitOutsideAHandlerChangesNothing) {
    add(registration(1, handler<'a'>));
    leaveEventHandlerForExit();
    EXPECT_EQ(fire(1).size(), 1u);
    leaveEventHandlerForExit(); // the handler has returned
    EXPECT_EQ(fire(1).size(), 1u);
    EXPECT_FALSE(support::isHeld(g_MtxEvtInitAry));
}

// Event handlers that record the events, and run the test's code inside a handler.
//
// Registered for the object's lifetime; one object at a time. Handlers may run in any thread.
#pragma once

#include "allocation_failure.h"
#include "gvusb.h"

#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace manager_lists {

class RecordedEvents {
public:
    explicit RecordedEvents(std::function<void()> inHandler = {}) {
        state() = {.events = {}, .inHandler = std::move(inHandler)};
        EXPECT_EQ(GVUSB_AddEventHandler(0, &connect_), 0);
        EXPECT_EQ(GVUSB_AddEventHandler(0, &disconnect_), 0);
    }
    ~RecordedEvents() {
        // If the manager was restarted, the handlers are no longer registered.
        GVUSB_DelEventHandler(0, &connect_);
        GVUSB_DelEventHandler(0, &disconnect_);
    }
    RecordedEvents(const RecordedEvents&) = delete;
    RecordedEvents& operator=(const RecordedEvents&) = delete;

    std::size_t count() {
        const std::lock_guard lock(mutex());
        return state().events.size();
    }

    // The events, such as "connect hnd=0 id=a1", in the order of the calls.
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex());
        return std::exchange(state().events, {});
    }

private:
    struct State {
        std::vector<std::string> events;
        std::function<void()> inHandler;
    };

    static State& state() {
        static State instance;
        return instance;
    }

    static std::mutex& mutex() {
        static std::mutex instance;
        return instance;
    }

    static void record(const char* event, int devHnd, unsigned devId, const char* text) {
        const support::AllocationPause pause;
        char line[64];
        std::snprintf(line, sizeof line, "%s hnd=%x id=%x%s", event, static_cast<unsigned>(devHnd), devId,
                      text);
        {
            const std::lock_guard lock(mutex());
            state().events.emplace_back(line);
        }
        if (state().inHandler) {
            state().inHandler();
        }
    }

    static void onConnect(int devHnd, unsigned devId, const char* text) {
        record("connect", devHnd, devId, text);
    }
    static void onDisconnect(int devHnd, unsigned devId, const char* text) {
        record("disconnect", devHnd, devId, text);
    }

    GVUSB_EVENT_INIT connect_ = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &onConnect};
    GVUSB_EVENT_INIT disconnect_ = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, &onDisconnect};
};

} // namespace manager_lists

// Holds threads up inside a call into libusb until the test lets them go on.
#pragma once

#include "fake_libusb.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace support {

class Gate {
public:
    // Hold up this function's calls for this device. Replaces the hook.
    Gate(std::string function, std::string device) {
        fake_libusb::setHook([state = m_state, function = std::move(function), device = std::move(device)](
                                 std::string_view calledFunction, std::string_view calledDevice) {
            if (calledFunction == function && calledDevice == device) {
                state->pass();
            }
        });
    }
    // Lets all threads pass.
    ~Gate() {
        open();
        fake_libusb::setHook({});
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    // Wait until a thread is held up.
    void awaitArrival() {
        std::unique_lock lock(m_state->mutex);
        m_state->changed.wait(lock, [this] { return m_state->arrived; });
    }

    void open() {
        const std::lock_guard lock(m_state->mutex);
        m_state->isOpen = true;
        m_state->changed.notify_all();
    }

private:
    struct State {
        void pass() {
            std::unique_lock lock(mutex);
            arrived = true;
            changed.notify_all();
            changed.wait(lock, [this] { return isOpen; });
        }
        std::mutex mutex;
        std::condition_variable changed;
        bool arrived = false;
        bool isOpen = false;
    };
    // Shared with calls that leave the gate after its destruction.
    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

} // namespace support

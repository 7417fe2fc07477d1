// The common part of every libusb call in the stand-in: what each function does before and after its own
// effect.
//
// A Call holds State::mutex for its whole lifetime, except while it runs hooks and unlocked actions.
#pragma once

#include "fake_libusb_state.h"

#include <chrono>
#include <concepts>

namespace fake_libusb {

// A number that is recorded in hexadecimal, such as "0x02".
struct Hexadecimal {
    unsigned value;
    int digits = 2;
};

// Runs the hook, then locks the state; records the call when it returns.
class Call {
    support::AllocationPause pause_; // first, so that it covers the other members

public:
    explicit Call(KnownFunction function, const libusb_device* device = nullptr);
    Call(KnownFunction function, const libusb_device_handle* handle);
    // Continue a call that has begun in another function.
    enum Continued { continued };
    Call(const Function& function, const libusb_device_handle* handle, Continued how);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // The planned error code of this call, if any.
    std::optional<int> failure() { return failure(function_); }
    std::optional<int> failure(const Function& function);
    // The same for a call that sweeps over all calls leave out.
    std::optional<int> failureByName() { return plannedFailure(function_); }

    // Why a call on this handle cannot reach the device: misuse, planned failure, no device.
    std::optional<int> refusal(const libusb_device_handle* handle);

    // The same for a synchronous transfer, which also fails inside event handling.
    std::optional<int> transferRefusal(const libusb_device_handle* handle);

    // Check an argument; record a wrong one as misuse and return false.
    bool usable(const libusb_device* device);
    bool usable(const libusb_device_handle* handle);
    bool usable(const libusb_context* context);
    bool given(const void* pointer, const char* what);
    void misuse(const std::string& text);

    // Wait without the mutex until the condition holds or the time is over. Return whether it holds.
    template <class Condition>
    bool waitFor(std::chrono::milliseconds time, Condition condition) {
        return state.transferChanged.wait_for(lock_, time, condition);
    }

    // Record a call that would wait for an event forever.
    void waitsForEvents();

    // Release one reference of the caller's.
    void unreference(libusb_device& device);

    // The name of the device that the call concerns, or "".
    const std::string& device() const { return device_; }

    // Run `action` without the mutex.
    template <class Action>
    auto unlocked(Action action) {
        struct Relock {
            std::unique_lock<std::mutex>& lock;
            ~Relock() { lock.lock(); }
        };
        lock_.unlock();
        const Relock relock{lock_};
        return action();
    }

    // Record the call and return its result.
    template <class Result, class... Arguments>
    Result returns(Result result, const Arguments&... arguments) {
        if (recorded()) {
            line(text(arguments)...);
            append(" = " + std::to_string(result));
        }
        return result;
    }

    template <class... Arguments>
    void done(const Arguments&... arguments) {
        if (recorded()) {
            line(text(arguments)...);
        }
    }

    State& state;

private:
    std::optional<int> plannedFailure(const Function& function);
    void begin();
    bool recorded() const;
    bool watched() const;
    void append(const std::string& end) { state.test.calls.back() += end; }

    template <class... Texts>
    void line(const Texts&... texts) {
        std::string arguments;
        ((arguments += arguments.empty() ? texts : ", " + texts), ...);
        state.test.calls.push_back(std::string(function_.name()) + "(" + arguments + ")");
    }

    static std::string text(std::integral auto number) { return std::to_string(number); }
    static std::string text(const std::string& word) { return word; }
    static std::string text(const char* word) { return word; }
    static std::string text(Hexadecimal number);
    static std::string text(const libusb_context* context) {
        return context == nullptr ? "default" : "other";
    }
    std::string text(const libusb_device* device) const;
    std::string text(libusb_device* device) const { return text(static_cast<const libusb_device*>(device)); }
    std::string text(const libusb_device_handle* handle) const;
    std::string text(libusb_device_handle* handle) const {
        return text(static_cast<const libusb_device_handle*>(handle));
    }

    Function function_;
    std::unique_lock<std::mutex> lock_;
    std::string device_;
};

} // namespace fake_libusb

// The frame of one libusb call in the stand-in: what every function does before and after its own effect.
//
// A Call holds State::mutex from its construction to its end, but for hooks and what it runs unlocked.
#pragma once

#include "fake_libusb_state.h"

#include <concepts>

namespace fake_libusb {

// A number that is recorded as "0x02".
struct Hexadecimal {
    unsigned value;
    int digits = 2;
};

// The frame of one libusb call: runs the hook, then holds the state's mutex; records the call when it
// returns.
class Call {
    support::AllocationPause pause_; // first, so that it covers all the others

public:
    explicit Call(KnownFunction function, const libusb_device* device = nullptr);
    Call(KnownFunction function, const libusb_device_handle* handle);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // The code with which this call shall fail, if it shall.
    std::optional<int> failure();

    // Why a call on this handle that reaches the device cannot take place: misuse, planned failure, no
    // device.
    std::optional<int> refusal(const libusb_device_handle* handle);

    // The same for a synchronous transfer, which besides cannot take place where events are being handled.
    std::optional<int> transferRefusal(const libusb_device_handle* handle);

    // Checks of what the caller passed; a wrong one is noted as misuse and false.
    bool usable(const libusb_device* device);
    bool usable(const libusb_device_handle* handle);
    bool usable(const libusb_context* context);
    bool given(const void* pointer, const char* what);
    void misuse(const std::string& text);

    // Notes a call that waits for an event and would wait for ever.
    void waitsForEvents();

    // Takes back one reference of the caller's.
    void unreference(libusb_device& device);

    // The name of the device that the call concerns, "" if none.
    const std::string& device() const { return device_; }

    // Runs `action` without the mutex.
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

    // Records the call and passes its result on.
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

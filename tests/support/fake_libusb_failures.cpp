// Planned failures, and the hook.

#include "fake_libusb_state.h"

#include <utility>

namespace fake_libusb {
namespace {

void plan(std::string_view function, std::size_t calls, int code, std::string_view device) {
    Access all;
    const Function wanted(function);
    if (!wanted.fallibleByName()) {
        throw std::invalid_argument(std::string(function) + " cannot fail");
    }
    all->test.failures[wanted.index()].push_back({calls, code, std::string(device)});
}

} // namespace

void failNext(std::string_view function, int code, std::string_view device) {
    plan(function, 1, code, device);
}

void failNth(std::string_view function, std::size_t n, int code, std::string_view device) {
    if (n == 0) {
        throw std::invalid_argument("calls count from 1");
    }
    plan(function, n, code, device);
}

void failAlways(std::string_view function, int code, std::string_view device) {
    plan(function, 0, code, device);
}

void failCall(std::size_t n, int code) {
    Access all;
    all->test.callsUntilFailure = n;
    all->test.callFailure = code;
}

std::size_t fallibleCalls() {
    return Access()->test.fallibleCalls;
}

bool failurePlayed() {
    return Access()->test.failurePlayed;
}

void stopFailing() {
    Access all;
    all->test.failures = {};
    all->test.callsUntilFailure = 0;
}

void setHook(Hook hook) {
    // Destroy the old hook after releasing the lock: its destructor may call libusb.
    const support::AllocationPause pause;
    auto next = hook ? std::make_shared<const Hook>(std::move(hook)) : nullptr;
    Access()->test.hook.swap(next);
}

} // namespace fake_libusb

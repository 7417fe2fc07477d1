#include "fake_libusb_call.h"

#include <cstdio>

namespace fake_libusb {
namespace {

constinit thread_local bool hookRunning = false;

template <class Key, class Value>
const Value* find(const std::unordered_map<const Key*, Value>& map, const Key* key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

} // namespace

Call::Call(KnownFunction function, const libusb_device* device)
    : state(fake_libusb::state())
    , function_(function)
    , lock_(state.mutex) {
    if (const auto* known = find(state.knownDevices, device)) {
        device_ = (*known)->name;
    }
    begin();
}

Call::Call(KnownFunction function, const libusb_device_handle* handle)
    : state(fake_libusb::state())
    , function_(function)
    , lock_(state.mutex) {
    if (const auto* known = find(state.handles, handle)) {
        device_ = (*known)->deviceName;
    }
    begin();
}

Call::Call(const Function& function, const libusb_device_handle* handle, Continued /*how*/)
    : state(fake_libusb::state())
    , function_(function)
    , lock_(state.mutex) {
    if (const auto* known = find(state.handles, handle)) {
        device_ = (*known)->deviceName;
    }
}

void Call::begin() {
    ++state.test.timesCalled[function_.index()];
    const std::shared_ptr<const Hook> hook = state.test.hook;
    if (!hook || hookRunning) {
        return;
    }
    struct Running {
        Running() { hookRunning = true; }
        ~Running() { hookRunning = false; }
    };
    try {
        unlocked([&] {
            const Running running;
            (*hook)(function_.name(), device_);
        });
    } catch (...) {
        if (recorded()) {
            state.test.calls.push_back(std::string(function_.name()) + "(" + device_ + ") threw");
        }
        throw;
    }
}

bool Call::watched() const {
    return !state.test.watched || *state.test.watched == std::this_thread::get_id();
}

bool Call::recorded() const {
    return state.test.recording && !state.test.unrecorded[function_.index()] && watched();
}

std::optional<int> Call::failure(const Function& function) {
    Test& test = state.test;
    std::optional<int> code = plannedFailure(function);
    if (!watched()) {
        return std::nullopt;
    }
    ++test.fallibleCalls;
    if (test.callsUntilFailure > 0 && --test.callsUntilFailure == 0 && !code) {
        code = test.callFailure;
    }
    test.failurePlayed = test.failurePlayed || code;
    return code;
}

std::optional<int> Call::plannedFailure(const Function& function) {
    Test& test = state.test;
    if (!watched()) {
        return std::nullopt;
    }
    std::optional<int> code;
    auto& planned = test.failures[function.index()];
    for (auto failure = planned.begin(); failure != planned.end();) {
        const bool matches = failure->device.empty() || failure->device == device_;
        // If two failures are due at one call, the one planned first occurs, and the other one at the next
        // call.
        const bool due = matches && failure->calls <= 1;
        if (matches && !due) {
            --failure->calls;
        }
        if (due && !code) {
            code = failure->code;
            failure = failure->calls == 0 ? std::next(failure) : planned.erase(failure);
        } else {
            ++failure;
        }
    }
    test.failurePlayed = test.failurePlayed || code;
    return code;
}

std::optional<int> Call::refusal(const libusb_device_handle* handle) {
    if (!usable(handle)) {
        return LIBUSB_ERROR_OTHER;
    }
    if (const auto code = failure()) {
        return code;
    }
    return handle->device->attached ? std::nullopt : std::optional<int>(LIBUSB_ERROR_NO_DEVICE);
}

std::optional<int> Call::transferRefusal(const libusb_device_handle* handle) {
    if (!usable(handle)) {
        return LIBUSB_ERROR_OTHER;
    }
    if (const auto code = failure()) {
        return code;
    }
    if (insideEventHandling()) {
        return LIBUSB_ERROR_BUSY;
    }
    waitsForEvents();
    return handle->device->attached ? std::nullopt : std::optional<int>(LIBUSB_ERROR_NO_DEVICE);
}

bool Call::usable(const libusb_device* device) {
    const auto* known = find(state.knownDevices, device);
    if (known == nullptr) {
        misuse(device == nullptr ? "a null device" : "a device that libusb never gave out");
        return false;
    }
    if ((*known)->dead) {
        misuse((*known)->name + " after its last reference was given back");
        return false;
    }
    return true;
}

bool Call::usable(const libusb_device_handle* handle) {
    const auto* known = find(state.handles, handle);
    if (known == nullptr) {
        misuse(handle == nullptr ? "a null handle" : "a handle that libusb never gave out");
        return false;
    }
    if (!(*known)->open) {
        misuse((*known)->name + " after it was closed");
        return false;
    }
    return true;
}

bool Call::usable(const libusb_context* context) {
    if (context != nullptr) {
        misuse("a context other than the default one");
        return false;
    }
    if (state.initializations == 0 || state.test.initializationFailed) {
        misuse("there is no context");
        return false;
    }
    return true;
}

bool Call::given(const void* pointer, const char* what) {
    if (pointer == nullptr) {
        misuse(std::string("no ") + what);
    }
    return pointer != nullptr;
}

void Call::misuse(const std::string& text) {
    state.misuse(function_, text);
}

void Call::unreference(libusb_device& device) {
    if (device.references == 0) {
        misuse(device.name + " is not referenced");
        return;
    }
    --device.references;
    device.oldReferences = std::min(device.oldReferences, device.references);
    state.settle(device);
}

void Call::waitsForEvents() {
    if (state.test.eventsLockHolder == std::this_thread::get_id()) {
        misuse("hangs, for this thread holds the events lock");
    }
}

std::string Call::text(Hexadecimal number) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", number.digits, number.value);
    return text;
}

std::string Call::text(const libusb_device* device) const {
    const auto* known = find(state.knownDevices, device);
    return known != nullptr ? (*known)->name : device == nullptr ? "null" : "unknown";
}

std::string Call::text(const libusb_device_handle* handle) const {
    const auto* known = find(state.handles, handle);
    return known != nullptr ? (*known)->name : handle == nullptr ? "null" : "unknown";
}

} // namespace fake_libusb

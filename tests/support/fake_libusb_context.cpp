// The calls that concern libusb as a whole: beginning and end, version, capabilities, the events lock.

#include "fake_libusb_call.h"

using namespace fake_libusb;

extern "C" {

int libusb_init(libusb_context** context) {
    Call call("libusb_init");
    libusb_context* const asked = context == nullptr ? nullptr : *context;
    if (context != nullptr) {
        call.misuse("a context other than the default one");
        return call.returns(LIBUSB_ERROR_OTHER, "other");
    }
    if (const auto code = call.failure()) {
        call.state.test.initialisationFailed = true;
        return call.returns(*code, asked);
    }
    call.state.test.initialisationFailed = false;
    ++call.state.initialisations;
    ++call.state.test.initialisations;
    return call.returns(0, asked);
}

void libusb_exit(libusb_context* context) {
    Call call("libusb_exit");
    call.done(context);
    if (!call.usable(context)) {
        return;
    }
    --call.state.test.initialisations;
    if (--call.state.initialisations > 0) {
        return;
    }
    for (const auto& device : call.state.devices) {
        if (device->references > 0 || !device->handles.empty()) {
            call.misuse(device->name + " is still referenced or open");
        }
    }
    call.state.registrations.clear();
}

const libusb_version* libusb_get_version(void) {
    Call call("libusb_get_version");
    call.done();
    return call.state.test.version;
}

int libusb_has_capability(std::uint32_t capability) {
    Call call("libusb_has_capability");
    const auto found = call.state.test.capabilities.find(capability);
    return call.returns(found != call.state.test.capabilities.end() && found->second ? 1 : 0, capability);
}

void libusb_set_debug(libusb_context* context, int level) {
    Call call("libusb_set_debug");
    call.done(context, level);
    call.usable(context);
}

int libusb_try_lock_events(libusb_context* context) {
    Call call("libusb_try_lock_events");
    Test& test = call.state.test;
    if (!call.usable(context)) {
        return call.returns(LIBUSB_ERROR_OTHER, context);
    }
    if (test.eventsHandledElsewhere || test.eventsLockHolder || insideEventHandling()) {
        return call.returns(1, context);
    }
    test.eventsLockHolder = std::this_thread::get_id();
    return call.returns(0, context);
}

void libusb_unlock_events(libusb_context* context) {
    Call call("libusb_unlock_events");
    call.done(context);
    if (!call.usable(context)) {
        return;
    }
    if (call.state.test.eventsLockHolder != std::this_thread::get_id()) {
        call.misuse("this thread does not hold the events lock");
        return;
    }
    call.state.test.eventsLockHolder.reset();
}

} // extern "C"

namespace fake_libusb {

void setCapability(std::uint32_t capability, bool present) {
    Access()->test.capabilities[capability] = present;
}

void setVersion(libusb_version version) {
    Access all;
    all->test.version = &all->versions.emplace_back(version);
}

void setEventsHandled(bool handled) {
    Access()->test.eventsHandledElsewhere = handled;
}

int initialisations() {
    return Access()->initialisations;
}

} // namespace fake_libusb

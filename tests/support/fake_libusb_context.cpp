// Calls that concern libusb as a whole: initialization and exit, version, capabilities, the event lock.

#include "fake_libusb_call.h"

#include <utility>

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
        call.state.test.initializationFailed = true;
        return call.returns(*code, asked);
    }
    call.state.test.initializationFailed = false;
    ++call.state.initializations;
    ++call.state.test.initializations;
    return call.returns(0, asked);
}

void libusb_exit(libusb_context* context) {
    Call call("libusb_exit");
    call.done(context);
    if (!call.usable(context)) {
        return;
    }
    --call.state.test.initializations;
    if (--call.state.initializations > 0) {
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
    const bool betweenRounds =
        test.eventHandlerInterrupted && test.waitersLockHolder && !test.eventHandlerStuck;
    if ((test.eventsHandledElsewhere && !betweenRounds) || test.eventsLockHolder || insideEventHandling()) {
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
    if (call.state.test.waitersLockHolder == std::this_thread::get_id()) {
        call.misuse("hangs, for this thread holds the event waiters' lock");
    }
    call.state.test.eventsLockHolder.reset();
}

int libusb_event_handler_active(libusb_context* context) {
    Call call("libusb_event_handler_active");
    const Test& test = call.state.test;
    if (!call.usable(context)) {
        return call.returns(LIBUSB_ERROR_OTHER, context);
    }
    const bool active = test.eventsHandledElsewhere || test.eventsLockHolder || insideEventHandling();
    return call.returns(active ? 1 : 0, context);
}

void libusb_lock_event_waiters(libusb_context* context) {
    Call call("libusb_lock_event_waiters");
    call.done(context);
    if (call.usable(context)) {
        call.state.test.waitersLockHolder = std::this_thread::get_id();
    }
}

void libusb_unlock_event_waiters(libusb_context* context) {
    Call call("libusb_unlock_event_waiters");
    call.done(context);
    if (!call.usable(context)) {
        return;
    }
    if (call.state.test.waitersLockHolder != std::this_thread::get_id()) {
        call.misuse("this thread does not hold the event waiters' lock");
        return;
    }
    call.state.test.waitersLockHolder.reset();
    call.state.test.eventHandlerInterrupted = false;
}

void libusb_interrupt_event_handler(libusb_context* context) {
    Call call("libusb_interrupt_event_handler");
    call.done(context);
    if (call.usable(context)) {
        call.state.test.eventHandlerInterrupted = true;
    }
}

const libusb_pollfd** libusb_get_pollfds(libusb_context* context) {
    Call call("libusb_get_pollfds");
    call.done(context);
    const std::vector<int>& descriptors = call.state.test.pollDescriptors;
    if (!call.usable(context) || descriptors.empty()) {
        return nullptr;
    }
    auto* const list = new const libusb_pollfd*[descriptors.size() + 1]();
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
        auto* const entry = new libusb_pollfd();
        entry->fd = descriptors[i];
        list[i] = entry;
    }
    return list;
}

void libusb_free_pollfds(const libusb_pollfd** list) {
    Call call("libusb_free_pollfds");
    call.done(list == nullptr ? "null" : "pollfds");
    for (std::size_t i = 0; list != nullptr && list[i] != nullptr; ++i) {
        delete list[i];
    }
    delete[] list;
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
    Access all;
    all->test.eventsHandledElsewhere = handled;
    all->test.eventHandlerStuck = false;
}

void setEventHandlerStuck() {
    Access all;
    all->test.eventsHandledElsewhere = true;
    all->test.eventHandlerStuck = true;
}

void setPollDescriptors(std::vector<int> descriptors) {
    Access()->test.pollDescriptors = std::move(descriptors);
}

int initializations() {
    return Access()->initializations;
}

} // namespace fake_libusb

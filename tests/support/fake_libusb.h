// A scripted stand-in for libusb-1.0, linked in its place: the test describes the devices on the bus. The
// stand-in records every call, can make any call fail, and tracks everything that it hands out.
//
// All functions may be called from any thread, before and after main(): the state is built at the first use
// and never destroyed. One internal mutex guards it. Hooks, handlers and hot-plug callbacks run without that
// mutex. A wrong use of libusb never aborts: it is recorded in misuses(), and the call returns
// LIBUSB_ERROR_OTHER. An unknown device or function name is a mistake in the test and throws
// std::invalid_argument.
//
// Names. The test names its devices: "dev1". The handle of dev1 is "hnd1" ("hnd1#2" if opened while hnd1 is
// open). The handle of a device with any other name, such as "lamp", is "hnd(lamp)".
#pragma once

#include "fake_reader.h"

#include <array>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <libusb.h>

namespace fake_libusb {

// Reset everything: empty bus, no failures, answers, hooks or switches, recording on, records and misuses
// empty. What the code under test still holds, such as the global manager's libusb_init() and callbacks,
// stays valid, but leftovers() reports only what was acquired since.
void reset();

// Free the dead devices and closed handles, which are kept for a while to detect their use. From now on their
// pointers are unknown. For tests with many devices.
void forgetDead();

// The bus.

// Plug in a device; it comes last in libusb_get_device_list(). Names are unique among the devices that exist.
libusb_device* plug(std::string_view name, FakeReader reader);

// Remove the device from the bus. Its pointer stays valid while it is referenced or open; calls that would
// reach the device return LIBUSB_ERROR_NO_DEVICE. After the last reference is released, every use of it is a
// misuse.
void unplug(std::string_view name);

enum class Pointer {
    fresh, // a different libusb_device*
    same,  // the old libusb_device* again, as allocators may reuse it; it must be unreferenced
};

// Unplug `name` if it is plugged, and plug in the same description, including changes, with a new address, as
// `newName`. Pointer::same throws std::logic_error if the old device is still referenced or open.
libusb_device* replug(std::string_view name, std::string_view newName, Pointer pointer = Pointer::fresh);

// Change the description of a plugged device. Its echo queue and open handles are kept.
void change(std::string_view name, const std::function<void(FakeReader&)>& edit);
void setString(std::string_view name, std::uint8_t index, FakeString answer);

libusb_device* device(std::string_view name);

// Recorded calls.

// Every call in the order in which it took effect, one line each:
//   libusb_init(default) = 0                                libusb_exit(default)
//   libusb_get_version()                                    libusb_has_capability(1) = 1
//   libusb_set_debug(default, 0)                            libusb_get_device_list(default) = 2
//   libusb_free_device_list(list, 1)                        libusb_get_device_descriptor(dev1) = 0
//   libusb_get_config_descriptor(dev1, 0) = 0               libusb_free_config_descriptor(config of dev1)
//   libusb_ref_device(dev1)                                 libusb_unref_device(dev1)
//   libusb_get_bus_number(dev1) = 1                         libusb_get_device_address(dev1) = 1
//   libusb_open(dev1) = 0                                   libusb_close(hnd1)
//   libusb_get_string_descriptor_ascii(hnd1, 1, 256) = 6    libusb_set_configuration(hnd1, 1) = 0
//   libusb_detach_kernel_driver(hnd1, 0) = -5               libusb_claim_interface(hnd1, 0) = 0
//   libusb_release_interface(hnd1, 0) = 0                   libusb_clear_halt(hnd1, 0x02) = 0
//   libusb_reset_device(hnd1) = 0                           libusb_bulk_transfer(hnd1, 0x02, 5, 1000) = 0
//   libusb_control_transfer(hnd1, 0x40, 0, 0, 0, 5, 1000) = 5
//     (request type, request, value, index, length, time-out)
//   libusb_hotplug_register_callback(default, 1, 0, 0x1209, -1, -1) = 0
//     (events, flags, vendor, product, class; any = -1; callback handles start at 1, and the lowest free one
// is assigned)
//   libusb_hotplug_deregister_callback(default, 1)
//   libusb_try_lock_events(default) = 0                     libusb_unlock_events(default)
//   libusb_lock_event_waiters(default)                      libusb_unlock_event_waiters(default)
//   libusb_event_handler_active(default) = 0                libusb_interrupt_event_handler(default)
//   libusb_get_pollfds(default)                             libusb_free_pollfds(pollfds)
// An asynchronous transfer is recorded like the synchronous one, when it is completed or refused; hooks run and planned
// failures apply in the same way. So a test of the transfers fits both kinds. libusb_alloc_transfer, ..._free_transfer,
// ..._submit_transfer, ..._cancel_transfer and ..._handle_events_completed are not recorded, but timesCalled() counts them,
// hooks run in them, and ..._alloc_transfer (null), ..._submit_transfer and ..._handle_events_completed can be made to fail,
// but failCall() leaves them out.
// The thread that has submitted a transfer completes it when it handles events.
// A call that a hook aborted by an exception ends in " threw". A null pointer appears as "null", a pointer
// that libusb never returned as "unknown".
std::vector<std::string> takeCalls(); // returns and clears them
std::string takeCallText();           // the same as one text; each line ends with "\n"

void recordNothing(); // for tests with many calls; frames are not kept either
void recordAll();
void recordAllBut(std::initializer_list<std::string_view> functions);

// Omit calls that only do bookkeeping: version, capability, reference counts, cached descriptors, bus number
// and address, freeing lists and descriptors, the event lock.
void recordWithoutBookkeeping();

// Record, count and fail only calls of the calling thread.
void watchOnlyThisThread();

// How often the function has been called since reset(), recorded or not.
std::size_t timesCalled(std::string_view function);

// The frames sent to the device (bulk OUT and control 0x40), oldest first, including those whose transfer
// failed.
std::vector<Bytes> frames(std::string_view name);

// The fallible functions that a manager calls on a bus: all functions below except initialization and
// callback registration. Fuzz inputs select by position.
inline constexpr std::array<std::string_view, 13> fallibleFunctions = {"libusb_get_device_list",
                                                                       "libusb_get_device_descriptor",
                                                                       "libusb_get_config_descriptor",
                                                                       "libusb_open",
                                                                       "libusb_get_string_descriptor_ascii",
                                                                       "libusb_set_configuration",
                                                                       "libusb_detach_kernel_driver",
                                                                       "libusb_claim_interface",
                                                                       "libusb_release_interface",
                                                                       "libusb_clear_halt",
                                                                       "libusb_reset_device",
                                                                       "libusb_bulk_transfer",
                                                                       "libusb_control_transfer"};

// Failures.

// Fallible functions are those that return a code: libusb_init, libusb_get_device_list, ..._open,
// ..._get_device_descriptor, ..._get_config_descriptor, ..._get_string_descriptor_ascii,
// ..._set_configuration, ..._detach_kernel_driver, ..._claim_interface, ..._release_interface,
// ..._clear_halt, ..._reset_device, ..._bulk_transfer, ..._control_transfer, ..._hotplug_register_callback. A
// failed call has no effect, sends nothing and does not write its output arguments. `device` limits the
// failure to one device ("" = any); `n` counts from 1, the next call.
void failNext(std::string_view function, int code, std::string_view device = {});
void failNth(std::string_view function, std::size_t n, int code, std::string_view device = {});
void failAlways(std::string_view function, int code, std::string_view device = {});

// Make the n-th call from now (1 is the next) of any fallible function fail once. For sweeps:
//   for (std::size_t n = 1;; ++n) { reset(); plug(...); failCall(n, LIBUSB_ERROR_IO); run();
//       EXPECT_EQ(leftovers(), ""); EXPECT_TRUE(misuses().empty()); if (!failurePlayed()) break; }
void failCall(std::size_t n, int code);
std::size_t fallibleCalls(); // calls of fallible functions since reset()
bool failurePlayed();        // whether any of the failures above occurred since reset()
void stopFailing();          // cancels all planned failures

// Transfers.

// By default a device echoes: data that it receives over bulk OUT or control 0x40 is queued, and the next
// bulk IN or control 0xC0 returns it. With an empty queue, IN returns LIBUSB_ERROR_TIMEOUT at once. A bulk IN
// shorter than the queued frame leaves the rest for the next one; a control IN drops the rest;
// libusb_reset_device() drops everything. A bulk endpoint that the active configuration lacks fails with
// LIBUSB_ERROR_IO, any other control request with LIBUSB_ERROR_PIPE, and a control transfer over 4096 bytes
// with LIBUSB_ERROR_INVALID_PARAM.
enum class Transfer { bulkOut, bulkIn, controlOut, controlIn };

struct Answer {
    int code = 0;    // 0 or a libusb error
    Bytes data = {}; // IN: written to the buffer (also with an error code), truncated to its length
    std::optional<int> count = std::nullopt; // transferred; default: IN data.size(), OUT the length
};

struct Request {
    std::string device = {};
    Transfer transfer = Transfer::bulkOut;
    std::uint8_t endpoint = 0; // bulk: the endpoint; control: the request type
    std::uint8_t request = 0;  // control only, as are the next two
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::span<const std::uint8_t> sent = {}; // OUT: the data
    int length = 0;
    unsigned timeout = 0;
};

// Answer the next transfers of this kind on this device, one each, instead of echoing.
void queueAnswer(std::string_view name, Transfer transfer, Answer answer);

// From now on, the device answers none of these transfers. A synchronous one times out at once. An asynchronous one waits until
// it is canceled, until the device is unplugged or answers, or for its time-out.
void silence(std::string_view name, std::initializer_list<Transfer> transfers);
// Whether an asynchronous transfer of the device is under way.
bool isTransferPending(std::string_view name);

// Called for every transfer on an attached device for which no answer is queued; nullopt selects the echo.
using Handler = std::function<std::optional<Answer>(const Request&)>;
void setHandler(Handler handler);

// Hooks.

// Called inside every libusb call before it takes effect, in the calling thread, with the names of the
// function and the device ("" if none). The hook may inspect locks, change the bus, fire callbacks and throw.
// Calls that it makes in the same thread do not run it again.
using Hook = std::function<void(std::string_view function, std::string_view device)>;
void setHook(Hook hook);

// Hot-plug.

enum class Delivery {
    insideEventHandling, // as in libusb, synchronous transfers and string reads fail with -6
    plain,
};

// Call every registered callback that matches the device, in order of registration, in the calling thread.
// Plug or unplug the device before. A callback that returns non-zero is deregistered. Returns the number of
// callbacks called.
int fireArrived(std::string_view name, Delivery delivery = Delivery::insideEventHandling);
int fireLeft(std::string_view name, Delivery delivery = Delivery::insideEventHandling);
int registeredCallbacks(); // all of them, including those registered before reset()

// Switches.

// libusb_has_capability() returns 1 for capabilities 0 and 1 by default.
void setCapability(std::uint32_t capability, bool present);

// The default is 1.0.26.11724 with an empty release candidate. `rc` may be null. The texts must stay valid.
void setVersion(libusb_version version);

// true: another thread handles events in a loop, so libusb_try_lock_events() returns 1. Interrupting the loop
// while the event waiters' lock is held stops it until that lock is released. A thread that is stuck in a
// callback does not stop.
void setEventsHandled(bool handled);
void setEventHandlerStuck();

// What libusb_get_pollfds() returns; null by default.
void setPollDescriptors(std::vector<int> descriptors);

// Resource tracking.

// What was acquired since reset() and not released, one line each, "" if nothing:
//   dev1: 2 references
//   hnd1: open
//   hnd1: interface 0 claimed
//   config of dev1: not freed
//   list: not freed
//   transfer: allocated
//   callback 1: registered
//   libusb_init: 1 without libusb_exit
//   events lock: held
//   event waiters' lock: held
std::string leftovers();

// What is held now, including what was acquired before reset(). References exclude those of the bus and of
// open handles.
int references(std::string_view name);
int openHandles(std::string_view name);
int initializations();

// Wrong uses since reset(), each a text that begins with the function's name: a handle closed twice or used
// after closing, a device used after its last reference, a reference released that was not held, a list or
// descriptor that is invalid or already freed, an interface still claimed at closing without an attempt to
// release it, use of a nonexistent context (libusb_init() not called, failed, or undone), a null output
// argument, a synchronous transfer or libusb_close() by the thread that holds the event lock (it would hang).
// libusb_free_..., _close and _unref_device accept null, and libusb_hotplug_deregister_callback() accepts the
// handle 0.
std::vector<std::string> misuses();

} // namespace fake_libusb

// A scripted stand-in for libusb-1.0, linked in its place: a bus made of described devices, every call
// recorded, any call made to fail, everything handed out accounted for.
//
// All functions may be called from any thread, before main and after it: the state is built at the first use
// and never destroyed. One internal mutex guards it; hooks, handlers and hot-plug callbacks run without that
// mutex. A wrong use of libusb never aborts: it is noted in misuses(), and the call answers
// LIBUSB_ERROR_OTHER. A name or function name that does not exist is a mistake of the test and throws
// std::invalid_argument.
//
// Names. The test names its devices: "dev1". A handle of dev1 is "hnd1" ("hnd1#2" when opened while hnd1 is
// open); a handle of a device with another kind of name, "lamp", is "hnd(lamp)".
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

// Puts everything back to the beginning: empty bus, no failures, answers, hooks or switches, recording on,
// records and misuses empty. What the code under test still holds (the global manager's libusb_init and
// callbacks, say) stays usable, but leftovers() speaks only of what was taken since.
void reset();

// Forgets devices that are dead and handles that are closed. They are kept for a while so that their use is
// known as such; from now on they are unknown pointers. For volume.
void forgetDead();

// The bus.

// Plugs a device; it comes last in libusb_get_device_list. Names are unique among the devices that still
// exist.
libusb_device* plug(std::string_view name, FakeReader reader);

// Takes the device off the bus. Its pointer stays valid while it is referenced or open; calls on it that
// would reach the device answer LIBUSB_ERROR_NO_DEVICE. After the last reference is gone, every use of it is
// a misuse.
void unplug(std::string_view name);

enum class Pointer {
    fresh, // another libusb_device*
    same, // the old libusb_device* again, as a memory allocator may do; the old device must not be referenced
};

// Unplugs `name` if it is plugged and plugs the same description, with its present changes and a new address,
// under `newName`. Pointer::same throws std::logic_error while the old device is still referenced or open.
libusb_device* replug(std::string_view name, std::string_view newName, Pointer pointer = Pointer::fresh);

// Changes the description of a device while it is plugged (the echo and open handles stay).
void change(std::string_view name, const std::function<void(FakeReader&)>& edit);
void setString(std::string_view name, std::uint8_t index, FakeString answer);

libusb_device* device(std::string_view name);

// The record.

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
//     (events, flags, vendor, product, class; any = -1; callback handles count from 1, the lowest free one is
//     taken)
//   libusb_hotplug_deregister_callback(default, 1)
//   libusb_try_lock_events(default) = 0                     libusb_unlock_events(default)
//   libusb_lock_event_waiters(default)                      libusb_unlock_event_waiters(default)
//   libusb_event_handler_active(default) = 0                libusb_interrupt_event_handler(default)
//   libusb_get_pollfds(default)                             libusb_free_pollfds(pollfds)
// A call that a hook left by an exception ends in " threw". A null pointer is written as "null", one that
// libusb never gave out as "unknown".
std::vector<std::string> takeCalls(); // returns them and clears
std::string takeCallText();           // the same as one text, each line ended by "\n"

void recordNothing(); // for volume; the frames are not kept either
void recordAll();
void recordAllBut(std::initializer_list<std::string_view> functions);

// Without the calls that only keep accounts: version, capability, reference counts, descriptors already
// cached in memory, bus number and address, freeing of lists and descriptors, the events lock.
void recordWithoutBookkeeping();

// From now on only calls of the calling thread are recorded, counted as fallible and made to fail.
void watchOnlyThisThread();

// How often the function has been called since reset(), whatever is recorded.
std::size_t timesCalled(std::string_view function);

// What the device has been sent (bulk OUT and control 0x40), oldest first, transfers answered with an error
// too.
std::vector<Bytes> frames(std::string_view name);

// The functions that a manager calls on a bus and that can fail: all of those below but starting libusb and
// registering callbacks. Fuzz inputs choose by position.
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

// The functions that can fail are those that return a code: libusb_init, libusb_get_device_list, ..._open,
// ..._get_device_descriptor, ..._get_config_descriptor, ..._get_string_descriptor_ascii,
// ..._set_configuration, ..._detach_kernel_driver, ..._claim_interface, ..._release_interface,
// ..._clear_halt, ..._reset_device, ..._bulk_transfer, ..._control_transfer,
// ..._hotplug_register_callback. A failed call has no effect, sends nothing and leaves its output arguments
// as they are. `device` limits the failure to one device ("" = any); `n` counts from 1, the next call.
void failNext(std::string_view function, int code, std::string_view device = {});
void failNth(std::string_view function, std::size_t n, int code, std::string_view device = {});
void failAlways(std::string_view function, int code, std::string_view device = {});

// The n-th call from now (1 = the next) of any function that can fail fails once. For sweeps:
//   for (std::size_t n = 1;; ++n) { reset(); plug(...); failCall(n, LIBUSB_ERROR_IO); run();
//       EXPECT_EQ(leftovers(), ""); EXPECT_TRUE(misuses().empty()); if (!failurePlayed()) break; }
void failCall(std::size_t n, int code);
std::size_t fallibleCalls(); // calls of functions that can fail, since reset()
bool failurePlayed();        // whether any of the failures above happened since reset()
void stopFailing();          // forgets all failures that are not played yet

// Transfers.

// By default a device echoes: what it is sent over bulk OUT or control 0x40 waits in a queue of its own and
// is what the next bulk IN or control 0xC0 returns; with nothing waiting, IN answers LIBUSB_ERROR_TIMEOUT at
// once. A bulk IN shorter than the waiting frame leaves the rest for the next one; a control IN drops the
// rest; libusb_reset_device drops everything. A bulk endpoint that the active configuration does not have,
// and any other control request, answer LIBUSB_ERROR_IO and LIBUSB_ERROR_PIPE; a control transfer over 4096
// bytes LIBUSB_ERROR_INVALID_PARAM.
enum class Transfer { bulkOut, bulkIn, controlOut, controlIn };

struct Answer {
    int code = 0;    // 0 or a libusb error
    Bytes data = {}; // IN: written to the buffer (also with an error code), cut to its length
    std::optional<int> count = std::nullopt; // transferred; IN: data.size() unless given, OUT: the length
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

// Answers the next transfers of this kind on this device, one each, in place of the echo.
void queueAnswer(std::string_view name, Transfer transfer, Answer answer);

// Asked for every transfer on an attached device for which no answer is queued; nullopt means the echo.
using Handler = std::function<std::optional<Answer>(const Request&)>;
void setHandler(Handler handler);

// Hooks.

// Called inside every libusb call before it takes effect, in the calling thread, with the function's name and
// the device's name ("" if none). It may look at locks, change the bus, fire callbacks, throw. Calls made
// inside the hook by the same thread do not run it again.
using Hook = std::function<void(std::string_view function, std::string_view device)>;
void setHook(Hook hook);

// Hot-plug.

enum class Delivery {
    insideEventHandling, // as libusb does: synchronous transfers and string reads in the callback answer -6
    plain,
};

// Call every registered callback that matches the device, in order of registration, in the calling thread.
// They do not plug or unplug: do that first. A callback that returns non-zero is deregistered. Returns how
// many were called.
int fireArrived(std::string_view name, Delivery delivery = Delivery::insideEventHandling);
int fireLeft(std::string_view name, Delivery delivery = Delivery::insideEventHandling);
int registeredCallbacks(); // all of them, whenever registered

// Switches.

// libusb_has_capability answers 1 for 0 and 1 unless told otherwise.
void setCapability(std::uint32_t capability, bool present);

// 1.0.26.11724 with an empty release candidate unless told otherwise; `rc` may be null. The texts must last.
void setVersion(libusb_version version);

// true: another thread handles events in a loop, so that libusb_try_lock_events answers 1. A round of it that is
// interrupted while the event waiters' lock is held ends, and the next one begins when that lock is released. A thread
// that is stuck in a callback does not end its round.
void setEventsHandled(bool handled);
void setEventHandlerStuck();

// What libusb_get_pollfds returns; null without any.
void setPollDescriptors(std::vector<int> descriptors);

// Accounting.

// What was taken since reset() and not given back, one line each, "" if nothing:
//   dev1: 2 references
//   hnd1: open
//   hnd1: interface 0 claimed
//   config of dev1: not freed
//   list: not freed
//   callback 1: registered
//   libusb_init: 1 without libusb_exit
//   events lock: held
//   event waiters' lock: held
std::string leftovers();

// What is held at this moment, whenever taken. The references are those of the code under test, without the
// bus's and those of open handles.
int references(std::string_view name);
int openHandles(std::string_view name);
int initialisations();

// Wrong uses since reset(), each a text that begins with the function's name: a handle closed twice or used
// after closing, a device used after its last reference, a reference given back that was not held, a list or
// descriptor that is not (or no longer) one, an interface still claimed at closing with no attempt to release
// it, use of a context that does not exist (libusb_init not called, failed, or undone), a null output
// argument, a synchronous transfer or libusb_close by the thread that holds the events lock (it would hang).
// libusb_free_..., _close and _unref_device accept null, and libusb_hotplug_deregister_callback the handle 0.
std::vector<std::string> misuses();

} // namespace fake_libusb

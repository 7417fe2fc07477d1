// The state behind fake_libusb.h. State::mutex guards everything here; Access and Call hold it.
#pragma once

#include "allocation_failure.h"
#include "fake_libusb.h"
#include "fake_libusb_functions.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <unordered_map>

// libusb's two opaque types. Objects that libusb would have freed are kept for a while and marked as dead, to
// detect their use without undefined behavior.
struct libusb_device {
    std::string name;
    fake_libusb::FakeReader reader;
    std::uint8_t address = 0;
    bool attached = true;
    bool dead = false;
    bool ofThisTest = true; // false once reset() has been called
    int references = 0;     // those of the code under test
    int oldReferences = 0;  // of these, taken before reset()
    int pins = 0;           // deliveries in progress
    std::set<libusb_device_handle*> handles = {};
    std::uint8_t activeConfiguration = 0;
    bool driverDetached = false;
    std::deque<fake_libusb::Bytes> echo = {};
    std::array<std::deque<fake_libusb::Answer>, 4> answers = {};
    std::vector<fake_libusb::Bytes> frames = {};
    std::array<bool, 4> silent = {};
};

struct libusb_device_handle {
    std::string name;
    std::string deviceName;
    libusb_device* device = nullptr; // dangling once the handle is closed
    int slot = 1;
    bool open = true;
    bool ofThisTest = true;
    std::set<int> claimed = {};
    std::set<int> releaseTried = {};
};

namespace fake_libusb {

struct Configuration {
    libusb_config_descriptor descriptor = {};
    std::string name;
    bool ofThisTest = true;
    std::vector<libusb_interface> interfaces = {};
    std::deque<std::vector<libusb_interface_descriptor>> altSettings = {};
    std::deque<std::vector<libusb_endpoint_descriptor>> endpoints = {};
};

struct DeviceList {
    std::unique_ptr<libusb_device*[]> given;
    std::vector<libusb_device*> devices; // as returned, whatever the caller writes into the list
    bool ofThisTest = true;
};

struct Registration {
    int handle = 0;
    int events = 0;
    int vendor = LIBUSB_HOTPLUG_MATCH_ANY;
    int product = LIBUSB_HOTPLUG_MATCH_ANY;
    int deviceClass = LIBUSB_HOTPLUG_MATCH_ANY;
    libusb_hotplug_callback_fn callback = nullptr;
    void* userData = nullptr;
    bool ofThisTest = true;
};

// A transfer of the asynchronous functions.
struct AsynchronousTransfer {
    bool ofThisTest = true;
    bool pending = false;
    bool canceled = false;
    std::thread::id submitter;
    std::optional<int> failure; // the code with which it was planned to fail
};

struct PlannedFailure {
    std::size_t calls; // until it occurs; 0: every time
    int code;
    std::string device; // "" = any
};

inline constexpr libusb_version usualVersion = {1, 0, 26, 11724, "", "http://libusb.info"};

// What a test configures or observes; reset() replaces it with a new one.
struct Test {
    std::vector<libusb_device*> bus;
    std::uint8_t lastAddress = 0;

    std::vector<std::string> calls;
    bool recording = true;
    std::array<bool, functionCount> unrecorded = {};
    std::optional<std::thread::id> watched;
    std::array<std::size_t, functionCount> timesCalled = {};
    std::vector<std::string> misuses;

    std::array<std::deque<PlannedFailure>, functionCount> failures;
    std::size_t callsUntilFailure = 0; // 0: none planned
    int callFailure = 0;
    std::size_t fallibleCalls = 0;
    bool failurePlayed = false;

    std::shared_ptr<const Handler> handler;
    std::shared_ptr<const Hook> hook;

    std::map<std::uint32_t, bool> capabilities = {{LIBUSB_CAP_HAS_CAPABILITY, true},
                                                  {LIBUSB_CAP_HAS_HOTPLUG, true}};
    const libusb_version* version = &usualVersion;
    bool eventsHandledElsewhere = false;
    bool eventHandlerStuck = false;
    bool eventHandlerInterrupted = false;
    std::optional<std::thread::id> waitersLockHolder;
    std::vector<int> pollDescriptors;
    std::optional<std::thread::id> eventsLockHolder;
    bool initializationFailed = false;
    int initializations = 0; // since reset()
};

struct State {
    std::mutex mutex;
    Test test;
    std::deque<std::unique_ptr<libusb_device>> devices; // all that are known, the latest last
    std::unordered_map<const libusb_device*, libusb_device*> knownDevices;
    std::unordered_map<const libusb_device_handle*, std::unique_ptr<libusb_device_handle>> handles;
    std::deque<const libusb_device_handle*> closedHandles;
    std::unordered_map<const libusb_config_descriptor*, std::unique_ptr<Configuration>> configurations;
    std::unordered_map<libusb_device**, DeviceList> lists;
    std::unordered_map<const libusb_transfer*, AsynchronousTransfer> transfers;
    std::condition_variable transferChanged;
    std::vector<Registration> registrations;
    std::deque<libusb_version> versions; // never destroyed: libusb_get_version() returns pointers
    int initializations = 0;             // in total

    // The latest device with this name that the test plugged, dead or not; throws if there is none.
    libusb_device& named(std::string_view name);

    // Mark the device as dead if nothing references it.
    void settle(libusb_device& device);

    // Close the handle and release its hold on the device.
    void retire(libusb_device_handle& handle);

    void misuse(const Function& function, const std::string& text);
};

State& state();

// Access to the state for a statement or a block: locked, and with allocations not counted.
class Access {
public:
    Access()
        : state_(state())
        , lock_(state_.mutex) {}
    State* operator->() { return &state_; }
    State& operator*() { return state_; }

private:
    support::AllocationPause pause_;
    State& state_;
    std::unique_lock<std::mutex> lock_;
};

// Whether the calling thread is in a hot-plug callback that libusb's event handling called.
bool& insideEventHandling();

bool hasEndpoint(const libusb_device& device, std::uint8_t address);

} // namespace fake_libusb

// The libusb functions that the stand-in implements, by name. Compile-time values only.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fake_libusb {

struct FunctionTraits {
    std::string_view name;
    bool fallible;               // returns a code
    bool bookkeeping;            // reaches no device and changes only counts
    bool fallibleByName = false; // can be made to fail, but a sweep over all calls leaves it out
};

inline constexpr std::array functionTraits = std::to_array<FunctionTraits>({
    {"libusb_init", true, false},
    {"libusb_exit", false, false},
    {"libusb_get_version", false, true},
    {"libusb_has_capability", false, true},
    {"libusb_set_debug", false, false},
    {"libusb_hotplug_register_callback", true, false},
    {"libusb_hotplug_deregister_callback", false, false},
    {"libusb_get_device_list", true, false},
    {"libusb_free_device_list", false, true},
    {"libusb_ref_device", false, true},
    {"libusb_unref_device", false, true},
    {"libusb_get_bus_number", false, true},
    {"libusb_get_device_address", false, true},
    {"libusb_get_device_descriptor", true, true},
    {"libusb_get_config_descriptor", true, false},
    {"libusb_free_config_descriptor", false, true},
    {"libusb_open", true, false},
    {"libusb_close", false, false},
    {"libusb_get_string_descriptor_ascii", true, false},
    {"libusb_set_configuration", true, false},
    {"libusb_detach_kernel_driver", true, false},
    {"libusb_claim_interface", true, false},
    {"libusb_release_interface", true, false},
    {"libusb_clear_halt", true, false},
    {"libusb_reset_device", true, false},
    {"libusb_bulk_transfer", true, false},
    {"libusb_control_transfer", true, false},
    {"libusb_alloc_transfer", false, true, true},
    {"libusb_free_transfer", false, true},
    {"libusb_submit_transfer", false, true, true},
    {"libusb_cancel_transfer", false, true},
    {"libusb_handle_events_completed", false, true, true},
    {"libusb_try_lock_events", false, true},
    {"libusb_unlock_events", false, true},
    {"libusb_event_handler_active", false, true},
    {"libusb_lock_event_waiters", false, true},
    {"libusb_unlock_event_waiters", false, true},
    {"libusb_interrupt_event_handler", false, true},
    {"libusb_get_pollfds", false, true},
    {"libusb_free_pollfds", false, true},
});

inline constexpr std::size_t functionCount = functionTraits.size();

// A function found by its name at run time.
class Function {
public:
    explicit constexpr Function(std::string_view name)
        : index_(static_cast<std::size_t>(std::ranges::find(functionTraits, name, &FunctionTraits::name) -
                                          functionTraits.begin())) {
        if (index_ == functionCount) {
            throw std::invalid_argument("the libusb stand-in has no function " + std::string(name));
        }
    }

    constexpr std::size_t index() const { return index_; }
    constexpr std::string_view name() const { return functionTraits[index_].name; }
    constexpr bool fallible() const { return functionTraits[index_].fallible; }
    constexpr bool fallibleByName() const { return fallible() || functionTraits[index_].fallibleByName; }

private:
    std::size_t index_;
};

// A function named by a literal, found at compile time.
class KnownFunction : public Function {
public:
    consteval KnownFunction(const char* name)
        : Function(name) {}
};

} // namespace fake_libusb

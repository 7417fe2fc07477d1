// The bus of one program: the devices that it has plugged, and what a reader is expected to tell.
//
// Names are never used twice in a program. A device that has left stays here as long as somebody holds it.
#pragma once

#include "call_sequences_input.h"
#include "fake_libusb.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace call_sequences {

// The device IDs of all readers, several of which may have the same.
inline constexpr std::array<unsigned, 5> deviceIds = {0xA1, 0xA2, 0xA3, 0, 0xFFFFFFFF};

struct Device {
    std::string name;
    libusb_device* usbDevice;
    bool plugged;
    bool usable;                            // one of the maker's readers
    std::optional<unsigned> id;             // as its string tells it
    bool opens;                             // opening it succeeds if libusb does not fail
    std::set<std::uint8_t> unreadable = {}; // other strings that it needs to be identified

    [[nodiscard]] std::optional<unsigned> identity() const { return unreadable.empty() ? id : std::nullopt; }
};

class Bus {
public:
    // What a program can make happen, each with arguments from the input.
    void plug(Input& input);
    void unplug(Input& input);
    void replug(Input& input) { replug(input, true); }
    void changeString(Input& input);
    void changeClaim(Input& input);
    void queueAnswer(Input& input);
    void failNextCall(Input& input);
    void failNthCall(Input& input);
    void stopFailing();
    void changeDuringCall(Input& input);

    // Whether libusb may fail for another reason than the state of the bus.
    [[nodiscard]] bool failing() const noexcept { return m_failing; }
    void setFailing() noexcept { m_failing = true; }

    // In the bus's order, those that have left too.
    [[nodiscard]] const std::vector<Device>& devices() const noexcept { return m_devices; }
    [[nodiscard]] const Device* find(const libusb_device* usbDevice) const noexcept;
    [[nodiscard]] std::vector<std::string> names() const;

    // Forgets the devices that have left and that nobody holds.
    void forgetGone();

    // A device that has been plugged, null when there is none.
    Device* choose(Input& input);

private:
    void replug(Input& input, bool mayKeepPointer);
    std::string newName();

    std::vector<Device> m_devices;
    int m_lastNumber = 0;
    bool m_failing = false;
};

} // namespace call_sequences

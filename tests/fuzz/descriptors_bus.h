// A bus whose readers, answers and failures come from the input.
#pragma once

#include "descriptors_reader.h"
#include "expect.h"
#include "fake_libusb.h"
#include "input.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace fuzz {

inline constexpr std::array<std::size_t, 8> frameLengths = {0, 1, 2, 63, 64, 255, 4096, 4097};
inline constexpr std::array<const char*, 10> fallible = {
    "libusb_get_device_list",       "libusb_open",
    "libusb_get_device_descriptor", "libusb_get_config_descriptor",
    "libusb_set_configuration",     "libusb_get_string_descriptor_ascii",
    "libusb_claim_interface",       "libusb_release_interface",
    "libusb_reset_device",          "libusb_clear_halt"};

class Bus {
public:
    explicit Bus(Input& input)
        : m_input(input) {}

    // The names of all devices so far, without those whose pointer was reused.
    [[nodiscard]] const std::vector<std::string>& everPlugged() const { return m_everPlugged; }

    void plug() {
        if (m_plugged.size() < maxReaders) {
            const std::string name = newName();
            fake_libusb::plug(name, takeReader(m_input));
            m_plugged.push_back(name);
            m_everPlugged.push_back(name);
        }
    }

    void unplug() {
        if (const std::string name = chosen(); !name.empty()) {
            fake_libusb::unplug(name);
            std::erase(m_plugged, name);
        }
    }

    void replug() {
        const std::string name = chosen();
        if (name.empty()) {
            return;
        }
        const bool referenced = fake_libusb::references(name) > 0 || fake_libusb::openHandles(name) > 0;
        const std::string next = newName();
        const bool same = m_input.flag() && !referenced;
        fake_libusb::replug(name, next, same ? fake_libusb::Pointer::same : fake_libusb::Pointer::fresh);
        std::ranges::replace(m_plugged, name, next);
        m_everPlugged.push_back(next);
        if (same) {
            std::erase(m_everPlugged, name);
        }
    }

    // Let libusb report an event, inside or outside its event handling.
    void report() {
        const std::string name = chosen();
        if (name.empty()) {
            return;
        }
        const bool arrived = m_input.flag();
        const fake_libusb::Delivery delivery =
            m_input.flag() ? fake_libusb::Delivery::insideEventHandling : fake_libusb::Delivery::plain;
        const int before = fake_libusb::references(name);
        const int called =
            arrived ? fake_libusb::fireArrived(name, delivery) : fake_libusb::fireLeft(name, delivery);
        expect(called <= 1, "one callback for each kind of event");
        while (fake_libusb::references(name) != before) {
            std::this_thread::yield(); // until the event thread has handled the report
        }
    }

    void changeReader() {
        const std::string name = chosen();
        if (name.empty()) {
            return;
        }
        if (m_input.flag()) {
            const std::uint8_t index = m_input.oneOf(stringIndexes);
            fake_libusb::setString(name, index, takeString(m_input));
        } else {
            const fake_libusb::FakeReader next = takeReader(m_input);
            fake_libusb::change(name, [&](fake_libusb::FakeReader& reader) { reader = next; });
        }
    }

    void fail() {
        const char* const function = m_input.oneOf(fallible);
        fake_libusb::failNext(function, m_input.oneOf(usbCodes));
    }

    void queueAnswer() {
        constexpr std::array<fake_libusb::Transfer, 4> transfers = {
            fake_libusb::Transfer::bulkOut, fake_libusb::Transfer::bulkIn, fake_libusb::Transfer::controlOut,
            fake_libusb::Transfer::controlIn};
        const std::string name = chosen();
        if (name.empty()) {
            return;
        }
        const fake_libusb::Transfer transfer = m_input.oneOf(transfers);
        fake_libusb::Answer answer = {.code = m_input.flag() ? m_input.oneOf(usbCodes) : 0};
        const std::size_t length = m_input.oneOf(frameLengths);
        answer.data.assign(length, m_input.byte());
        fake_libusb::queueAnswer(name, transfer, answer);
    }

private:
    static constexpr std::size_t maxReaders = 12;

    std::string newName() { return "dev" + std::to_string(++m_named); }

    // One of the readers on the bus, "" if there is none.
    std::string chosen() { return m_plugged.empty() ? "" : m_plugged[m_input.below(m_plugged.size())]; }

    Input& m_input;
    int m_named = 0;
    std::vector<std::string> m_plugged;
    std::vector<std::string> m_everPlugged;
};

} // namespace fuzz

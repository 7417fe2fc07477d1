#include "changing_bus.h"

#include "fake_libusb.h"

#include <array>
#include <cstdio>
#include <optional>
#include <stdexcept>

namespace fake = fake_libusb;

namespace stress {
namespace {

constexpr std::size_t mostReaders = 5;
constexpr std::size_t goneRemembered = 200;
constexpr std::size_t mostChangesWaiting = 100;

constexpr std::array codes = {LIBUSB_ERROR_IO,     LIBUSB_ERROR_ACCESS,  LIBUSB_ERROR_NO_DEVICE,
                              LIBUSB_ERROR_BUSY,   LIBUSB_ERROR_PIPE,    LIBUSB_ERROR_TIMEOUT,
                              LIBUSB_ERROR_NO_MEM, LIBUSB_ERROR_OVERFLOW};

} // namespace

void ChangingBus::step() {
    switch (pick(12)) {
    case 0:
    case 1:
    case 2:
        plug();
        break;
    case 3:
        unplug();
        break;
    case 4:
    case 5:
    case 6:
        replug();
        break;
    case 7:
        fail();
        break;
    case 8:
        fake::stopFailing();
        break;
    default:
        disturb();
    }
}

std::string ChangingBus::newName() {
    return "reader" + std::to_string(++plugs_);
}

// If changes are not delivered fast enough, drop the oldest.
void ChangingBus::note(const std::string& name, bool arrived) {
    if (!arrived) {
        gone_.push_back(name);
        if (gone_.size() > goneRemembered) {
            gone_.pop_front();
        }
    }
    const std::lock_guard lock(mutex_);
    changes_.push_back({.name = name, .arrived = arrived});
    if (changes_.size() > mostChangesWaiting) {
        changes_.pop_front();
    }
}

// Use few device IDs, to get duplicates.
void ChangingBus::plug() {
    if (plugged_.size() == mostReaders) {
        return;
    }
    char id[8];
    std::snprintf(id, sizeof id, "%X", 0xA0 + pick(8));
    plugged_.push_back(newName());
    fake::plug(plugged_.back(), pick(2) == 0 ? fake::bulkReader(id) : fake::controlReader(id));
    note(plugged_.back(), true);
}

void ChangingBus::unplug() {
    if (plugged_.empty()) {
        return;
    }
    const std::size_t which = anyPlugged();
    fake::unplug(plugged_[which]);
    note(plugged_[which], false);
    plugged_.erase(plugged_.begin() + static_cast<std::ptrdiff_t>(which));
}

// A device that is still in use cannot come back with its old pointer.
void ChangingBus::replug() {
    if (plugged_.empty()) {
        return;
    }
    std::string& name = plugged_[anyPlugged()];
    const std::string fresh = newName();
    if (pick(2) == 0) {
        try {
            fake::replug(name, fresh, fake::Pointer::same);
            name = fresh;
            note(name, true);
            return;
        } catch (const std::logic_error&) {
        }
    }
    fake::replug(name, fresh);
    note(name, false);
    name = fresh;
    note(name, true);
}

void ChangingBus::fail() {
    const int code = codes[pick(codes.size())];
    if (pick(4) == 0) {
        fake::failCall(1 + pick(20), code);
    } else {
        fake::failNth(fake_libusb::fallibleFunctions[pick(fake_libusb::fallibleFunctions.size())],
                      1 + pick(4), code);
    }
}

void ChangingBus::disturb() {
    if (plugged_.empty()) {
        return;
    }
    const std::string& name = plugged_[anyPlugged()];
    switch (pick(4)) {
    case 0:
        fake::change(name, [](fake::FakeReader& reader) { reader.strings.erase(1); });
        break;
    case 1:
        fake::change(name,
                     [](fake::FakeReader& reader) { reader.claimedElsewhere = !reader.claimedElsewhere; });
        break;
    case 2:
        fake::change(name, [](fake::FakeReader& reader) { reader.kernelDriver = true; });
        break;
    case 3:
        fake::setEventsHandled(pick(2) == 0);
        break;
    }
}

bool ChangingBus::deliver() {
    std::optional<Change> change;
    {
        const std::lock_guard lock(mutex_);
        if (changes_.empty()) {
            return false;
        }
        change = changes_.front();
        changes_.pop_front();
    }
    const auto delivery =
        (deliveries_() >> 8) % 4 == 0 ? fake::Delivery::plain : fake::Delivery::insideEventHandling;
    try {
        if (change->arrived) {
            fake::fireArrived(change->name, delivery);
        } else {
            fake::fireLeft(change->name, delivery);
        }
    } catch (const std::invalid_argument&) {
        // The device was unplugged or replaced so long ago that its name is unknown.
    }
    return true;
}

void ChangingBus::calm() {
    fake::stopFailing();
    fake::setEventsHandled(false);
    while (deliver()) {
    }
}

std::vector<std::string> ChangingBus::names() const {
    std::vector<std::string> all = plugged_;
    all.insert(all.end(), gone_.begin(), gone_.end());
    return all;
}

} // namespace stress

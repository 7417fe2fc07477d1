// What an application may rely on after each step: the readers that it has open, with their handles, and the
// registrations that it has made. Kept apart from the manager and compared with it.
#pragma once

#include "call_sequences_bus.h"
#include "gvusb.h"

#include <array>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace call_sequences {

// What a step may change about the open readers.
struct Changes {
    bool opens = false;         // readers may be added at the end
    bool replaces = false;      // records may be replaced, which keeps the handle
    bool collapses = false;     // of several open readers with the device ID 0, some may go: a scan's doing
    bool mayFailToOpen = false; // what was open may be closed after its replacement
};

struct OpenReader {
    int devHnd;
    unsigned devId;
    const libusb_device* usbDevice;
    bool open; // false after a replacement whose opening failed: the handle stays and answers -1144
};

class Model {
public:
    explicit Model(const Bus& bus)
        : m_bus(bus) {}

    // The open readers, in the order of a walk.
    [[nodiscard]] const std::vector<OpenReader>& readers() const noexcept { return m_readers; }
    [[nodiscard]] const OpenReader* findHandle(int devHnd) const noexcept;
    [[nodiscard]] const OpenReader* findId(unsigned devId) const noexcept; // none for the device ID 0
    void remove(int devHnd);

    // Every handle there has been, with the device ID that it belongs to for ever.
    [[nodiscard]] const std::map<int, unsigned>& knownHandles() const noexcept { return m_knownHandles; }

    // Takes over what the manager has done, and is broken by what it may not do.
    void follow(const Changes& changes);

    // What else holds between any two steps; `inHandler` while the registrations are locked.
    void check(bool inHandler) const;

    // What a scan of the bus, as it is, should find.
    struct Found {
        const libusb_device* usbDevice;
        unsigned devId;
    };
    [[nodiscard]] std::vector<Found> expectedScan() const;

    using Registration = std::pair<unsigned, GVUSB_EventCallback>;
    std::vector<Registration> registrations;
    int cursor = -1;

    // What polls have told each handler, by the number of scans before the poll, event and device ID.
    std::set<std::tuple<int, Registration, unsigned>> reported;
    int scans = 0;

private:
    void followReader(OpenReader& known, const OpenReader& now, const Changes& changes);

    const Bus& m_bus;
    std::vector<OpenReader> m_readers;
    std::map<int, unsigned> m_knownHandles;
};

} // namespace call_sequences

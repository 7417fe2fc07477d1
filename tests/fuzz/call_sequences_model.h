// The expected state after each step: open readers with their handles, and registered event handlers. The checks
// compare it with the manager.
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

// How a step may change the open readers.
struct Changes {
    bool opens = false;         // readers may be added at the end
    bool replaces = false;      // records may be replaced; the handle stays the same
    bool collapses = false;     // a scan may remove open readers with device ID 0, but not the last one
    bool mayFailToOpen = false; // a replaced reader may be closed
};

struct OpenReader {
    int devHnd;
    unsigned devId;
    const libusb_device* usbDevice;
    bool open; // false if opening failed after a replacement; calls then return -1144
};

class Model {
public:
    explicit Model(const Bus& bus)
        : m_bus(bus) {}

    // In the order of GVUSB_GetDeviceList.
    [[nodiscard]] const std::vector<OpenReader>& readers() const noexcept { return m_readers; }
    [[nodiscard]] const OpenReader* findHandle(int devHnd) const noexcept;
    [[nodiscard]] const OpenReader* findId(unsigned devId) const noexcept; // null for device ID 0
    void remove(int devHnd);

    // All handles so far, each with its device ID. A handle is not reused for another device ID.
    [[nodiscard]] const std::map<int, unsigned>& knownHandles() const noexcept { return m_knownHandles; }

    // Update the model from the manager. Fail on a change that is not allowed.
    void follow(const Changes& changes);

    // Check what must be true between two steps. `inHandler`: the registrations are locked.
    void check(bool inHandler) const;

    // What a scan should find now.
    struct Found {
        const libusb_device* usbDevice;
        unsigned devId;
    };
    [[nodiscard]] std::vector<Found> expectedScan() const;

    using Registration = std::pair<unsigned, GVUSB_EventCallback>;
    std::vector<Registration> registrations;
    int cursor = -1;

    // What polls reported: number of scans before the poll, handler with its event, and device ID.
    std::set<std::tuple<int, Registration, unsigned>> reported;
    int scans = 0;

private:
    void followReader(OpenReader& known, const OpenReader& now, const Changes& changes);

    const Bus& m_bus;
    std::vector<OpenReader> m_readers;
    std::map<int, unsigned> m_knownHandles;
};

} // namespace call_sequences

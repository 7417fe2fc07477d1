// The kernel's part between processes and one plugged reader: openings, claimed interfaces and pending URBs,
// with the errno values and URB status of usbfs.
//
// One thread at a time; the bus guards it. It outlives the unplugging while programs have it open.
#pragma once

#include "model/host_counts.h"
#include "model/model.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace emulator {

// The faults of the host. They survive replugging.
struct HostFaults {
    bool busy = false;      // claiming fails, as if another program had claimed the interface
    bool failReset = false; // a port reset fails
    int refuseOpen = 0;     // opening fails with this errno
};

using OpenId = std::uint64_t;
using UrbId = std::uint64_t; // chosen by the opening, unique among its URBs

struct ReapedUrb {
    UrbId urb = 0;
    int status = 0; // 0 or a negative errno
    Bytes data;
    std::size_t actual = 0;
};

class UsbfsDevice {
public:
    UsbfsDevice(ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now);

    OpenId open();
    void close(OpenId id, Time now);

    // Return 0 or a negative errno.
    int claim(OpenId id, unsigned interfaceNumber);
    int release(OpenId id, unsigned interfaceNumber);
    int setInterface(OpenId id, unsigned interfaceNumber, unsigned setting, Time now);
    int setConfiguration(OpenId id, int value, Time now);
    int clearHalt(OpenId id, unsigned endpoint, Time now);
    int resetEndpoint(OpenId id, unsigned endpoint); // the host's side only
    int reset(OpenId id, Time now);
    int detachDriver(OpenId id, unsigned interfaceNumber);
    int attachDriver(OpenId id, unsigned interfaceNumber); // 1 if a driver took the interface
    int submit(OpenId id, UrbId urb, Transfer transfer, Time now, bool shortNotOk = false);
    int discard(OpenId id, UrbId urb, Time now);

    // What the kernel does before it uses an endpoint or an interface: claim it, unless that is done.
    int prepareEndpoint(OpenId id, unsigned endpoint);
    int prepareInterface(OpenId id, unsigned interfaceNumber);

    // From now on this opening may claim only these interfaces, and bind and unbind no drivers.
    int dropPrivileges(OpenId id, std::uint32_t interfaces);

    // Detach a driver, unless its name forbids it, and claim.
    enum class Unless { never, itIsNot, itIs };
    int detachAndClaim(OpenId id, unsigned interfaceNumber, Unless unless, std::string_view driver);

    // The driver bound to an interface: "usbfs" if a program has claimed it, "" for none.
    std::string driver(unsigned interfaceNumber) const;
    void bindDriver(std::string name);

    // How often a driver has been bound or unbound.
    std::uint64_t bindings() const { return m_bindings; }

    std::uint64_t claimed(OpenId id) const { return m_openings.at(id).claimed; } // a bit for each interface

    // Remove and return the oldest completed URB of this opening.
    std::optional<ReapedUrb> reap(OpenId id);
    bool pending(OpenId id) const;

    // Fetch completions from the model.
    void collect();

    bool connected() const { return m_model != nullptr; }
    void unplug();
    std::uint8_t configuration() const {
        return m_model != nullptr ? m_model->configuration() : std::uint8_t{0};
    }
    const ReaderModel* model() const { return m_model; }
    ReaderModel* model() { return m_model; }

private:
    struct Opening {
        std::uint64_t claimed = 0;
        std::uint64_t allowed = ~std::uint64_t{0};
        bool privilegesDropped = false;
        std::deque<ReapedUrb> completed;
    };
    struct PendingUrb {
        OpenId opening = 0;
        UrbId urb = 0;
        TransferId transfer = 0;
        bool shortNotOk = false;
        std::size_t capacity = 0;
    };

    std::optional<int> recordedFailure(HostAction action, unsigned number = 0);
    bool hasInterface(unsigned interfaceNumber) const;
    bool isClaimed(unsigned interfaceNumber) const;
    int interfaceOf(unsigned endpoint) const;
    int claimUncounted(OpenId id, unsigned interfaceNumber);
    void endTransfers(unsigned interfaceNumber);
    void finish(const PendingUrb& urb, Completion& completion);

    ReaderModel* m_model; // null once unplugged
    HostFaults& m_faults;
    HostCounts& m_counts;
    std::string m_driver;
    std::uint64_t m_bindings = 0;
    OpenId m_lastId = 0;
    std::map<OpenId, Opening> m_openings;
    std::deque<PendingUrb> m_pending;
};

} // namespace emulator

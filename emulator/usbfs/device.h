// The kernel's side of one plugged reader: who has opened it, who claimed what, which transfers fly, in the
// terms of usbfs (errno values, URB status). It is what Linux's USB core does between a process and a device.
//
// One thread at a time; the bus guards it. It outlives the unplugging for those who still have it open.
#pragma once

#include "model/host_counts.h"
#include "model/model.h"

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace emulator {

// What goes wrong on the host's side, kept from one plugging to the next.
struct HostFaults {
    bool busy = false;      // claiming answers "busy", as if another program had the interface
    bool failReset = false; // a port reset fails
    int refuseOpen = 0;     // the errno that opening answers
};

using OpenId = std::uint64_t;
using UrbAddress = std::uint64_t; // where the process keeps its URB

struct ReapedUrb {
    UrbAddress urb = 0;
    int status = 0; // 0 or a negative errno
    Bytes data;
    std::size_t actual = 0;
};

class UsbfsDevice {
public:
    UsbfsDevice(ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now);

    OpenId open();
    void close(OpenId id, Time now);

    // Each answers 0 or a negative errno.
    int claim(OpenId id, unsigned interfaceNumber);
    int release(OpenId id, unsigned interfaceNumber);
    int setConfiguration(OpenId id, int value, Time now);
    int clearHalt(OpenId id, std::uint8_t endpoint, Time now);
    int reset(OpenId id, Time now);
    int detachDriver(unsigned interfaceNumber);
    int attachDriver(unsigned interfaceNumber);
    int submit(OpenId id, UrbAddress urb, Transfer transfer, Time now);
    int discard(OpenId id, UrbAddress urb, Time now);

    // The name of the driver bound to an interface, "usbfs" where a program claimed it; empty: none.
    std::string driver(unsigned interfaceNumber) const;
    void bindDriver(std::string name);

    // The next completed URB of this opening; none: try again later, or the device is gone.
    std::optional<ReapedUrb> reap(OpenId id);
    bool anythingToReap() const;

    // Fetches what the model has completed meanwhile.
    void collect();

    // Whether some transfer completes by the clock, so that somebody must call advance() on the model.
    bool timed() const { return m_model != nullptr && m_model->nextDeadline().has_value(); }

    bool connected() const { return m_model != nullptr; }
    void unplug();
    std::uint8_t configuration() const {
        return m_model != nullptr ? m_model->configuration() : std::uint8_t{0};
    }
    Speed speed() const { return m_speed; }

private:
    struct Opening {
        std::set<unsigned> claimed;
        std::deque<ReapedUrb> completed;
    };
    struct Flying {
        OpenId opening = 0;
        UrbAddress urb = 0;
        TransferId transfer = 0;
    };

    bool hasInterface(unsigned interfaceNumber) const;
    bool claimedByAnother(OpenId id, unsigned interfaceNumber) const;

    ReaderModel* m_model; // none once unplugged
    HostFaults& m_faults;
    HostCounts& m_counts;
    Speed m_speed;
    std::string m_driver;
    OpenId m_lastId = 0;
    std::map<OpenId, Opening> m_openings;
    std::deque<Flying> m_flying;
};

} // namespace emulator

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
#include <set>
#include <string>

namespace emulator {

// The faults of the host. They survive replugging.
struct HostFaults {
    bool busy = false;      // claiming fails, as if another program had claimed the interface
    bool failReset = false; // a port reset fails
    int refuseOpen = 0;     // opening fails with this errno
};

using OpenId = std::uint64_t;
using UrbAddress = std::uint64_t; // of the URB in the process

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

    // Return 0 or a negative errno.
    int claim(OpenId id, unsigned interfaceNumber);
    int release(OpenId id, unsigned interfaceNumber);
    int setConfiguration(OpenId id, int value, Time now);
    int clearHalt(OpenId id, std::uint8_t endpoint, Time now);
    int reset(OpenId id, Time now);
    int detachDriver(unsigned interfaceNumber);
    int attachDriver(unsigned interfaceNumber);
    int submit(OpenId id, UrbAddress urb, Transfer transfer, Time now);
    int discard(OpenId id, UrbAddress urb, Time now);

    // The driver bound to an interface: "usbfs" if a program has claimed it, "" for none.
    std::string driver(unsigned interfaceNumber) const;
    void bindDriver(std::string name);

    // Remove and return the oldest completed URB of this opening.
    std::optional<ReapedUrb> reap(OpenId id);
    bool anythingToReap() const;

    // Fetch completions from the model.
    void collect();

    // Whether a pending transfer needs a call of the model's advance() to complete.
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
    struct PendingUrb {
        OpenId opening = 0;
        UrbAddress urb = 0;
        TransferId transfer = 0;
    };

    bool hasInterface(unsigned interfaceNumber) const;
    bool claimedByAnother(OpenId id, unsigned interfaceNumber) const;

    ReaderModel* m_model; // null once unplugged
    HostFaults& m_faults;
    HostCounts& m_counts;
    Speed m_speed;
    std::string m_driver;
    OpenId m_lastId = 0;
    std::map<OpenId, Opening> m_openings;
    std::deque<PendingUrb> m_pending;
};

} // namespace emulator

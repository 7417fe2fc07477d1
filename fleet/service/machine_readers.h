// The readers of this machine: finds them, opens them, and notices when they come and go.
#pragma once

#include "fleet/service/gate.h"
#include "fleet/service/mailbox.h"
#include "fleet/service/served_reader.h"
#include "tools/usb_location.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include <gvusb.hpp>

namespace fleet {

// A reader was connected or disconnected.
struct ReaderChange {
    bool connected = false;
    ReaderFacts facts;
    std::chrono::system_clock::time_point time;
};

// A reader cannot be used.
struct ReaderProblem {
    std::string text;
};

// What the thread of the service's loop is told.
using Report = std::variant<AnsweredRequest, ReaderChange, ReaderProblem>;

// An entry of the library's scan list.
struct ScanEntry {
    gvusb::device_id id = 0;
    std::string family;
    std::string device;
    std::string interfaceType;
};

class MachineReaders {
public:
    // Finds the readers that are present, before it returns. Each may have `queue` requests. Reports go to the
    // mailbox.
    MachineReaders(std::size_t queue, Mailbox<Report>& reports);
    MachineReaders(const MachineReaders&) = delete;
    MachineReaders& operator=(const MachineReaders&) = delete;
    ~MachineReaders() { stop(); }

    // Close all readers, and have their requests answered.
    void stop();

    std::shared_ptr<ServedReader> find(std::string_view name) const;
    std::vector<std::shared_ptr<ServedReader>> all() const;

    // Look at the bus again, and answer the request then. Returns false if too many wait, and leaves the request as it is.
    bool scan(Request& request);

private:
    using Readers = std::vector<std::shared_ptr<ServedReader>>;
    struct Found {
        ReaderFacts facts;
        gvusb::reader reader; // open unless the device ID is shared
        bool sharesId = false;
    };

    void watch();
    void update(bool always);
    bool removeMissing(const std::vector<UsbLocation>& present);
    void identify(const std::vector<UsbLocation>& present);
    Readers takeMoved();
    Readers takeIf(const std::function<bool(const ServedReader&)>& condition);
    std::vector<Found> openUnshared(const std::vector<ScanEntry>& entries,
                                    const std::set<gvusb::device_id>& shared,
                                    const std::vector<UsbLocation>& present);
    std::vector<Found> locateShared(const std::set<gvusb::device_id>& shared,
                                    const std::vector<UsbLocation>& present);
    void install(std::vector<Found> found);
    void reportUnidentified(const std::vector<UsbLocation>& present);
    ServedReader::Opened reopen(const ReaderFacts& facts, bool sharesId);
    void end(Readers gone);

    const std::size_t m_queue;
    Mailbox<Report>& m_reports;
    Gate m_gate;
    std::mutex m_opening;                  // held while readers are scanned and opened
    std::vector<UsbLocation> m_identified; // what was present then; guarded by m_opening

    mutable std::mutex m_readersMutex;
    Readers m_readers; // changed only by the watching thread

    std::vector<UsbLocation> m_present;  // at the last look
    std::vector<std::string> m_problems; // places that have been reported
    std::chrono::steady_clock::time_point m_nextAttempt;
    std::chrono::milliseconds m_pause;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<Request> m_scans;
    bool m_ended = false;
    std::thread m_thread;
};

} // namespace fleet

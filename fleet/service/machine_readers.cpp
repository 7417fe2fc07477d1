#include "fleet/service/machine_readers.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <map>
#include <set>

namespace fleet {
namespace {

using Clock = std::chrono::steady_clock;
using Nodes = std::set<UsbNode>;

// The library's own reports would need a thread that handles libusb's events, through which then every transfer would go.
constexpr std::chrono::milliseconds lookInterval(200);
constexpr int mostWaits = 25; // for a look, before a reader is opened

// udev may grant access to a reader only some time after it was connected. A silent one delays all others at each attempt.
constexpr std::chrono::milliseconds firstPause(100);
constexpr std::chrono::milliseconds longestPause(60'000);
constexpr std::chrono::milliseconds pauseBeforeReport(400);

std::string scanned(int index, const char* key) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    return GVUSB_GetScanListPara(index, key, value.data()) == GVUSB_OK ? value.data() : std::string{};
}

ScanEntry scanEntry(int index) {
    constexpr int hexadecimal = 16;
    return {.id = static_cast<gvusb::device_id>(
                std::strtoul(scanned(index, "DEVICE-ID").c_str(), nullptr, hexadecimal)),
            .family = scanned(index, "FAMILYNAME"),
            .device = scanned(index, "DEVICENAME"),
            .interfaceType = scanned(index, "INTERFACE")};
}

std::set<gvusb::device_id> sharedIds(const std::vector<ScanEntry>& entries) {
    std::map<gvusb::device_id, int> counts;
    for (const ScanEntry& entry : entries) {
        ++counts[entry.id];
    }
    std::set<gvusb::device_id> shared;
    for (const auto& [id, count] : counts) {
        if (count > 1) {
            shared.insert(id);
        }
    }
    return shared;
}

UsbNode nodeOf(const UsbLocation& location) {
    return {.bus = location.bus, .address = location.address};
}

// The nodes that are open now and were not open before.
std::vector<UsbNode> addedNodes(const Nodes& before) {
    const Nodes now = openUsbNodes();
    std::vector<UsbNode> added;
    std::ranges::set_difference(now, before, std::back_inserter(added));
    return added;
}

// The location whose node is open now and was not open before.
std::optional<UsbLocation> newlyOpened(const Nodes& before, const std::vector<UsbLocation>& present) {
    const std::vector<UsbNode> added = addedNodes(before);
    if (added.size() != 1) {
        return std::nullopt;
    }
    const auto found = std::ranges::find(present, added.front(), nodeOf);
    return found == present.end() ? std::nullopt : std::optional(*found);
}

std::string idText(gvusb::device_id id) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%X", id);
    return text.data();
}

ReaderFacts factsOf(const ScanEntry& entry, const UsbLocation& location, bool sharesId) {
    constexpr std::string_view scheme = "usb:";
    const std::string place = location.path.starts_with(scheme)
                                  ? location.path.substr(scheme.size())
                                  : std::to_string(location.bus) + "-a" + std::to_string(location.address);
    return {.name = idText(entry.id) + (sharesId ? '@' + place : std::string{}),
            .id = entry.id,
            .family = entry.family,
            .device = entry.device,
            .interfaceType = entry.interfaceType,
            .typeNumber = {},
            .path = location.path,
            .bus = location.bus,
            .address = location.address};
}

std::optional<std::string> typeNumber(int handle) {
    std::array<char, GVUSB_PARAMETER_SIZE> value{};
    return GVUSB_GetDevicePara(handle, "TYPENUMBER", value.data()) == GVUSB_OK
               ? std::optional<std::string>(value.data())
               : std::nullopt;
}

bool isAt(const ReaderFacts& facts, const UsbLocation& location) {
    return facts.bus == location.bus && facts.address == location.address && facts.path == location.path;
}

// The scan list is in the order of the bus. Reading an entry waits for a call that is running on the reader, so do not read
// those of readers that are open, unless a reader is missing from the list and shifts the others.
std::vector<ScanEntry> scanList(const std::vector<UsbLocation>& present,
                                const std::vector<std::shared_ptr<ServedReader>>& served) {
    std::vector<ScanEntry> entries;
    const int size = GVUSB_GetScanListSize();
    const bool isComplete = static_cast<std::size_t>(size) == present.size();
    for (int index = 0; index < size; ++index) {
        const auto isHere = [&](const auto& reader) {
            return isComplete && !reader->sharesId() &&
                   isAt(reader->facts(), present[static_cast<std::size_t>(index)]);
        };
        if (const auto known = std::ranges::find_if(served, isHere); known != served.end()) {
            const ReaderFacts& facts = (*known)->facts();
            entries.push_back({.id = facts.id,
                               .family = facts.family,
                               .device = facts.device,
                               .interfaceType = facts.interfaceType});
        } else {
            entries.push_back(scanEntry(index));
        }
    }
    return entries;
}

// Close a reader unless it was open before. A scan opens its first reader in any case.
void closeIfOpened(int handle, const Nodes& before) {
    if (handle > 0 && !addedNodes(before).empty()) {
        GVUSB_CloseDevice(handle);
    }
}

[[noreturn]] void fail(int code) {
    throw gvusb::error(gvusb::make_error_code(static_cast<gvusb::errc>(code)), "open");
}

} // namespace

MachineReaders::MachineReaders(std::size_t queue, Mailbox<Report>& reports)
    : m_queue(queue)
    , m_reports(reports)
    , m_pause(firstPause) {
    gvusb::driver::set_parameter("PARALLEL", "1");
    // The library would give an open reader's handle to another reader with its device ID at any time.
    gvusb::driver::suspend_polling(true);
    update(true);
    m_thread = std::thread([this] { watch(); });
}

void MachineReaders::stop() {
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_wake.notify_one();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    Readers readers;
    {
        const std::lock_guard lock(m_readersMutex);
        readers.swap(m_readers);
    }
    end(std::move(readers));
}

std::shared_ptr<ServedReader> MachineReaders::find(std::string_view name) const {
    const std::lock_guard lock(m_readersMutex);
    const auto found = std::ranges::find(
        m_readers, name, [](const auto& reader) { return std::string_view(reader->facts().name); });
    return found == m_readers.end() ? nullptr : *found;
}

std::vector<std::shared_ptr<ServedReader>> MachineReaders::all() const {
    const std::lock_guard lock(m_readersMutex);
    return m_readers;
}

bool MachineReaders::scan(Request& request) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_scans.size() >= m_queue) {
            return false;
        }
        m_scans.push_back(std::move(request));
    }
    m_wake.notify_one();
    return true;
}

void MachineReaders::watch() {
    for (;;) {
        std::vector<Request> scans;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, lookInterval, [this] { return m_ended || !m_scans.empty(); });
            scans = std::exchange(m_scans, {});
            if (m_ended && scans.empty()) {
                return;
            }
        }
        const auto start = Clock::now();
        update(!scans.empty());
        const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        for (Request& request : scans) {
            if (request.isExpired()) {
                m_reports.put(AnsweredRequest{.request = std::move(request), .answer = expired()});
                continue;
            }
            m_reports.put(AnsweredRequest{
                .request = std::move(request),
                .answer = {
                    .code = 0, .text = "ok", .microseconds = static_cast<std::uint64_t>(time.count())}});
        }
    }
}

void MachineReaders::update(bool always) {
    const std::vector<UsbLocation> present = readersOnBus();
    const bool mayBeRenamed = removeMissing(present);
    if (present != m_present) {
        m_present = present;
        m_pause = firstPause;
        m_nextAttempt = Clock::now();
    }
    const bool isIncomplete = present.size() > all().size();
    if (always || mayBeRenamed || (isIncomplete && m_nextAttempt <= Clock::now())) {
        identify(present);
        m_nextAttempt = Clock::now() + m_pause;
        m_pause = std::min(2 * m_pause, longestPause);
    }
}

// Returns whether a reader is gone that shared its device ID.
bool MachineReaders::removeMissing(const std::vector<UsbLocation>& present) {
    Readers gone;
    {
        const std::lock_guard lock(m_readersMutex);
        const auto isMissing = [&](const auto& reader) {
            return std::ranges::none_of(
                present, [&](const UsbLocation& location) { return isAt(reader->facts(), location); });
        };
        std::ranges::copy_if(m_readers, std::back_inserter(gone), isMissing);
        std::erase_if(m_readers, isMissing);
    }
    const bool shared = std::ranges::any_of(gone, [](const auto& reader) { return reader->sharesId(); });
    end(std::move(gone));
    return shared;
}

// Report readers as disconnected, and end their requests.
void MachineReaders::end(Readers gone) {
    for (const auto& reader : gone) {
        reader->stop(); // all of them, before waiting for one
        m_reports.put(ReaderChange{
            .connected = false, .facts = reader->facts(), .time = std::chrono::system_clock::now()});
    }
    gone.clear();
}

void MachineReaders::identify(const std::vector<UsbLocation>& present) {
    Readers gone;
    {
        const std::lock_guard opening(m_opening);
        m_identified = present;
        {
            const Gate::Closed closed(m_gate);
            GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
            gone = takeMoved();
            if (!gone.empty()) {
                GVUSB_Scan(GVUSB_SCAN_ALL, nullptr);
            }
        }
        const std::vector<ScanEntry> entries = scanList(present, all());
        const std::set<gvusb::device_id> shared = sharedIds(entries);
        // Their names change, because another reader with their device ID has come or gone.
        std::ranges::move(takeIf([&](const ServedReader& reader) {
                              return reader.sharesId() != shared.contains(reader.facts().id);
                          }),
                          std::back_inserter(gone));
        install(openUnshared(entries, shared, present));
        if (!shared.empty()) {
            install(locateShared(shared, present));
        }
    }
    end(std::move(gone));
    reportUnidentified(present);
}

// Take readers off the list whose handle now belongs to another reader of their device ID.
MachineReaders::Readers MachineReaders::takeMoved() {
    const Nodes open = openUsbNodes();
    return takeIf([&](const ServedReader& reader) { return !reader.isWhereItWas(open); });
}

// Take readers off the list, and close them. Their requests are answered as those of a reader that is gone.
MachineReaders::Readers MachineReaders::takeIf(const std::function<bool(const ServedReader&)>& condition) {
    const std::lock_guard lock(m_readersMutex);
    Readers taken;
    std::erase_if(m_readers, [&](const auto& reader) {
        if (!condition(*reader)) {
            return false;
        }
        taken.push_back(reader);
        return true;
    });
    for (const auto& reader : taken) {
        if (const int handle = reader->retire(); handle > 0) {
            GVUSB_CloseDevice(handle);
        }
    }
    return taken;
}

std::vector<MachineReaders::Found> MachineReaders::openUnshared(const std::vector<ScanEntry>& entries,
                                                                const std::set<gvusb::device_id>& shared,
                                                                const std::vector<UsbLocation>& present) {
    std::vector<Found> found;
    const Readers served = all();
    for (const ScanEntry& entry : entries) {
        const bool isServed =
            std::ranges::any_of(served, [&](const auto& reader) { return reader->facts().id == entry.id; });
        if (isServed || shared.contains(entry.id)) {
            continue;
        }
        const Nodes before = openUsbNodes();
        std::error_code failure;
        gvusb::reader reader = gvusb::open(entry.id, failure);
        const auto location = failure ? std::nullopt : newlyOpened(before, present);
        if (!location) {
            continue;
        }
        ReaderFacts facts = factsOf(entry, *location, false);
        facts.typeNumber = typeNumber(reader.handle());
        found.push_back({.facts = std::move(facts), .reader = std::move(reader), .sharesId = false});
    }
    return found;
}

// The library does not say where a reader is. So open one after the other; two of one device ID are never open at once.
std::vector<MachineReaders::Found> MachineReaders::locateShared(const std::set<gvusb::device_id>& shared,
                                                                const std::vector<UsbLocation>& present) {
    std::vector<Found> found;
    const Nodes before = openUsbNodes();
    int handle = 0;
    {
        const Gate::Closed closed(m_gate);
        handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    }
    const std::vector<ScanEntry> entries = scanList(present, all());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const ScanEntry& entry = entries[i];
        const bool isShared = shared.contains(entry.id);
        if (i != 0) {
            handle =
                isShared ? GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr) : GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr);
        }
        const auto location = handle > 0 ? newlyOpened(before, present) : std::nullopt;
        if (isShared && location) {
            ReaderFacts facts = factsOf(entry, *location, true);
            facts.typeNumber = typeNumber(handle);
            found.push_back({.facts = std::move(facts), .reader = {}, .sharesId = true});
        }
        closeIfOpened(handle, before);
    }
    return found;
}

void MachineReaders::install(std::vector<Found> found) {
    for (Found& each : found) {
        const ReaderFacts facts = each.facts;
        const bool sharesId = each.sharesId;
        if (find(facts.name) != nullptr) {
            continue;
        }
        auto reader = std::make_shared<ServedReader>(
            ServedReader::Setup{
                .facts = facts, .reader = std::move(each.reader), .sharesId = sharesId, .queue = m_queue},
            m_gate, [this, facts, sharesId] { return reopen(facts, sharesId); },
            [this](AnsweredRequest answered) { m_reports.put(std::move(answered)); });
        {
            const std::lock_guard lock(m_readersMutex);
            m_readers.push_back(reader);
        }
        m_reports.put(ReaderChange{.connected = true, .facts = facts, .time = reader->since()});
    }
}

void MachineReaders::reportUnidentified(const std::vector<UsbLocation>& present) {
    const Readers served = all();
    std::vector<std::string> problems;
    for (const UsbLocation& location : present) {
        const bool isServed =
            std::ranges::any_of(served, [&](const auto& reader) { return isAt(reader->facts(), location); });
        if (isServed) {
            continue;
        }
        const std::string place = location.path + " address " + std::to_string(location.address);
        if (m_pause >= pauseBeforeReport || std::ranges::find(m_problems, place) != m_problems.end()) {
            problems.push_back(place);
            if (std::ranges::find(m_problems, place) == m_problems.end()) {
                m_reports.put(ReaderProblem{
                    .text = "the reader at " + location.path +
                            " cannot be identified or opened; run 'gvusb doctor' on this machine"});
            }
        }
    }
    m_problems = std::move(problems);
}

// Called in the thread of the reader.
ServedReader::Opened MachineReaders::reopen(const ReaderFacts& facts, bool sharesId) {
    ServedReader::Opened opened{.reader = {}, .lock = std::unique_lock(m_opening)};
    std::vector<UsbLocation> present = readersOnBus();
    const auto isHere = [&](const std::optional<UsbLocation>& location) {
        return location && isAt(facts, *location);
    };
    if (std::ranges::none_of(present, [&](const UsbLocation& location) { return isAt(facts, location); })) {
        fail(GVUSB_ERR_NOT_PRESENT);
    }
    Nodes before = openUsbNodes();
    if (!sharesId) {
        opened.reader = gvusb::open(facts.id);
        if (!isHere(newlyOpened(before, present))) {
            fail(GVUSB_ERR_NOT_PRESENT);
        }
        opened.lock.unlock();
        return opened;
    }
    // The scan would give the handle of an open reader to a new one with its device ID: wait until that is identified.
    for (int i = 0; i < mostWaits && present != m_identified; ++i) {
        opened.lock.unlock();
        std::this_thread::sleep_for(lookInterval);
        opened.lock.lock();
        present = readersOnBus();
    }
    if (present != m_identified) {
        fail(GVUSB_ERR_NOT_PRESENT);
    }
    before = openUsbNodes();
    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    const std::vector<ScanEntry> entries = scanList(present, all());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const bool isCandidate = entries[i].id == facts.id;
        if (i != 0) {
            handle = isCandidate ? GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, nullptr)
                                 : GVUSB_Scan(GVUSB_SCAN_NEXT, nullptr);
        }
        if (isCandidate && handle > 0 && isHere(newlyOpened(before, present))) {
            opened.reader = gvusb::reader(handle);
            return opened;
        }
        closeIfOpened(handle, before);
    }
    fail(GVUSB_ERR_NOT_PRESENT);
}

} // namespace fleet

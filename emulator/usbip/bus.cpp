#include "usbip/bus.h"

#include <algorithm>
#include <chrono>

namespace emulator {

namespace {

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

std::size_t UsbipBus::add(ReaderDescription description) {
    checkPossible(description);
    return m_readers.add(std::move(description));
}

void UsbipBus::plug(std::size_t number) {
    m_readers.plug(number, now());
}

void UsbipBus::unplug(std::size_t number) {
    m_readers.unplug(number);
    m_server.settle();
}

Bus::NamedCounts UsbipBus::counts(std::size_t number) {
    const HostCounts& counted = m_readers.at(number).counts;
    return {{"opens", counted.opens},
            {"closes", counted.closes},
            {"clear-halts", counted.clearHalts},
            {"resets", counted.resets},
            {"set-configurations", counted.setConfigurations},
            {"transfers", counted.transfers},
            {"cancels", counted.cancels}};
}

void UsbipBus::setBusy(std::size_t, bool) {
    checkHostFaultsPossible();
}

void UsbipBus::bindDriver(std::size_t, const std::string&) {
    checkHostFaultsPossible();
}

void UsbipBus::refuseOpening(std::size_t, int) {
    checkHostFaultsPossible();
}

void UsbipBus::failReset(std::size_t, bool) {
    checkHostFaultsPossible();
}

void UsbipBus::serve(const std::vector<pollfd>& polled, std::size_t first) {
    m_readers.advance(now());
    m_server.serve(polled, first);
    unplugLeaving();
}

std::optional<Time> UsbipBus::nextDeadline() {
    std::optional<Time> earliest = m_server.nextDeadline();
    if (const std::optional<Time> due = m_readers.nextDeadline()) {
        earliest = std::min(earliest.value_or(*due), *due);
    }
    return earliest;
}

void UsbipBus::onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) {
    usbip::Reader& reader = m_readers.at(number);
    action(reader.model);
    if (reader.importer != nullptr) {
        reader.importer->collect();
    } else {
        m_readers.account(reader);
    }
    unplugLeaving();
    m_server.settle();
}

void UsbipBus::unplugLeaving() {
    if (m_readers.unplugLeaving()) {
        m_server.settle();
    }
}

} // namespace emulator

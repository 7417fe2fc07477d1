#include "usbfs/device.h"

#include <algorithm>
#include <cerrno>

namespace emulator {

namespace {

constexpr unsigned mostInterfaces = 64; // of the kernel's set of claimed interfaces

constexpr std::uint64_t bit(unsigned interfaceNumber) {
    return std::uint64_t{1} << interfaceNumber;
}

} // namespace

UsbfsDevice::UsbfsDevice(ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now)
    : m_model(&model)
    , m_faults(faults)
    , m_counts(counts)
    , m_driver(model.description().kernelDriver) {
    model.power(now);
    while (model.takeCompletion()) {
    }
}

OpenId UsbfsDevice::open() {
    ++m_counts.opens;
    m_openings.try_emplace(++m_lastId);
    if (m_model != nullptr) {
        m_model->note(ReaderEvent::opened);
    }
    return m_lastId;
}

void UsbfsDevice::close(OpenId id, Time now) {
    if (m_openings.erase(id) == 0) {
        return;
    }
    ++m_counts.closes;
    ++m_bindings;
    std::deque<PendingUrb> own;
    std::ranges::copy_if(m_pending, std::front_inserter(own),
                         [&](const PendingUrb& urb) { return urb.opening == id; });
    std::erase_if(m_pending, [&](const PendingUrb& urb) { return urb.opening == id; });
    if (m_model == nullptr) {
        return;
    }
    // The newest first: cancelling the oldest would let the model perform the next one.
    for (const PendingUrb& urb : own) {
        m_model->cancel(urb.transfer, now);
    }
    m_model->note(ReaderEvent::closed);
    collect();
}

// ---- interfaces

bool UsbfsDevice::hasInterface(unsigned interfaceNumber) const {
    const ReaderDescription& reader = m_model->description();
    return m_model->configuration() != 0 && interfaceNumber >= reader.firstInterface &&
           interfaceNumber < unsigned{reader.firstInterface} + reader.interfaces;
}

bool UsbfsDevice::isClaimed(unsigned interfaceNumber) const {
    return interfaceNumber < mostInterfaces && std::ranges::any_of(m_openings, [&](const auto& entry) {
               return (entry.second.claimed & bit(interfaceNumber)) != 0;
           });
}

// The interface of an endpoint, or a negative errno.
int UsbfsDevice::interfaceOf(unsigned endpoint) const {
    constexpr unsigned addressBits = 0x8F;
    if ((endpoint & ~addressBits) != 0) {
        return -EINVAL;
    }
    if (m_model->configuration() == 0) {
        return -ESRCH;
    }
    const auto address = static_cast<std::uint8_t>(endpoint);
    return address != 0 && m_model->hasEndpoint(address) ? int{m_model->description().firstInterface}
                                                         : -ENOENT;
}

int UsbfsDevice::claimUncounted(OpenId id, unsigned interfaceNumber) {
    Opening& opening = m_openings.at(id);
    if (interfaceNumber >= mostInterfaces) {
        return -EINVAL;
    }
    if ((opening.claimed & bit(interfaceNumber)) != 0) {
        return 0;
    }
    if (opening.privilegesDropped && (opening.allowed & bit(interfaceNumber)) == 0) {
        return -EACCES;
    }
    if (!hasInterface(interfaceNumber)) {
        return -ENOENT;
    }
    if (m_faults.busy || !driver(interfaceNumber).empty()) {
        return -EBUSY;
    }
    opening.claimed |= bit(interfaceNumber);
    ++m_bindings;
    m_model->note(ReaderEvent::claimed, static_cast<std::uint8_t>(interfaceNumber));
    return 0;
}

// With which a recording that the reader plays says that an action failed.
std::optional<int> UsbfsDevice::recordedFailure(HostAction action, unsigned number) {
    const std::optional<int> result = m_model->recordedResult(action, number);
    return result && *result < 0 ? result : std::nullopt;
}

int UsbfsDevice::claim(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.claims;
    if (const std::optional<int> failure = recordedFailure(HostAction::claim, interfaceNumber)) {
        return *failure;
    }
    return claimUncounted(id, interfaceNumber);
}

int UsbfsDevice::prepareInterface(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    return m_model->configuration() == 0 ? -EHOSTUNREACH : claimUncounted(id, interfaceNumber);
}

int UsbfsDevice::prepareEndpoint(OpenId id, unsigned endpoint) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    const int interfaceNumber = interfaceOf(endpoint);
    return interfaceNumber < 0 ? interfaceNumber
                               : prepareInterface(id, static_cast<unsigned>(interfaceNumber));
}

// Unbinding an interface ends the transfers of its endpoints. Only the first interface has any.
void UsbfsDevice::endTransfers(unsigned interfaceNumber) {
    if (interfaceNumber == m_model->description().firstInterface) {
        m_model->endTransfers();
        collect();
    }
}

int UsbfsDevice::release(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.releases;
    if (const std::optional<int> failure = recordedFailure(HostAction::release, interfaceNumber)) {
        return *failure;
    }
    if (interfaceNumber >= mostInterfaces) {
        return -EINVAL;
    }
    if (!hasInterface(interfaceNumber)) {
        return -ENOENT;
    }
    Opening& opening = m_openings.at(id);
    if ((opening.claimed & bit(interfaceNumber)) == 0) {
        return -EINVAL;
    }
    opening.claimed &= ~bit(interfaceNumber);
    ++m_bindings;
    endTransfers(interfaceNumber);
    m_model->note(ReaderEvent::released, static_cast<std::uint8_t>(interfaceNumber));
    return 0;
}

int UsbfsDevice::setInterface(OpenId id, unsigned interfaceNumber, unsigned setting, Time now) {
    const int prepared = prepareInterface(id, interfaceNumber);
    if (prepared != 0) {
        return prepared;
    }
    if (const std::optional<int> failure = recordedFailure(HostAction::setInterface, interfaceNumber)) {
        return *failure;
    }
    if (setting != 0) {
        return -EINVAL; // no reader has others
    }
    endTransfers(interfaceNumber);
    m_model->chooseSetting(interfaceNumber, now);
    collect();
    return 0;
}

int UsbfsDevice::setConfiguration(OpenId, int value, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.setConfigurations;
    if (const std::optional<int> failure = recordedFailure(HostAction::setConfiguration)) {
        return *failure;
    }
    const bool claimed =
        std::ranges::any_of(m_openings, [](const auto& entry) { return entry.second.claimed != 0; });
    if (m_model->configuration() != 0 && (claimed || !m_driver.empty())) {
        return -EBUSY;
    }
    const auto& values = m_model->description().configurations;
    const int wanted = std::max(value, 0); // -1 unconfigures too
    if (wanted != 0 && std::ranges::find(values, wanted) == values.end()) {
        return -EINVAL;
    }
    const bool accepted = m_model->configure(static_cast<std::uint8_t>(wanted), now);
    ++m_bindings;
    collect();
    return accepted ? 0 : -EPIPE;
}

int UsbfsDevice::clearHalt(OpenId id, unsigned endpoint, Time now) {
    const int prepared = prepareEndpoint(id, endpoint);
    if (prepared != 0) {
        return prepared;
    }
    ++m_counts.clearHalts;
    if (const std::optional<int> failure = recordedFailure(HostAction::clearHalt, endpoint)) {
        return *failure;
    }
    m_model->clearHalt(static_cast<std::uint8_t>(endpoint), now);
    collect();
    return 0;
}

int UsbfsDevice::resetEndpoint(OpenId id, unsigned endpoint) {
    return prepareEndpoint(id, endpoint);
}

int UsbfsDevice::reset(OpenId id, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    const std::uint64_t own = m_openings.at(id).claimed;
    for (unsigned number = 0; m_openings.at(id).privilegesDropped && number < mostInterfaces; ++number) {
        if ((own & bit(number)) == 0 && !driver(number).empty()) {
            return -EACCES;
        }
    }
    ++m_counts.resets;
    if (m_faults.failReset) {
        return -EIO;
    }
    if (const std::optional<int> failure = recordedFailure(HostAction::reset)) {
        return *failure;
    }
    // The kernel unbinds programs from the interfaces of a device that it resets.
    for (auto& [each, opening] : m_openings) {
        opening.claimed = 0;
    }
    ++m_bindings;
    m_model->reset(now);
    collect();
    return 0;
}

int UsbfsDevice::dropPrivileges(OpenId id, std::uint32_t interfaces) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    Opening& opening = m_openings.at(id);
    opening.allowed &= interfaces;
    opening.privilegesDropped = true;
    return 0;
}

// ---- drivers

std::string UsbfsDevice::driver(unsigned interfaceNumber) const {
    if (isClaimed(interfaceNumber)) {
        return "usbfs";
    }
    return m_model != nullptr && m_model->configuration() != 0 &&
                   interfaceNumber == m_model->description().firstInterface
               ? m_driver
               : std::string{};
}

void UsbfsDevice::bindDriver(std::string name) {
    m_driver = std::move(name);
    ++m_bindings;
}

int UsbfsDevice::detachDriver(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.driverDetaches;
    if (m_openings.at(id).privilegesDropped) {
        return -EACCES;
    }
    if (m_model->configuration() == 0) {
        return -EHOSTUNREACH;
    }
    if (!hasInterface(interfaceNumber)) {
        return -EINVAL;
    }
    const std::optional<int> recorded = m_model->recordedResult(HostAction::detachDriver, interfaceNumber);
    if (recorded && *recorded < 0) {
        return *recorded;
    }
    if (driver(interfaceNumber).empty()) {
        return recorded ? 0 : -ENODATA;
    }
    ++m_bindings;
    if (isClaimed(interfaceNumber)) {
        for (auto& [each, opening] : m_openings) {
            opening.claimed &= ~bit(interfaceNumber);
        }
        endTransfers(interfaceNumber);
    } else {
        m_driver.clear();
    }
    return 0;
}

int UsbfsDevice::attachDriver(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    if (m_openings.at(id).privilegesDropped) {
        return -EACCES;
    }
    if (m_model->configuration() == 0) {
        return -EHOSTUNREACH;
    }
    if (!hasInterface(interfaceNumber)) {
        return -EINVAL;
    }
    if (const std::optional<int> failure = recordedFailure(HostAction::attachDriver, interfaceNumber)) {
        return *failure;
    }
    if (!driver(interfaceNumber).empty()) {
        return -EBUSY;
    }
    if (interfaceNumber != m_model->description().firstInterface) {
        return 0; // no driver matches it
    }
    m_driver = m_model->description().kernelDriver;
    ++m_bindings;
    return m_driver.empty() ? 0 : 1;
}

int UsbfsDevice::detachAndClaim(OpenId id, unsigned interfaceNumber, Unless unless, std::string_view name) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    if (!hasInterface(interfaceNumber)) {
        return -EINVAL;
    }
    const std::string bound = driver(interfaceNumber);
    if (!bound.empty()) {
        if (m_openings.at(id).privilegesDropped) {
            return -EACCES;
        }
        if ((unless == Unless::itIsNot && bound != name) || (unless == Unless::itIs && bound == name)) {
            return -EBUSY;
        }
        detachDriver(id, interfaceNumber);
    }
    return claim(id, interfaceNumber);
}

// ---- URBs

int UsbfsDevice::submit(OpenId id, UrbId urb, Transfer transfer, Time now, bool shortNotOk) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    if (transfer.endpoint != 0) {
        const int prepared = prepareEndpoint(id, transfer.endpoint);
        if (prepared != 0) {
            return prepared;
        }
    }
    ++m_counts.transfers;
    const std::size_t capacity = transfer.capacity;
    // The model may have completed it already; collect() looks for it in the list.
    const TransferId transferId = m_model->submit(std::move(transfer), now);
    m_pending.push_back(
        {.opening = id, .urb = urb, .transfer = transferId, .shortNotOk = shortNotOk, .capacity = capacity});
    collect();
    return 0;
}

int UsbfsDevice::discard(OpenId id, UrbId urb, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    const auto found = std::ranges::find_if(
        m_pending, [&](const PendingUrb& entry) { return entry.opening == id && entry.urb == urb; });
    if (found == m_pending.end() || !m_model->cancel(found->transfer, now)) {
        return -EINVAL;
    }
    ++m_counts.cancels;
    collect();
    return 0;
}

void UsbfsDevice::finish(const PendingUrb& urb, Completion& completion) {
    const auto opening = m_openings.find(urb.opening);
    if (opening == m_openings.end()) {
        return;
    }
    ReapedUrb reaped = {.urb = urb.urb,
                        .status = urbStatus(completion.outcome, -ENOENT, completion.failure),
                        .data = std::move(completion.data),
                        .actual = completion.actual};
    if (urb.shortNotOk && reaped.status == 0 && reaped.actual < urb.capacity) {
        reaped.status = -EREMOTEIO;
    }
    opening->second.completed.push_back(std::move(reaped));
}

void UsbfsDevice::collect() {
    if (m_model == nullptr) {
        return;
    }
    while (std::optional<Completion> completion = m_model->takeCompletion()) {
        const auto found = std::ranges::find(m_pending, completion->id, &PendingUrb::transfer);
        if (found != m_pending.end()) {
            finish(*found, *completion);
            m_pending.erase(found);
        }
    }
}

std::optional<ReapedUrb> UsbfsDevice::reap(OpenId id) {
    auto& completed = m_openings.at(id).completed;
    if (completed.empty()) {
        return std::nullopt;
    }
    ReapedUrb urb = std::move(completed.front());
    completed.pop_front();
    return urb;
}

bool UsbfsDevice::pending(OpenId id) const {
    return std::ranges::any_of(m_pending, [&](const PendingUrb& urb) { return urb.opening == id; });
}

void UsbfsDevice::unplug() {
    if (m_model == nullptr) {
        return;
    }
    m_model->unplug();
    collect();
    m_model->note(ReaderEvent::unplugged);
    m_model = nullptr;
    m_driver.clear();
    for (auto& [id, opening] : m_openings) {
        opening.claimed = 0;
    }
}

} // namespace emulator

#include "usbfs/device.h"

#include <algorithm>
#include <cerrno>

namespace emulator {

UsbfsDevice::UsbfsDevice(ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now)
    : m_model(&model)
    , m_faults(faults)
    , m_counts(counts)
    , m_speed(model.description().speed)
    , m_driver(model.description().kernelDriver) {
    model.power(now);
    while (model.takeCompletion()) {
    }
}

OpenId UsbfsDevice::open() {
    ++m_counts.opens;
    m_openings.try_emplace(++m_lastId);
    return m_lastId;
}

void UsbfsDevice::close(OpenId id, Time now) {
    if (m_openings.erase(id) == 0) {
        return;
    }
    ++m_counts.closes;
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
    collect();
}

bool UsbfsDevice::hasInterface(unsigned interfaceNumber) const {
    const ReaderDescription& reader = m_model->description();
    return m_model->configuration() != 0 && interfaceNumber >= reader.firstInterface &&
           interfaceNumber < unsigned{reader.firstInterface} + reader.interfaces;
}

bool UsbfsDevice::claimedByAnother(OpenId id, unsigned interfaceNumber) const {
    return std::ranges::any_of(m_openings, [&](const auto& entry) {
        return entry.first != id && entry.second.claimed.contains(interfaceNumber);
    });
}

int UsbfsDevice::claim(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.claims;
    if (!hasInterface(interfaceNumber)) {
        return -ENOENT;
    }
    if (m_openings.at(id).claimed.contains(interfaceNumber)) {
        return 0;
    }
    if (m_faults.busy || !driver(interfaceNumber).empty()) {
        return -EBUSY;
    }
    m_openings.at(id).claimed.insert(interfaceNumber);
    return 0;
}

int UsbfsDevice::release(OpenId id, unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.releases;
    return m_openings.at(id).claimed.erase(interfaceNumber) != 0 ? 0 : -EINVAL;
}

int UsbfsDevice::setConfiguration(OpenId, int value, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.setConfigurations;
    const bool claimed =
        std::ranges::any_of(m_openings, [](const auto& entry) { return !entry.second.claimed.empty(); });
    if (claimed || !m_driver.empty()) {
        return -EBUSY;
    }
    const auto& values = m_model->description().configurations;
    const int wanted = std::max(value, 0); // -1 unconfigures too
    if (wanted != 0 && std::ranges::find(values, wanted) == values.end()) {
        return -EINVAL;
    }
    const bool accepted = m_model->configure(static_cast<std::uint8_t>(wanted), now);
    collect();
    return accepted ? 0 : -EPIPE;
}

int UsbfsDevice::clearHalt(OpenId, std::uint8_t endpoint, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.clearHalts;
    if (endpoint == 0 || !m_model->hasEndpoint(endpoint)) {
        return -ENOENT;
    }
    m_model->clearHalt(endpoint, now);
    collect();
    return 0;
}

int UsbfsDevice::reset(OpenId, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.resets;
    if (m_faults.failReset) {
        return -EIO;
    }
    m_model->reset(now);
    collect();
    return 0;
}

std::string UsbfsDevice::driver(unsigned interfaceNumber) const {
    if (claimedByAnother(0, interfaceNumber)) {
        return "usbfs";
    }
    return m_model != nullptr && interfaceNumber == m_model->description().firstInterface ? m_driver
                                                                                          : std::string{};
}

void UsbfsDevice::bindDriver(std::string name) {
    m_driver = std::move(name);
}

int UsbfsDevice::detachDriver(unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    ++m_counts.driverDetaches;
    if (!hasInterface(interfaceNumber)) {
        return -EINVAL;
    }
    if (driver(interfaceNumber).empty()) {
        return -ENODATA;
    }
    if (claimedByAnother(0, interfaceNumber)) {
        for (auto& [id, opening] : m_openings) {
            opening.claimed.erase(interfaceNumber);
        }
    } else {
        m_driver.clear();
    }
    return 0;
}

int UsbfsDevice::attachDriver(unsigned interfaceNumber) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    if (!hasInterface(interfaceNumber)) {
        return -EINVAL;
    }
    if (!driver(interfaceNumber).empty()) {
        return -EBUSY;
    }
    m_driver = m_model->description().kernelDriver;
    return 1;
}

int UsbfsDevice::submit(OpenId id, UrbAddress urb, Transfer transfer, Time now) {
    if (m_model == nullptr) {
        return -ENODEV;
    }
    if (!m_model->hasEndpoint(transfer.endpoint)) {
        return -ENOENT;
    }
    if (transfer.endpoint != 0) {
        // As in the kernel, the first transfer claims the interface if the program has not.
        const unsigned interfaceNumber = m_model->description().firstInterface;
        if (!m_openings.at(id).claimed.contains(interfaceNumber)) {
            if (m_faults.busy || !driver(interfaceNumber).empty()) {
                return -EBUSY;
            }
            m_openings.at(id).claimed.insert(interfaceNumber);
        }
    }
    ++m_counts.transfers;
    // The model may have completed it already; collect() looks for it in the list.
    const TransferId transferId = m_model->submit(std::move(transfer), now);
    m_pending.push_back({.opening = id, .urb = urb, .transfer = transferId});
    collect();
    return 0;
}

int UsbfsDevice::discard(OpenId id, UrbAddress urb, Time now) {
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

void UsbfsDevice::collect() {
    if (m_model == nullptr) {
        return;
    }
    while (std::optional<Completion> completion = m_model->takeCompletion()) {
        const auto found = std::ranges::find(m_pending, completion->id, &PendingUrb::transfer);
        if (found == m_pending.end()) {
            continue;
        }
        const auto opening = m_openings.find(found->opening);
        if (opening != m_openings.end()) {
            opening->second.completed.push_back({.urb = found->urb,
                                                 .status = urbStatus(completion->outcome, -ENOENT),
                                                 .data = std::move(completion->data),
                                                 .actual = completion->actual});
        }
        m_pending.erase(found);
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

bool UsbfsDevice::anythingToReap() const {
    return std::ranges::any_of(m_openings, [](const auto& entry) { return !entry.second.completed.empty(); });
}

void UsbfsDevice::unplug() {
    if (m_model == nullptr) {
        return;
    }
    m_model->unplug();
    collect();
    m_model = nullptr;
    m_driver.clear();
}

} // namespace emulator

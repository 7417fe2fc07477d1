#include "usbfs/device.h"

#include <algorithm>
#include <cerrno>

namespace emulator {

UsbfsDevice::UsbfsDevice(ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now)
    : model_(&model)
    , faults_(faults)
    , counts_(counts)
    , speed_(model.description().speed)
    , driver_(model.description().kernelDriver) {
    model.power(now);
    while (model.takeCompletion()) {
    }
}

OpenId UsbfsDevice::open() {
    ++counts_.opens;
    openings_.try_emplace(++lastId_);
    return lastId_;
}

void UsbfsDevice::close(OpenId id, Time now) {
    if (openings_.erase(id) == 0)
        return;
    ++counts_.closes;
    std::deque<Flying> own;
    std::ranges::copy_if(flying_, std::front_inserter(own),
                         [&](const Flying& urb) { return urb.opening == id; });
    std::erase_if(flying_, [&](const Flying& urb) { return urb.opening == id; });
    if (model_ == nullptr)
        return;
    // The last first: taken back from the front, each would let the next be carried out.
    for (const Flying& urb : own)
        model_->cancel(urb.transfer, now);
    collect();
}

bool UsbfsDevice::hasInterface(unsigned interfaceNumber) const {
    const ReaderDescription& reader = model_->description();
    return model_->configuration() != 0 && interfaceNumber >= reader.firstInterface &&
           interfaceNumber < unsigned{reader.firstInterface} + reader.interfaces;
}

bool UsbfsDevice::claimedByAnother(OpenId id, unsigned interfaceNumber) const {
    return std::ranges::any_of(openings_, [&](const auto& entry) {
        return entry.first != id && entry.second.claimed.contains(interfaceNumber);
    });
}

int UsbfsDevice::claim(OpenId id, unsigned interfaceNumber) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.claims;
    if (!hasInterface(interfaceNumber))
        return -ENOENT;
    if (openings_.at(id).claimed.contains(interfaceNumber))
        return 0;
    if (faults_.busy || !driver(interfaceNumber).empty())
        return -EBUSY;
    openings_.at(id).claimed.insert(interfaceNumber);
    return 0;
}

int UsbfsDevice::release(OpenId id, unsigned interfaceNumber) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.releases;
    return openings_.at(id).claimed.erase(interfaceNumber) != 0 ? 0 : -EINVAL;
}

int UsbfsDevice::setConfiguration(OpenId, int value, Time now) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.setConfigurations;
    const bool claimed =
        std::ranges::any_of(openings_, [](const auto& entry) { return !entry.second.claimed.empty(); });
    if (claimed || !driver_.empty())
        return -EBUSY;
    const auto& values = model_->description().configurations;
    const int wanted = std::max(value, 0); // -1 is the kernel's "unconfigured"
    if (wanted != 0 && std::ranges::find(values, wanted) == values.end())
        return -EINVAL;
    const bool accepted = model_->configure(static_cast<std::uint8_t>(wanted), now);
    collect();
    return accepted ? 0 : -EPIPE;
}

int UsbfsDevice::clearHalt(OpenId, std::uint8_t endpoint, Time now) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.clearHalts;
    if (endpoint == 0 || !model_->hasEndpoint(endpoint))
        return -ENOENT;
    model_->clearHalt(endpoint, now);
    collect();
    return 0;
}

int UsbfsDevice::reset(OpenId, Time now) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.resets;
    if (faults_.failReset)
        return -EIO;
    model_->reset(now);
    collect();
    return 0;
}

std::string UsbfsDevice::driver(unsigned interfaceNumber) const {
    if (claimedByAnother(0, interfaceNumber))
        return "usbfs";
    return model_ != nullptr && interfaceNumber == model_->description().firstInterface ? driver_
                                                                                        : std::string{};
}

void UsbfsDevice::bindDriver(std::string name) {
    driver_ = std::move(name);
}

int UsbfsDevice::detachDriver(unsigned interfaceNumber) {
    if (model_ == nullptr)
        return -ENODEV;
    ++counts_.driverDetaches;
    if (!hasInterface(interfaceNumber))
        return -EINVAL;
    if (driver(interfaceNumber).empty())
        return -ENODATA;
    if (claimedByAnother(0, interfaceNumber)) {
        for (auto& [id, opening] : openings_)
            opening.claimed.erase(interfaceNumber);
    } else {
        driver_.clear();
    }
    return 0;
}

int UsbfsDevice::attachDriver(unsigned interfaceNumber) {
    if (model_ == nullptr)
        return -ENODEV;
    if (!hasInterface(interfaceNumber))
        return -EINVAL;
    if (!driver(interfaceNumber).empty())
        return -EBUSY;
    driver_ = model_->description().kernelDriver;
    return 1;
}

int UsbfsDevice::submit(OpenId id, UrbAddress urb, Transfer transfer, Time now) {
    if (model_ == nullptr)
        return -ENODEV;
    if (!model_->hasEndpoint(transfer.endpoint))
        return -ENOENT;
    if (transfer.endpoint != 0) {
        // A program that did not claim the interface gets it claimed by its first transfer.
        const unsigned interfaceNumber = model_->description().firstInterface;
        if (!openings_.at(id).claimed.contains(interfaceNumber)) {
            if (faults_.busy || !driver(interfaceNumber).empty())
                return -EBUSY;
            openings_.at(id).claimed.insert(interfaceNumber);
        }
    }
    ++counts_.transfers;
    // Listed before the model may complete it, so that its completion finds it.
    const TransferId transferId = model_->submit(std::move(transfer), now);
    flying_.push_back({.opening = id, .urb = urb, .transfer = transferId});
    collect();
    return 0;
}

int UsbfsDevice::discard(OpenId id, UrbAddress urb, Time now) {
    if (model_ == nullptr)
        return -ENODEV;
    const auto found = std::ranges::find_if(
        flying_, [&](const Flying& entry) { return entry.opening == id && entry.urb == urb; });
    if (found == flying_.end() || !model_->cancel(found->transfer, now))
        return -EINVAL;
    ++counts_.cancels;
    collect();
    return 0;
}

void UsbfsDevice::collect() {
    if (model_ == nullptr)
        return;
    while (std::optional<Completion> completion = model_->takeCompletion()) {
        const auto found = std::ranges::find(flying_, completion->id, &Flying::transfer);
        if (found == flying_.end())
            continue;
        const auto opening = openings_.find(found->opening);
        if (opening != openings_.end())
            opening->second.completed.push_back({.urb = found->urb,
                                                 .status = urbStatus(completion->outcome, -ENOENT),
                                                 .data = std::move(completion->data),
                                                 .actual = completion->actual});
        flying_.erase(found);
    }
}

std::optional<ReapedUrb> UsbfsDevice::reap(OpenId id) {
    auto& completed = openings_.at(id).completed;
    if (completed.empty())
        return std::nullopt;
    ReapedUrb urb = std::move(completed.front());
    completed.pop_front();
    return urb;
}

bool UsbfsDevice::anythingToReap() const {
    return std::ranges::any_of(openings_, [](const auto& entry) { return !entry.second.completed.empty(); });
}

void UsbfsDevice::unplug() {
    if (model_ == nullptr)
        return;
    model_->unplug();
    collect();
    model_ = nullptr;
    driver_.clear();
}

} // namespace emulator

// The node of a plugged reader, with the openings of programs. It outlives the unplugging as long as one is open.
//
// One thread at a time; the bus guards it.
#pragma once

#include "usbfs/device.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace emulator {

class UsbfsOpening;

struct NodeFacts {
    std::uint8_t bus = 1;
    std::uint8_t address = 0;
    unsigned port = 0; // of the root hub; 0 for the hub itself
    Speed speed = Speed::full;
    Bytes descriptors;            // as read() returns them
    std::uint64_t fileDevice = 0; // of the file in the place of the node
    std::uint64_t fileInode = 0;
    std::function<void(std::uint8_t)> configured; // called when a program has chosen a configuration

    // Called when a driver, "" for none, has been bound to an interface of a configuration.
    std::function<void(std::uint8_t configuration, unsigned interfaceNumber, const std::string& driver)>
        bound;
};

class UsbfsNode {
public:
    UsbfsNode(NodeFacts facts, ReaderModel& model, HostFaults& faults, HostCounts& counts, Time now)
        : m_facts(std::move(facts))
        , m_device(model, faults, counts, now) {}

    const NodeFacts& facts() const { return m_facts; }
    UsbfsDevice& device() { return m_device; }

    void add(UsbfsOpening& opening) { m_openings.push_back(&opening); }
    void remove(UsbfsOpening& opening) { std::erase(m_openings, &opening); }
    const std::vector<UsbfsOpening*>& openings() const { return m_openings; }

    // Show all openings what has changed.
    void refresh();

    // Show which drivers are bound, if that has changed.
    void showDrivers();

    void unplug();

    // When a pending transfer or an opening has to be looked at.
    std::optional<Time> deadline();
    std::optional<Time> scheduled; // kept by the server

private:
    NodeFacts m_facts;
    UsbfsDevice m_device;
    std::vector<UsbfsOpening*> m_openings;
    std::uint64_t m_shownBindings = ~std::uint64_t{0};
    std::vector<std::string> m_shownDrivers; // of the interfaces in turn
    std::uint8_t m_shownConfiguration = 0;
};

} // namespace emulator

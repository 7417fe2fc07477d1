// A device as the system shows it to programs: its files in sysfs and the event that tells of it.
//
// One thread, the launcher's, calls these.
#pragma once

#include "model/description.h"

#include <string>

#include <umockdev.h>

namespace emulator {

struct ShownDevice {
    std::uint8_t bus = 1;
    std::uint8_t address = 0;
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::uint16_t release = 0;
    Speed speed = Speed::full;
    std::uint8_t configuration = 0;
    Bytes descriptors; // the device's, then those of each configuration
};

// Each bus begins with the hub of its host controller, as the kernel shows it.
constexpr std::uint8_t rootHubAddress = 1;

// Shows that hub. Nobody talks to it; its node holds what reading any device's node gives.
void showRootHub(UMockdevTestbed* testbed, const std::string& root, std::uint8_t bus);

// The node of the device with this address, as programs see it.
std::string nodePath(std::uint8_t bus, std::uint8_t address);

// Makes a device with this name appear, whose node is there already. The event that tells of it comes last:
// whoever hears it finds everything in its place. Returns the device's path in sysfs.
std::string show(UMockdevTestbed* testbed, const std::string& root, const std::string& name,
                 const ShownDevice& device);

} // namespace emulator

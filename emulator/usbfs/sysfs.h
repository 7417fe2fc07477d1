// A USB device in sysfs, and the udev event that announces it.
//
// For the launcher's thread only.
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
    Bytes descriptors; // of the device, then of each configuration
};

// Each bus has the root hub of its host controller, as in the kernel.
constexpr std::uint8_t rootHubAddress = 1;

// Add that hub. It answers no ioctls; its node contains its descriptors, as reading any node does.
void showRootHub(UMockdevTestbed* testbed, const std::string& root, std::uint8_t bus);

// The node of the device with this address, as programs see it.
std::string nodePath(std::uint8_t bus, std::uint8_t address);

// Add a device with this name, whose node exists, and return its path in sysfs. The event is sent last, so
// that its receivers find everything in place.
std::string show(UMockdevTestbed* testbed, const std::string& root, const std::string& name,
                 const ShownDevice& device);

} // namespace emulator

// The node of a plugged reader in /dev/bus/usb, which answers the ioctls of usbfs.
//
// The launcher's thread creates, refreshes and destroys it. umockdev answers ioctls in a thread of its own,
// which takes the bus mutex for every access to the reader.
#pragma once

#include "usbfs/opening.h"

#include <memory>
#include <mutex>
#include <string>

#include <umockdev.h>

namespace emulator {

class DeviceNode {
public:
    // Create the node. `path` is as programs see it, "/dev/bus/usb/001/002". Throws std::runtime_error.
    DeviceNode(UMockdevTestbed* testbed, std::string path, std::shared_ptr<UsbfsDevice> device,
               std::mutex& mutex, NodeHooks hooks);
    DeviceNode(const DeviceNode&) = delete;
    DeviceNode& operator=(const DeviceNode&) = delete;

    // Destroy the node without holding the mutex, because the handler's thread may wait for it. Programs that
    // have the node open still get answers, but umockdev aborts a program whose connection it has not
    // accepted yet: call retire() first, and destroy the node later.
    ~DeviceNode();

    // Remove the file. Programs that have the node open, or are just opening it, still get answers.
    void retire();
    const std::string& path() const { return m_path; }

    // Wake programs that have a URB to reap. The mutex is held.
    void refresh();

private:
    UMockdevTestbed* m_testbed;
    std::string m_path;
    std::string m_file;
    UMockdevIoctlBase* m_handler = nullptr;
    std::shared_ptr<SharedNode> m_shared;
};

} // namespace emulator

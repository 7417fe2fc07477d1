// The file under /dev/bus/usb through which programs reach one plugged reader: it answers the usbfs ioctls.
//
// umockdev calls the ioctl handler in a thread of its own; the handler takes the bus mutex for every touch of
// the reader. The node itself is made, refreshed and destroyed by the bus's thread.
#pragma once

#include "usbfs/opening.h"

#include <memory>
#include <mutex>
#include <string>

#include <umockdev.h>

namespace emulator {

class DeviceNode {
public:
    // Makes the node. `path` is as programs see it, "/dev/bus/usb/001/002". Throws std::runtime_error.
    DeviceNode(UMockdevTestbed* testbed, std::string path, std::shared_ptr<UsbfsDevice> device,
               std::mutex& mutex, NodeHooks hooks);
    DeviceNode(const DeviceNode&) = delete;
    DeviceNode& operator=(const DeviceNode&) = delete;

    // Nobody can open the node any more; who has it open keeps being answered. The mutex must not be held,
    // for the handler's thread may be waiting for it. A program that has opened the node but whose connection
    // the handler has not taken yet would die of it: retire the node first, and keep it for a while.
    ~DeviceNode();

    // Nobody can open the node any more; who is about to, or has it open, keeps being answered.
    void retire();
    const std::string& path() const { return m_path; }

    // Wakes programs that have something to reap. The mutex is held.
    void refresh();

private:
    UMockdevTestbed* m_testbed;
    std::string m_path;
    std::string m_file;
    UMockdevIoctlBase* m_handler = nullptr;
    std::shared_ptr<SharedNode> m_shared;
};

} // namespace emulator

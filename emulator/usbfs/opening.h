// One opening of a node: decodes the ioctls of a program and encodes their results.
//
// For umockdev's handler thread only. It takes the bus mutex for every access to the reader.
#pragma once

#include "usbfs/device.h"
#include "usbfs/program_memory.h"
#include "usbfs/readiness_fifo.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace emulator {

struct NodeHooks {
    // Called when a program has chosen a configuration, before the program gets its result, in the handler's
    // thread, without the mutex.
    std::function<void(std::uint8_t)> configured;
    // Called when a transfer may be due earlier than any before, in the handler's thread.
    std::function<void()> deadlineChanged;
};

// Shared by the openings of a node, which may outlive it.
struct SharedNode {
    SharedNode(const std::string& file, std::shared_ptr<UsbfsDevice> openedDevice, std::mutex& busMutex,
               NodeHooks nodeHooks)
        : fifo(file)
        , device(std::move(openedDevice))
        , mutex(busMutex)
        , hooks(std::move(nodeHooks)) {}

    // Signal at the node whether a URB can be reaped. The mutex is held.
    void refresh() { fifo.setReady(device->anythingToReap()); }

    ReadinessFifo fifo;
    std::shared_ptr<UsbfsDevice> device;
    std::mutex& mutex;
    NodeHooks hooks;
};

class UsbfsOpening {
public:
    explicit UsbfsOpening(std::shared_ptr<SharedNode> node);
    UsbfsOpening(const UsbfsOpening&) = delete;
    UsbfsOpening& operator=(const UsbfsOpening&) = delete;
    ~UsbfsOpening() { close(); }

    // The result of an ioctl, or a negative errno.
    int answer(unsigned long request, UMockdevIoctlData* argument);

private:
    // The program's memory of a pending URB, written back when the URB is reaped.
    struct UrbMemory {
        ProgramMemory urb;
        ProgramMemory buffer;
        bool control = false;
    };

    void close();
    int submit(UMockdevIoctlData* argument);
    int reap(UMockdevIoctlData* argument);
    int setConfiguration(int value);
    int getDriver(const ProgramMemory& memory);
    int driverIoctl(const ProgramMemory& memory);
    int detachAndClaim(const ProgramMemory& memory);
    int getCapabilities(const ProgramMemory& memory);
    int getSpeed();

    // Run an action on the device under the mutex, then refresh the node.
    template <typename Action>
    auto onDevice(Action action) {
        const std::lock_guard lock(m_node->mutex);
        auto result = action(*m_node->device, std::chrono::steady_clock::now());
        m_node->refresh();
        return result;
    }

    std::shared_ptr<SharedNode> m_node;
    OpenId m_id = 0;
    bool m_closed = false;
    std::map<UrbAddress, UrbMemory> m_urbs;
};

} // namespace emulator

// The emulated USB bus: a private /sys and /dev with the readers that are plugged, and udev's events about
// them.
//
// One thread, the launcher's, calls the members. Programs' requests come in a thread of umockdev; the mutex
// between the two is the bus's own matter.

#ifndef GVUSB_EMULATOR_VIRTUAL_BUS_H
#define GVUSB_EMULATOR_VIRTUAL_BUS_H

#include "device_node.h"
#include "usbfs_device.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <umockdev.h>

namespace emulator {

// A reader of the bus, plugged or not. Numbers count from 1 in the order in which the readers were described.
struct Reader {
    explicit Reader(ReaderDescription description)
        : model(std::move(description)) {}

    ReaderModel model;
    HostFaults faults;
    HostCounts counts;

    // While it is plugged:
    std::shared_ptr<UsbfsDevice> device;
    std::unique_ptr<DeviceNode> node;
    std::string sysfsPath;
    std::uint8_t address = 0;
};

class VirtualBus {
public:
    // `folder` is where the preload finds what it must know. Throws std::runtime_error.
    explicit VirtualBus(std::filesystem::path folder);
    VirtualBus(const VirtualBus&) = delete;
    VirtualBus& operator=(const VirtualBus&) = delete;
    ~VirtualBus();

    // The folder that umockdev's preload reads the bus from.
    std::string root() const;

    // Adds a reader, unplugged, and returns its number.
    std::size_t add(ReaderDescription description);
    std::size_t size() const { return readers_.size(); }
    bool plugged(std::size_t number) const;

    // Throw TextError where the bus is full, the reader is already there, or not, or a program takes no events.
    void plug(std::size_t number);
    void unplug(std::size_t number);

    // Runs an action on a reader under the mutex, then delivers what it completed.
    template <typename Action>
    auto with(std::size_t number, Action action) {
        Reader& reader = readerNumber(number);
        const std::lock_guard lock(mutex_);
        if constexpr (std::is_void_v<decltype(action(reader))>) {
            action(reader);
            deliver(reader);
        } else {
            auto result = action(reader);
            deliver(reader);
            return result;
        }
    }

    // Opening the reader's node fails with this errno from now on; 0 lets programs in.
    void refuseOpening(std::size_t number, int error);

    // When advance() is due.
    std::optional<Time> nextDeadline();
    void advance();

    // Readable when the deadline may have become earlier; noteWakeUp() clears it.
    int wakeUpDescriptor() const { return wakeUp_; }
    void noteWakeUp();

private:
    Reader& readerNumber(std::size_t number) const;
    static void deliver(Reader& reader);
    std::uint8_t freeAddress(const ReaderDescription& description);
    void awaitListeners() const;
    std::filesystem::path refusalFile(const Reader& reader) const;
    void writeRefusal(const Reader& reader) const;

    std::filesystem::path folder_;
    UMockdevTestbed* testbed_ = nullptr;
    int wakeUp_ = -1;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Reader>> readers_;
    std::map<std::uint8_t, std::uint8_t> lastAddress_; // by bus
    std::vector<std::pair<Time, std::unique_ptr<DeviceNode>>>
        retired_; // nodes of unplugged readers, and since when
};

} // namespace emulator

#endif

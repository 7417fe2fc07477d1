// The emulated USB bus: a private /sys and /dev with the plugged readers, and their udev events.
//
// For the launcher's thread only. Ioctls of programs arrive in a thread of umockdev; the bus's mutex guards
// the readers between the two.
#pragma once

#include "control/bus.h"
#include "usbfs/device.h"
#include "usbfs/node.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <umockdev.h>

namespace emulator {

// A reader of the bus, plugged or not.
struct Reader {
    explicit Reader(ReaderDescription description)
        : model(std::move(description)) {}

    ReaderModel model;
    HostFaults faults;
    HostCounts counts;

    // Only while it is plugged.
    std::shared_ptr<UsbfsDevice> device;
    std::unique_ptr<DeviceNode> node;
    std::string sysfsPath;
    std::uint8_t address = 0;
};

class VirtualBus final : public Bus {
public:
    // The preload looks for refusals in `folder`. Throws std::runtime_error.
    explicit VirtualBus(std::filesystem::path folder);
    ~VirtualBus() override;

    // Where umockdev's preload finds the emulated /sys and /dev.
    std::string root() const;

    std::size_t add(ReaderDescription description) override;
    std::size_t size() const override { return m_readers.size(); }
    bool plugged(std::size_t number) const override;
    void plug(std::size_t number) override;
    void unplug(std::size_t number) override;
    std::string place(std::size_t number) const override;

    NamedCounts counts(std::size_t number) override;
    void setBusy(std::size_t number, bool busy) override;
    void bindDriver(std::size_t number, const std::string& name) override;
    void refuseOpening(std::size_t number, int error) override;
    void failReset(std::size_t number, bool fails) override;

    void addPolled(std::vector<pollfd>& descriptors) override;
    void serve(const std::vector<pollfd>& polled, std::size_t first) override;
    std::optional<Time> nextDeadline() override;

protected:
    void onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) override;

private:
    Reader& readerNumber(std::size_t number) const;
    static void deliver(Reader& reader);
    void ensureRootHub(std::uint8_t bus); // before the bus's first reader
    std::uint8_t freeAddress(const ReaderDescription& description);
    void awaitListeners() const;
    std::filesystem::path refusalFile(const Reader& reader) const;
    void writeRefusal(const Reader& reader) const;

    std::filesystem::path m_folder;
    UMockdevTestbed* m_testbed = nullptr;
    int m_wakeUp = -1; // readable when the next deadline may be earlier
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Reader>> m_readers;
    std::map<std::uint8_t, std::uint8_t> m_lastAddress; // by bus
    std::vector<std::pair<Time, std::unique_ptr<DeviceNode>>>
        m_retired; // nodes of unplugged readers, since when
};

} // namespace emulator

// The emulated USB bus: a private /sys and /dev with the plugged readers, their nodes and their udev events.
//
// For the launcher's thread only. The thread of the node server answers programs; the server's lock guards the readers
// between the two.
#pragma once

#include "control/bus.h"
#include "usbfs/device.h"
#include "usbfs/node.h"
#include "usbfs/node_server.h"
#include "usbfs/sysfs.h"
#include "usbfs/uevents.h"

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace emulator {

// A reader of the bus, plugged or not.
struct Reader {
    explicit Reader(ReaderDescription description)
        : model(std::move(description)) {}

    ReaderModel model;
    HostFaults faults;
    HostCounts counts;
    std::size_t plugs = 0; // so far

    // Only while it is plugged.
    std::shared_ptr<UsbfsNode> node;
    ShownDevice shown;
};

class VirtualBus final : public Bus {
public:
    // Everything is in `folder`, which programs know by its name. Throws std::system_error.
    explicit VirtualBus(const std::filesystem::path& folder);

    std::size_t size() const override { return m_readers.size(); }
    const ReaderDescription& description(std::size_t number) const override;
    bool hostIsElsewhere() const override { return false; }

    std::size_t add(ReaderDescription description) override;
    void removeLast() override;
    void checkRoom(const std::vector<std::size_t>& numbers) const override;
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
    struct Place {
        std::uint8_t bus = 0;
        std::uint8_t address = 0;
    };

    // The addresses of one bus.
    struct Addresses {
        Addresses();

        // Like the kernel, search upward from the last address that was chosen, so that a replugged device gets
        // another one.
        std::optional<std::uint8_t> next() const;

        std::vector<bool> taken;
        std::multiset<std::uint8_t> reserved; // that readers name, plugged or not
        std::uint8_t last;
    };
    using Buses = std::map<std::uint8_t, Addresses>;

    // On the bus of the description, or on the next that has room. Throws TextError.
    static Place freePlace(const Buses& buses, const ReaderDescription& description, std::size_t plugs);
    static void take(Buses& buses, const ReaderDescription& description, Place place);

    void connect(Reader& reader, const std::string& name, Place at, unsigned port);
    void remove(Reader& reader);
    void showOnHub(const Reader& reader, bool plugged);
    void unplugLeaving();
    void ensureRootHub(std::uint8_t bus);                       // before the bus's first reader
    void ensureHubs(std::uint8_t bus, const std::string& name); // between the root hub and this device
    std::string freeName(std::size_t number, std::uint8_t bus) const;

    Sysfs m_sysfs;
    Uevents m_uevents;
    std::vector<std::unique_ptr<Reader>> m_readers;
    std::map<std::uint8_t, std::unique_ptr<Reader>> m_rootHubs; // by bus
    std::map<std::string, std::unique_ptr<Reader>> m_hubs;      // others, by name
    std::map<std::string, std::size_t> m_names;                 // how many readers want a place
    std::vector<std::unique_ptr<Reader>> m_removed;             // programs may have them open
    Buses m_buses;
    NodeServer m_server; // its thread ends before the readers do
};

} // namespace emulator

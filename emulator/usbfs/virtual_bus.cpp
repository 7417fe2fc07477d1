#include "usbfs/virtual_bus.h"

#include "preload_contract.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace emulator {

namespace {

constexpr std::uint8_t highestAddress = 127;

Time now() {
    return std::chrono::steady_clock::now();
}

// Of a name such as "1-2.3".
unsigned portOf(const std::string& name) {
    return static_cast<unsigned>(number("port", name.substr(name.find_last_of("-.") + 1), 1, 65535));
}

} // namespace

VirtualBus::VirtualBus(const std::filesystem::path& folder)
    : m_sysfs(folder / emulate_root)
    , m_uevents(folder)
    , m_server(folder) {
    ensureRootHub(1);
}

Reader& VirtualBus::readerNumber(std::size_t number) const {
    if (number < 1 || number > m_readers.size()) {
        throw TextError("no reader " + std::to_string(number));
    }
    return *m_readers[number - 1];
}

std::size_t VirtualBus::add(ReaderDescription description) {
    if (description.address) {
        m_buses[description.bus].reserved.insert(*description.address);
    }
    for (const std::uint8_t address : description.addresses) {
        m_buses[description.bus].reserved.insert(address);
    }
    if (!description.place.empty()) {
        ++m_names[description.place];
    }
    m_readers.push_back(std::make_unique<Reader>(std::move(description)));
    return m_readers.size();
}

const ReaderDescription& VirtualBus::description(std::size_t number) const {
    return readerNumber(number).model.description();
}

void VirtualBus::removeLast() {
    const ReaderDescription& last = description(size());
    auto& reserved = m_buses[last.bus].reserved;
    if (last.address) {
        reserved.erase(reserved.find(*last.address));
    }
    for (const std::uint8_t address : last.addresses) {
        reserved.erase(reserved.find(address));
    }
    if (!last.place.empty() && --m_names[last.place] == 0) {
        m_names.erase(last.place);
    }
    m_removed.push_back(std::move(m_readers.back()));
    m_readers.pop_back();
}

void VirtualBus::ensureRootHub(std::uint8_t bus) {
    if (m_rootHubs.contains(bus)) {
        return;
    }
    const auto hub = m_rootHubs.emplace(bus, std::make_unique<Reader>(rootHub(bus))).first;
    connect(*hub->second, rootHubName(bus), {.bus = bus, .address = rootHubAddress}, 0);
}

bool VirtualBus::plugged(std::size_t number) const {
    return readerNumber(number).node != nullptr;
}

VirtualBus::Addresses::Addresses()
    : taken(highestAddress + std::size_t{1})
    , last(rootHubAddress) {
    taken[rootHubAddress] = true;
}

std::optional<std::uint8_t> VirtualBus::Addresses::next() const {
    std::uint8_t address = last;
    for (std::uint8_t tried = 0; tried < highestAddress; ++tried) {
        address = address == highestAddress ? std::uint8_t{1} : static_cast<std::uint8_t>(address + 1);
        if (!taken[address] && !reserved.contains(address)) {
            return address;
        }
    }
    return std::nullopt;
}

// A hub of its own is made for each part of the name that is no reader.
void VirtualBus::ensureHubs(std::uint8_t bus, const std::string& name) {
    for (std::size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1)) {
        const std::string hubName = name.substr(0, dot);
        if (m_hubs.contains(hubName)) {
            continue;
        }
        const ReaderDescription description = rootHub(bus);
        const Place at = freePlace(m_buses, description, 0);
        Reader& hub = *m_hubs.emplace(hubName, std::make_unique<Reader>(description)).first->second;
        connect(hub, hubName, at, portOf(hubName));
        take(m_buses, description, at);
    }
}

// On the port with the reader's number, or the next one that is free.
std::string VirtualBus::freeName(std::size_t number, std::uint8_t bus) const {
    if (m_names.empty()) {
        return numbered("%u-%u", bus, static_cast<unsigned>(number));
    }
    for (auto port = static_cast<unsigned>(number);; ++port) {
        std::string name = numbered("%u-%u", bus, port);
        const bool taken = std::ranges::any_of(
            m_readers, [&](const auto& each) { return each->node && each->shown.name == name; });
        if (!taken && !m_names.contains(name) && !m_hubs.contains(name)) {
            return name;
        }
    }
}

VirtualBus::Place VirtualBus::freePlace(const Buses& buses, const ReaderDescription& description,
                                        std::size_t plugs) {
    const auto addresses = [&](std::uint8_t bus) {
        const auto found = buses.find(bus);
        return found != buses.end() ? found->second : Addresses();
    };
    if (description.address) {
        if (addresses(description.bus).taken[*description.address]) {
            throw TextError("address " + std::to_string(*description.address) + " is in use");
        }
        return {.bus = description.bus, .address = *description.address};
    }
    if (plugs < description.addresses.size() &&
        !addresses(description.bus).taken[description.addresses[plugs]]) {
        return {.bus = description.bus, .address = description.addresses[plugs]};
    }
    constexpr unsigned lastBus = 255;
    for (unsigned number = description.bus; number <= lastBus; ++number) {
        const auto bus = static_cast<std::uint8_t>(number);
        if (const std::optional<std::uint8_t> address = addresses(bus).next()) {
            return {.bus = bus, .address = *address};
        }
    }
    throw TextError("no bus from " + std::to_string(description.bus) + " to 255 has a free address");
}

void VirtualBus::take(Buses& buses, const ReaderDescription& description, Place place) {
    Addresses& addresses = buses[place.bus];
    addresses.taken[place.address] = true;
    if (!description.address) {
        addresses.last = place.address;
    }
}

void VirtualBus::checkRoom(const std::vector<std::size_t>& numbers) const {
    Buses buses = m_buses;
    for (const std::size_t number : numbers) {
        take(buses, description(number), freePlace(buses, description(number), readerNumber(number).plugs));
    }
}

void VirtualBus::connect(Reader& reader, const std::string& name, Place at, unsigned port) {
    const ReaderDescription& description = reader.model.description();
    reader.shown = shownDevice(name, description, at.bus, at.address, port);
    reader.shown.ports = description.hub ? reader.model.portCount() : 0;
    for (const std::uint8_t unreadable : reader.model.requestFaults().unreadableStrings) {
        reader.shown.strings.erase(unreadable);
    }
    struct stat place {};
    try {
        place = m_sysfs.show(reader.shown);
    } catch (const std::system_error& error) {
        m_sysfs.hideNode(reader.shown);
        m_sysfs.hide(reader.shown);
        throw TextError(error.what());
    }
    {
        const NodeServer::Lock lock(m_server);
        NodeFacts facts = {.bus = at.bus,
                           .address = at.address,
                           .port = port,
                           .speed = description.speed,
                           .descriptors = reader.shown.descriptors,
                           .fileDevice = place.st_dev,
                           .fileInode = place.st_ino,
                           .configured = [this, shown = reader.shown](
                                             std::uint8_t value) { m_sysfs.setConfiguration(shown, value); },
                           .bound =
                               [this, shown = reader.shown](std::uint8_t configuration,
                                                            unsigned interfaceNumber,
                                                            const std::string& driver) {
                                   m_sysfs.setDriver(shown, configuration, interfaceNumber, driver);
                               }};
        reader.node =
            std::make_shared<UsbfsNode>(std::move(facts), reader.model, reader.faults, reader.counts, now());
        reader.node->showDrivers();
        m_server.add(reader.node, reader.faults.refuseOpen);
    }
    showOnHub(reader, true);
    m_uevents.send("add", reader.shown);
}

// On the port of the root hub.
void VirtualBus::showOnHub(const Reader& reader, bool plugged) {
    if (reader.shown.port == 0) {
        return;
    }
    const std::size_t dot = reader.shown.name.rfind('.');
    const auto found = m_hubs.find(reader.shown.name.substr(0, std::min(dot, reader.shown.name.size())));
    const bool isBehindHub = dot != std::string::npos && found != m_hubs.end();
    Reader& hub = isBehindHub ? *found->second : *m_rootHubs.at(reader.shown.bus);
    const unsigned before = hub.model.portCount();
    {
        const NodeServer::Lock lock(m_server);
        hub.model.connectPort(reader.shown.port, plugged ? std::optional(reader.shown.speed) : std::nullopt);
    }
    if (hub.model.portCount() != before) {
        m_sysfs.setPorts(hub.shown, hub.model.portCount());
    }
}

// The node goes first and the rest after the event, as in the kernel.
void VirtualBus::remove(Reader& reader) {
    m_sysfs.hideNode(reader.shown);
    {
        const NodeServer::Lock lock(m_server);
        m_server.remove(*reader.node);
        reader.node.reset();
    }
    showOnHub(reader, false);
    m_uevents.send("remove", reader.shown);
    m_sysfs.hide(reader.shown);
}

void VirtualBus::plug(std::size_t number) {
    Reader& reader = readerNumber(number);
    if (reader.node) {
        throw TextError("reader " + std::to_string(number) + " is already plugged");
    }
    const ReaderDescription& description = reader.model.description();
    const Place at = freePlace(m_buses, description, reader.plugs);
    ensureRootHub(at.bus);
    const bool isPlaced = !description.place.empty() && at.bus == description.bus;
    const std::string name = isPlaced ? description.place : freeName(number, at.bus);
    const auto isThere = [&](const auto& each) { return each->node && each->shown.name == name; };
    if (isPlaced && std::ranges::any_of(m_readers, isThere)) {
        throw TextError("port " + name + " is in use");
    }
    ensureHubs(at.bus, name);
    connect(reader, name, at, portOf(name));
    ++reader.plugs;
    take(m_buses, description, at);
}

void VirtualBus::unplug(std::size_t number) {
    Reader& reader = readerNumber(number);
    if (!reader.node) {
        throw TextError("reader " + std::to_string(number) + " is not plugged");
    }
    remove(reader);
    m_buses.at(reader.shown.bus).taken[reader.shown.address] = false;
}

void VirtualBus::unplugLeaving() {
    if (!m_server.takeLeaving()) {
        return;
    }
    for (std::size_t number = 1; number <= size(); ++number) {
        bool leaving = false;
        if (plugged(number)) {
            const NodeServer::Lock lock(m_server);
            leaving = readerNumber(number).model.leaving();
        }
        if (leaving) {
            unplug(number);
        }
    }
}

void VirtualBus::onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    action(reader.model);
    if (reader.node) {
        m_server.refresh(*reader.node);
    }
}

std::string VirtualBus::place(std::size_t number) const {
    const ShownDevice& shown = readerNumber(number).shown;
    return numbered("%03u/%03u", shown.bus, shown.address);
}

Bus::NamedCounts VirtualBus::counts(std::size_t number) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    if (reader.node) {
        m_server.closeLeft(*reader.node);
    }
    m_server.closeLeftUnplugged();
    const HostCounts& counted = reader.counts;
    return {{"opens", counted.opens},
            {"closes", counted.closes},
            {"claims", counted.claims},
            {"releases", counted.releases},
            {"clear-halts", counted.clearHalts},
            {"resets", counted.resets},
            {"set-configurations", counted.setConfigurations},
            {"driver-detaches", counted.driverDetaches},
            {"transfers", counted.transfers},
            {"cancels", counted.cancels}};
}

void VirtualBus::setBusy(std::size_t number, bool busy) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    reader.faults.busy = busy;
}

void VirtualBus::bindDriver(std::size_t number, const std::string& name) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    reader.model.setKernelDriver(name);
    if (reader.node) {
        reader.node->device().bindDriver(name);
        reader.node->showDrivers();
    }
}

void VirtualBus::failReset(std::size_t number, bool fails) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    reader.faults.failReset = fails;
}

void VirtualBus::refuseOpening(std::size_t number, int error) {
    Reader& reader = readerNumber(number);
    const NodeServer::Lock lock(m_server);
    reader.faults.refuseOpen = error;
}

std::optional<Time> VirtualBus::nextDeadline() {
    return m_server.nextDeadline();
}

void VirtualBus::addPolled(std::vector<pollfd>& descriptors) {
    descriptors.push_back({.fd = m_server.descriptor(), .events = POLLIN, .revents = 0});
    descriptors.push_back({.fd = m_uevents.descriptor(), .events = POLLIN, .revents = 0});
}

void VirtualBus::serve(const std::vector<pollfd>& polled, std::size_t first) {
    m_server.serve();
    unplugLeaving();
    if (polled[first + 1].revents != 0) {
        m_uevents.sendKept();
    }
}

} // namespace emulator

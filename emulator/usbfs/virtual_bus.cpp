#include "usbfs/virtual_bus.h"

#include "model/descriptors.h"
#include "preload_contract.h"
#include "usbfs/sysfs.h"
#include "usbfs/uevent_listeners.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <system_error>

#include <sys/eventfd.h>
#include <unistd.h>

namespace emulator {

namespace {

// How long to keep the node of an unplugged reader for programs that are just opening it.
constexpr std::chrono::seconds retirement(1);

// How long a program may leave udev events unread before plugging and unplugging fail.
constexpr std::chrono::seconds patience(20);

Time now() {
    return std::chrono::steady_clock::now();
}

} // namespace

VirtualBus::VirtualBus(std::filesystem::path folder)
    : m_folder(std::move(folder))
    , m_wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_wakeUp < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    std::filesystem::create_directory(m_folder / emulate_refusals);
    m_testbed = umockdev_testbed_new();
    // libusb looks for these folders when it starts, even without readers.
    std::filesystem::create_directories(root() + emulate_node_folder);
    std::filesystem::create_directories(root() + "/sys/bus/usb/devices");
    ensureRootHub(1);
}

VirtualBus::~VirtualBus() {
    for (const auto& reader : m_readers) {
        reader->node.reset();
    }
    m_retired.clear();
    g_object_unref(m_testbed);
    ::close(m_wakeUp);
}

std::string VirtualBus::root() const {
    gchar* root = umockdev_testbed_get_root_dir(m_testbed);
    std::string text = root;
    g_free(root);
    return text;
}

Reader& VirtualBus::readerNumber(std::size_t number) const {
    if (number < 1 || number > m_readers.size()) {
        throw TextError("no reader " + std::to_string(number));
    }
    return *m_readers[number - 1];
}

std::size_t VirtualBus::add(ReaderDescription description) {
    m_readers.push_back(std::make_unique<Reader>(std::move(description)));
    return m_readers.size();
}

void VirtualBus::ensureRootHub(std::uint8_t bus) {
    if (m_lastAddress.try_emplace(bus, rootHubAddress).second) {
        showRootHub(m_testbed, root(), bus);
    }
}

// Called before anything is changed, so that a failure changes nothing.
void VirtualBus::awaitListeners() const {
    if (!waitForRoomAtListeners(root(), patience)) {
        throw TextError("a program on the bus does not read its udev events");
    }
}

bool VirtualBus::plugged(std::size_t number) const {
    return readerNumber(number).node != nullptr;
}

// Like the kernel, search upward from the last address, so that a replugged device gets another one.
std::uint8_t VirtualBus::freeAddress(const ReaderDescription& description) {
    constexpr std::uint8_t highestAddress = 127;
    const auto taken = [&](std::uint8_t address) {
        return address == rootHubAddress || std::ranges::any_of(m_readers, [&](const auto& reader) {
                   return reader->node != nullptr && reader->model.description().bus == description.bus &&
                          reader->address == address;
               });
    };
    if (description.address) {
        if (taken(*description.address)) {
            throw TextError("address " + std::to_string(*description.address) + " is in use");
        }
        return *description.address;
    }
    std::uint8_t& last = m_lastAddress[description.bus];
    for (std::uint8_t tried = 0; tried < highestAddress; ++tried) {
        last = last == highestAddress ? std::uint8_t{1} : static_cast<std::uint8_t>(last + 1);
        if (!taken(last)) {
            return last;
        }
    }
    throw TextError("bus " + std::to_string(description.bus) + " has no free address");
}

void VirtualBus::plug(std::size_t number) {
    Reader& reader = readerNumber(number);
    if (reader.node) {
        throw TextError("reader " + std::to_string(number) + " is already plugged");
    }
    awaitListeners();
    const ReaderDescription& description = reader.model.description();
    ensureRootHub(description.bus);
    reader.address = freeAddress(description);
    {
        const std::lock_guard lock(m_mutex);
        reader.device = std::make_shared<UsbfsDevice>(reader.model, reader.faults, reader.counts, now());
    }
    writeRefusal(reader);

    const std::string name = numbered("%u-%u", description.bus, static_cast<unsigned>(number));
    const ShownDevice shown = {.bus = description.bus,
                               .address = reader.address,
                               .vendor = description.vendor,
                               .product = description.product,
                               .release = description.release,
                               .speed = description.speed,
                               .configuration = reader.model.configuration(),
                               .descriptors = allDescriptors(description)};
    const std::string node = nodePath(shown.bus, shown.address);
    std::erase_if(m_retired, [&](const auto& entry) {
        return entry.second->path() == node || now() - entry.first > retirement;
    });
    reader.node = std::make_unique<DeviceNode>(
        m_testbed, node, reader.device, m_mutex,
        NodeHooks{.configured =
                      [testbed = m_testbed, path = "/sys/devices/" + name](std::uint8_t value) {
                          umockdev_testbed_set_attribute_int(testbed, path.c_str(), "bConfigurationValue",
                                                             value);
                      },
                  .deadlineChanged =
                      [this] {
                          const std::uint64_t one = 1;
                          [[maybe_unused]] const ssize_t written = ::write(m_wakeUp, &one, sizeof one);
                      }});
    reader.sysfsPath = show(m_testbed, root(), name, shown);
}

void VirtualBus::unplug(std::size_t number) {
    Reader& reader = readerNumber(number);
    if (!reader.node) {
        throw TextError("reader " + std::to_string(number) + " is not plugged");
    }
    awaitListeners();
    {
        const std::lock_guard lock(m_mutex);
        reader.device->unplug();
        reader.node->refresh();
    }
    umockdev_testbed_uevent(m_testbed, reader.sysfsPath.c_str(), "remove");
    reader.node->retire();
    m_retired.emplace_back(now(), std::move(reader.node));
    umockdev_testbed_remove_device(m_testbed, reader.sysfsPath.c_str());
    std::filesystem::remove_all(root() + reader.sysfsPath);
    std::filesystem::remove(refusalFile(reader));
    reader.device.reset();
}

void VirtualBus::deliver(Reader& reader) {
    if (!reader.node) {
        return;
    }
    reader.device->collect();
    reader.node->refresh();
}

void VirtualBus::onModel(std::size_t number, const std::function<void(ReaderModel&)>& action) {
    Reader& reader = readerNumber(number);
    const std::lock_guard lock(m_mutex);
    action(reader.model);
    deliver(reader);
}

std::string VirtualBus::place(std::size_t number) const {
    const Reader& reader = readerNumber(number);
    return numbered("%03u/%03u", reader.model.description().bus, reader.address);
}

Bus::NamedCounts VirtualBus::counts(std::size_t number) {
    const Reader& reader = readerNumber(number);
    const std::lock_guard lock(m_mutex);
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
    const std::lock_guard lock(m_mutex);
    reader.faults.busy = busy;
}

void VirtualBus::bindDriver(std::size_t number, const std::string& name) {
    Reader& reader = readerNumber(number);
    const std::lock_guard lock(m_mutex);
    reader.model.setKernelDriver(name);
    if (reader.device) {
        reader.device->bindDriver(name);
    }
}

void VirtualBus::failReset(std::size_t number, bool fails) {
    Reader& reader = readerNumber(number);
    const std::lock_guard lock(m_mutex);
    reader.faults.failReset = fails;
}

void VirtualBus::refuseOpening(std::size_t number, int error) {
    Reader& reader = readerNumber(number);
    reader.faults.refuseOpen = error;
    if (reader.node) {
        writeRefusal(reader);
    }
}

std::filesystem::path VirtualBus::refusalFile(const Reader& reader) const {
    std::array<char, PATH_MAX> path{};
    emulate_refusal_path(path.data(), path.size(), m_folder.c_str(),
                         nodePath(reader.model.description().bus, reader.address).c_str());
    return path.data();
}

// A symbolic link, because it can be read in one step, by any user.
void VirtualBus::writeRefusal(const Reader& reader) const {
    const std::filesystem::path link = refusalFile(reader);
    std::filesystem::remove(link);
    if (reader.faults.refuseOpen != 0) {
        std::filesystem::create_symlink(std::to_string(reader.faults.refuseOpen), link);
    }
}

std::optional<Time> VirtualBus::nextDeadline() {
    const std::lock_guard lock(m_mutex);
    std::optional<Time> earliest;
    for (const auto& reader : m_readers) {
        if (const std::optional<Time> deadline = reader->model.nextDeadline()) {
            earliest = std::min(earliest.value_or(*deadline), *deadline);
        }
    }
    return earliest;
}

void VirtualBus::addPolled(std::vector<pollfd>& descriptors) {
    descriptors.push_back({.fd = m_wakeUp, .events = POLLIN, .revents = 0});
}

void VirtualBus::serve(const std::vector<pollfd>& polled, std::size_t first) {
    if (polled[first].revents != 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t read = ::read(m_wakeUp, &count, sizeof count);
    }
    const std::lock_guard lock(m_mutex);
    const Time present = now();
    for (const auto& reader : m_readers) {
        reader->model.advance(present);
        deliver(*reader);
    }
}

} // namespace emulator

#include "show/recorded_readers.h"

#include "base/reader_facts.h"
#include "hexadecimal.h"

#include <algorithm>
#include <numeric>

namespace {

std::string stringAt(const capture::Device& device, StringIndex index) {
    for (const auto& [key, descriptor] : device.strings) {
        if (key.second == static_cast<unsigned>(index) && descriptor.size() > 2) {
            return capture::stringOf(descriptor);
        }
    }
    return {};
}

// The kernel's copy of the serial number is known even if no program has read the string.
std::string idOf(const capture::Device& device) {
    constexpr std::size_t serialAt = 16;
    std::string text = stringAt(device, StringIndex::deviceId);
    const bool isSerial = device.descriptor.size() > serialAt &&
                          device.descriptor[serialAt] == static_cast<std::uint8_t>(StringIndex::deviceId);
    if (text.empty() && isSerial) {
        text = device.serial;
    }
    const auto id = parseDeviceId(text);
    return id ? deviceIdText(*id) : std::string{};
}

std::string pathOf(const capture::Device& device) {
    return device.name.empty() ? std::string{} : "usb:" + device.name;
}

void fill(std::string& known, std::string text) {
    if (known.empty()) {
        known = std::move(text);
    }
}

class Grouping {
public:
    explicit Grouping(const capture::Capture& capture)
        : m_capture(capture) {
        m_found.ofDevice.resize(capture.devices.size());
    }

    void add(std::size_t index) {
        const capture::Device& device = m_capture.devices[index];
        const std::string id = idOf(device);
        RecordedReader& reader = readerFor(device, id);
        reader.devices.push_back(index);
        fill(reader.id, id);
        fill(reader.family, stringAt(device, StringIndex::familyName));
        fill(reader.name, stringAt(device, StringIndex::deviceName));
        fill(reader.name, device.product);
        m_found.ofDevice[index] = static_cast<std::size_t>(&reader - m_found.readers.data());
    }

    RecordedReaders take(capture::Time begin) {
        for (RecordedReader& reader : m_found.readers) {
            label(reader);
            addAbsences(reader, begin);
        }
        return std::move(m_found);
    }

private:
    // The reader that was at the same place and has left, or a new one.
    RecordedReader& readerFor(const capture::Device& device, const std::string& id) {
        const auto isBack = [&](const RecordedReader& reader) {
            const capture::Device& last = m_capture.devices[reader.devices.back()];
            const bool isSamePlace = device.name.empty()
                                         ? last.bus == device.bus && last.address == device.address
                                         : reader.path == pathOf(device);
            const bool isSameKind =
                reader.vendor == device.vendorId() && reader.product == device.productId();
            const bool isSameId = id.empty() || reader.id.empty() || id == reader.id;
            return last.leftAt && *last.leftAt <= device.firstSeen && isSamePlace && isSameKind && isSameId;
        };
        const auto found = std::ranges::find_if(m_found.readers, isBack);
        if (found != m_found.readers.end()) {
            return *found;
        }
        RecordedReader& reader = m_found.readers.emplace_back();
        reader.path = pathOf(device);
        reader.bus = device.bus;
        reader.address = device.address;
        reader.vendor = device.vendorId();
        reader.product = device.productId();
        return reader;
    }

    void label(RecordedReader& reader) const {
        const auto sameId = std::ranges::count(m_found.readers, reader.id, &RecordedReader::id);
        const std::string place = !reader.path.empty() ? reader.path
                                                       : "bus " + std::to_string(reader.bus) + " device " +
                                                             std::to_string(reader.address);
        reader.label = !reader.id.empty() && sameId == 1 ? reader.id : place;
    }

    void addAbsences(RecordedReader& reader, capture::Time begin) const {
        const capture::Device& first = m_capture.devices[reader.devices.front()];
        if (first.came && *first.came > begin) {
            reader.absences.emplace_back(begin, *first.came);
        }
        for (std::size_t i = 0; i < reader.devices.size(); ++i) {
            const capture::Device& device = m_capture.devices[reader.devices[i]];
            if (!device.left) {
                continue;
            }
            const bool isLast = i + 1 == reader.devices.size();
            reader.absences.emplace_back(
                *device.left, isLast ? std::nullopt : m_capture.devices[reader.devices[i + 1]].came);
        }
    }

    const capture::Capture& m_capture;
    RecordedReaders m_found;
};

} // namespace

RecordedReaders recordedReaders(const capture::Capture& capture, capture::Time begin, bool all) {
    std::vector<std::size_t> devices = capture::requireReaders(capture, GVUSB_VENDOR_ID);
    if (all) {
        devices.resize(capture.devices.size());
        std::iota(devices.begin(), devices.end(), std::size_t{0});
    }
    Grouping grouping(capture);
    for (const std::size_t device : devices) {
        grouping.add(device);
    }
    return grouping.take(begin);
}

bool isNamed(const RecordedReader& reader, const std::string& idOrPath) {
    const auto id = parseDeviceId(idOrPath);
    return reader.path == idOrPath || (id && reader.id == deviceIdText(*id));
}

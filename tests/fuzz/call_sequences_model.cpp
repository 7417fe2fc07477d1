#include "call_sequences_model.h"

#include "../unit/manager/list_consistency.h"
#include "call_sequences_broken.h"
#include "fake_libusb_state.h"

#include <algorithm>

namespace fake = fake_libusb;

namespace call_sequences {
namespace {

std::vector<OpenReader> readersOfTheManager() {
    std::vector<OpenReader> readers;
    for (GVDevice* record : manager_lists::deviceList()) {
        if (record != nullptr) {
            readers.push_back({.devHnd = record->devHnd,
                               .devId = record->devId,
                               .usbDevice = record->usbdev,
                               .open = manager_lists::isOpen(*record)});
        }
    }
    return readers;
}

void expectFree(Mutex& mutex, const char* what) {
    if (!mutex.tryLock()) {
        broken(std::string(what) + " is locked");
    }
    mutex.unlock();
}

// An interface is claimed by an open record's own handle, once the record has looked for endpoints.
void checkClaims(GVDevice& record) GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    expectFree(record.mutex, "a reader's mutex");
    if (record.usbdev_hnd == nullptr) {
        expect(record.transferMode == TransferMode::unknown, "a closed reader knows how to transfer");
        return;
    }
    const fake::Access all;
    expect(record.usbdev_hnd->open, "a record holds a closed handle");
    expect(record.usbdev_hnd->device == record.usbdev, "a record holds another device's handle");
    expect(record.usbdev_hnd->claimed.empty() || record.transferMode != TransferMode::unknown,
           "an interface is claimed without a transfer");
}

void checkRegistrations(const std::vector<Model::Registration>& expected) GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    bool same = expected.size() == g_EvtInitAry.size();
    for (std::size_t i = 0; same && i < expected.size(); ++i) {
        const auto& [event, handler] = expected[i];
        same = g_EvtInitAry[i]->uiEvent == event && g_EvtInitAry[i]->cbFct == handler;
    }
    expect(same, "the registrations are not those that were made");
}

} // namespace

const OpenReader* Model::findHandle(int devHnd) const noexcept {
    const auto found = std::ranges::find(m_readers, devHnd, &OpenReader::devHnd);
    return found == m_readers.end() ? nullptr : &*found;
}

const OpenReader* Model::findId(unsigned devId) const noexcept {
    const auto found = std::ranges::find(m_readers, devId, &OpenReader::devId);
    return devId == 0 || found == m_readers.end() ? nullptr : &*found;
}

void Model::remove(int devHnd) {
    std::erase_if(m_readers, [&](const OpenReader& reader) { return reader.devHnd == devHnd; });
}

void Model::follow(const Changes& changes) {
    const auto zeros = [](const std::vector<OpenReader>& readers) {
        return std::ranges::count(readers, 0U, &OpenReader::devId);
    };
    const bool collapses = changes.collapses && zeros(m_readers) >= 2;
    const std::vector<OpenReader> present = readersOfTheManager();
    std::vector<OpenReader> next;
    auto known = m_readers.begin();
    const auto skipTo = [&](auto reader) {
        for (; known != reader; ++known) {
            expect(collapses && known->devId == 0, "an open reader has lost its handle");
        }
    };
    for (const OpenReader& now : present) {
        const auto found = std::ranges::find(known, m_readers.end(), now.devHnd, &OpenReader::devHnd);
        skipTo(found);
        if (found != m_readers.end()) {
            followReader(*known, now, changes);
            next.push_back(*known++);
            continue;
        }
        expect(changes.opens, "a reader is open that nobody has opened");
        expect(now.open, "a reader stands in the device list that could not be opened");
        const auto [entry, isNew] = m_knownHandles.emplace(now.devHnd, now.devId);
        expect(isNew || entry->second == now.devId, "the handle was another reader's");
        next.push_back(now);
    }
    skipTo(m_readers.end());
    expect(zeros(m_readers) == 0 || zeros(next) > 0, "the last reader with the device ID 0 is gone");
    m_readers = std::move(next);
    std::set<unsigned> ids;
    for (const OpenReader& reader : m_readers) {
        expect(reader.devId == 0 || ids.insert(reader.devId).second, "two open readers have one device ID");
    }
}

void Model::followReader(OpenReader& known, const OpenReader& now, const Changes& changes) {
    expectEqual(now.devId, known.devId, "the device ID of an open reader");
    expect(now.usbDevice == known.usbDevice || changes.replaces, "an open reader is another device");
    const Device* const device = m_bus.find(now.usbDevice);
    expect(device != nullptr, "an open reader is no device");
    // Readers with one device ID replace each other in turn; one of them that cannot be opened closes the entry.
    const bool oneDoesNotOpen = std::ranges::any_of(
        m_bus.devices(), [&](const Device& other) { return !other.opens && other.identity() == now.devId; });
    expect(now.open || !known.open || (changes.replaces && (changes.mayFailToOpen || oneDoesNotOpen)),
           "an open reader is closed");
    // Opening finds no reader with the device ID 0 among the open ones, so it opens a closed one again.
    expect(known.open || !now.open || (changes.opens && now.devId == 0), "a closed reader is open");
    known = now;
}

void Model::check(bool inHandler) const {
    expectFree(g_GvUsbMan.m_mtxScanList, "the scan-list mutex");
    expectFree(g_GvUsbMan.m_mtxDevList, "the device-list mutex");
    if (!inHandler) {
        expectFree(g_MtxEvtInitAry, "the mutex of the registrations");
    }
    checkRegistrations(registrations);

    // While handlers run, the queue of deliveries may hold a reference of its own: counted afterwards.
    const std::string inconsistencies =
        manager_lists::inconsistencies(inHandler ? std::vector<std::string>() : m_bus.names());
    if (!inconsistencies.empty()) {
        broken(inconsistencies);
    }
    for (const manager_lists::Devices& list : {manager_lists::scanList(), manager_lists::deviceList()}) {
        for (GVDevice* const record : list) {
            if (record != nullptr) {
                expect(m_bus.find(record->usbdev) != nullptr, "a record is of no device");
                checkClaims(*record);
            }
        }
    }

    int devHnd = 0;
    for (const OpenReader& reader : m_readers) {
        devHnd = GVUSB_GetDeviceList(devHnd);
        expectEqual(devHnd, reader.devHnd, "the next handle of the walk");
    }
    expect(m_readers.empty() || GVUSB_GetDeviceList(devHnd) == 0, "the walk does not end");

    const std::vector<std::string> misuses = fake::misuses();
    if (!misuses.empty()) {
        broken("libusb is misused: " + misuses.front());
    }
}

std::vector<Model::Found> Model::expectedScan() const {
    std::vector<Found> found;
    for (const Device& device : m_bus.devices()) {
        const auto open = std::ranges::find(m_readers, device.usbDevice, &OpenReader::usbDevice);
        if (!device.plugged || !device.usable) {
            continue;
        }
        if (open != m_readers.end()) {
            found.push_back({.usbDevice = device.usbDevice, .devId = open->devId});
        } else if (const auto id = device.identity()) {
            found.push_back({.usbDevice = device.usbDevice, .devId = *id});
        }
    }
    return found;
}

} // namespace call_sequences

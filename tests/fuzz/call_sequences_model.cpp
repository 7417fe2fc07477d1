#include "call_sequences_model.h"

#include "../unit/manager/list_consistency.h"
#include "call_sequences_check.h"
#include "fake_libusb_state.h"

#include <algorithm>

namespace fake = fake_libusb;

namespace call_sequences {
namespace {

std::vector<OpenReader> openReadersOfManager() {
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
        fail(std::string(what) + " is locked");
    }
    mutex.unlock();
}

// A record claims an interface with its own handle, and only after it looked for endpoints.
void checkClaims(GVDevice& record) GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    expectFree(record.mutex, "a reader's mutex");
    if (record.usbdev_hnd == nullptr) {
        expect(record.transferMode == TransferMode::unknown, "a closed reader has a transfer mode");
        return;
    }
    const fake::Access all;
    expect(record.usbdev_hnd->open, "a record has a closed handle");
    expect(record.usbdev_hnd->device == record.usbdev, "a record has a handle of another device");
    expect(record.usbdev_hnd->claimed.empty() || record.transferMode != TransferMode::unknown,
           "an interface is claimed before a transfer");
}

void checkRegistrations(const std::vector<Model::Registration>& expected) GVUSB_NO_THREAD_SAFETY_ANALYSIS {
    bool same = expected.size() == g_EvtInitAry.size();
    for (std::size_t i = 0; same && i < expected.size(); ++i) {
        const auto& [event, handler] = expected[i];
        same = g_EvtInitAry[i]->uiEvent == event && g_EvtInitAry[i]->cbFct == handler;
    }
    expect(same, "the registrations differ from the expected ones");
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
    const std::vector<OpenReader> actual = openReadersOfManager();
    std::vector<OpenReader> next;
    auto known = m_readers.begin();
    const auto skipTo = [&](auto reader) {
        for (; known != reader; ++known) {
            expect(collapses && known->devId == 0, "an open reader has lost its handle");
        }
    };
    for (const OpenReader& now : actual) {
        const auto found = std::ranges::find(known, m_readers.end(), now.devHnd, &OpenReader::devHnd);
        skipTo(found);
        if (found != m_readers.end()) {
            followReader(*known, now, changes);
            next.push_back(*known++);
            continue;
        }
        expect(changes.opens, "a reader is open without a call that opens it");
        expect(now.open, "the device list has a new reader that is closed");
        const auto [entry, isNew] = m_knownHandles.emplace(now.devHnd, now.devId);
        expect(isNew || entry->second == now.devId, "a handle is reused for another reader");
        next.push_back(now);
    }
    skipTo(m_readers.end());
    expect(zeros(m_readers) == 0 || zeros(next) > 0, "the last reader with the device ID 0 is gone");
    m_readers = std::move(next);
    std::set<unsigned> ids;
    for (const OpenReader& reader : m_readers) {
        expect(reader.devId == 0 || ids.insert(reader.devId).second,
               "two open readers have the same device ID");
    }
}

void Model::followReader(OpenReader& known, const OpenReader& now, const Changes& changes) {
    expectEqual(now.devId, known.devId, "the device ID of an open reader");
    expect(now.usbDevice == known.usbDevice || changes.replaces, "an open reader is now another device");
    const Device* const device = m_bus.find(now.usbDevice);
    expect(device != nullptr, "the device of an open reader is unknown");
    // Readers with the same device ID replace each other in turn. If one of them cannot be opened, the entry is closed.
    const bool oneDoesNotOpen = std::ranges::any_of(
        m_bus.devices(), [&](const Device& other) { return !other.opens && other.identity() == now.devId; });
    expect(now.open || !known.open || (changes.replaces && (changes.mayFailToOpen || oneDoesNotOpen)),
           "an open reader is closed");
    // The search for an open reader ignores device ID 0, so opening such a reader can reopen a closed record.
    expect(known.open || !now.open || (changes.opens && now.devId == 0), "a closed reader is open again");
    known = now;
}

void Model::check(bool inHandler) const {
    expectFree(g_GvUsbMan.m_mtxScanList, "the scan-list mutex");
    expectFree(g_GvUsbMan.m_mtxDevList, "the device-list mutex");
    if (!inHandler) {
        expectFree(g_MtxEvtInitAry, "the mutex of the registrations");
    }
    checkRegistrations(registrations);

    // While handlers run, the event queue may have a reference. References are counted after the step.
    const std::string inconsistencies =
        manager_lists::inconsistencies(inHandler ? std::vector<std::string>() : m_bus.names());
    if (!inconsistencies.empty()) {
        fail(inconsistencies);
    }
    for (const manager_lists::Devices& list : {manager_lists::scanList(), manager_lists::deviceList()}) {
        for (GVDevice* const record : list) {
            if (record != nullptr) {
                expect(m_bus.find(record->usbdev) != nullptr, "the device of a record is unknown");
                checkClaims(*record);
            }
        }
    }

    int devHnd = 0;
    for (const OpenReader& reader : m_readers) {
        devHnd = GVUSB_GetDeviceList(devHnd);
        expectEqual(devHnd, reader.devHnd, "the next handle in the device list");
    }
    expect(m_readers.empty() || GVUSB_GetDeviceList(devHnd) == 0, "the device list does not end");

    const std::vector<std::string> misuses = fake::misuses();
    if (!misuses.empty()) {
        fail("libusb is misused: " + misuses.front());
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

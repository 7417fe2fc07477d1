// Opening, closing, scanning, plugging and unplugging in any order: no record is leaked, listed twice in a
// list, or used after its destruction.

#include "list_invariants.h"
#include "manager_test.h"

#include <random>

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class OwnershipTest : public ManagerTest {
protected:
    static void scanAndOpen(const char* devId) {
        fake::plug("dev1", fake::bulkReader(devId));
        ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    }
};

// Performs random operations on the bus and the library, determined by the seed.
class Turmoil {
public:
    explicit Turmoil(unsigned seed)
        : random_(seed) {}

    void step() {
        switch (pick(12)) {
        case 0:
        case 1:
            plug();
            break;
        case 2:
            pull();
            break;
        case 3:
        case 4:
            replug();
            break;
        case 5:
            GVUSB_Scan(pick(2) == 0 ? GVUSB_SCAN_ALL : GVUSB_SCAN_FIRST, nullptr);
            break;
        case 6:
            GVUSB_ScanAndOpen(pick(2) == 0 ? GVUSB_SCAN_ALL : GVUSB_SCAN_NEXT, nullptr);
            break;
        case 7:
            GVUSB_OpenDevice(pick(deviceIds_));
            break;
        case 8:
            close();
            break;
        case 9:
            GVUSB_ClearScanList();
            break;
        case 10:
            g_GvUsbMan.UpdateDevices();
            break;
        case 11:
            fake::stopFailing();
            if (pick(2) == 0) {
                fake::failCall(1 + pick(20), LIBUSB_ERROR_IO);
            }
            break;
        }
    }

    const std::vector<std::string>& names() const { return names_; }

private:
    static constexpr unsigned deviceIds_ = 4; // few, to get duplicates, and including 0

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

    std::string newName() {
        names_.push_back("dev" + std::to_string(names_.size() + 1));
        return names_.back();
    }

    void plug() {
        if (plugged_.size() < 6) {
            const std::string id(1, static_cast<char>('0' + pick(deviceIds_)));
            plugged_.push_back(newName());
            fake::plug(plugged_.back(), pick(2) == 0 ? fake::bulkReader(id) : fake::controlReader(id));
        }
    }

    void pull() {
        if (!plugged_.empty()) {
            const std::size_t which = pick(static_cast<unsigned>(plugged_.size()));
            fake::unplug(plugged_[which]);
            plugged_.erase(plugged_.begin() + static_cast<std::ptrdiff_t>(which));
        }
    }

    void replug() {
        if (!plugged_.empty()) {
            const std::size_t which = pick(static_cast<unsigned>(plugged_.size()));
            const std::string fresh = newName();
            fake::replug(plugged_[which], fresh);
            plugged_[which] = fresh;
        }
    }

    void close() {
        const std::vector<int> handles = openHandlesInOrder();
        if (!handles.empty()) {
            EXPECT_EQ(GVUSB_CloseDevice(handles[pick(static_cast<unsigned>(handles.size()))]), 0);
        }
    }

    std::mt19937 random_;
    std::vector<std::string> names_;
    std::vector<std::string> plugged_;
};

} // namespace

TEST_F(OwnershipTest, RecordInBothListsIsDestroyedOnce) {
    scanAndOpen("A1");
    GVUSB_ClearScanList();
    EXPECT_EQ(fake::references("dev1"), 1);
    g_GvUsbMan.ClearDeviceList();
    EXPECT_EQ(fake::references("dev1"), 0);

    fake::unplug("dev1");
    fake::plug("dev2", fake::bulkReader("A1"));
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    g_GvUsbMan.ClearDeviceList();
    EXPECT_EQ(fake::references("dev2"), 0);
    EXPECT_THAT(scanList(), ElementsAre(nullptr)) << "no dangling pointer";
    GVUSB_ClearScanList();
}

TEST_F(OwnershipTest, ScanListPassesAClosedRecordWithAHandleToTheDeviceList) {
    scanAndOpen("A1");
    fake::replug("dev1", "dev2");
    fake::failNth("libusb_open", 3, LIBUSB_ERROR_ACCESS, "dev2");
    g_GvUsbMan.UpdateDevices();
    EXPECT_EQ(GVUSB_GetDeviceHnd(0xA1), firstHandle);
    ASSERT_FALSE(isOpen(*deviceList().at(0)));
    fake::replug("dev2", "dev3");
    g_GvUsbMan.UpdateDevices();
    EXPECT_TRUE(deviceList().at(0)->owner);
    GVUSB_ClearScanList();
    EXPECT_FALSE(deviceList().at(0)->owner);
    EXPECT_EQ(GVUSB_IsDevicePresent(firstHandle), 0);
    expectConsistentLists({"dev1", "dev2", "dev3"});
    EXPECT_EQ(GVUSB_CloseDevice(firstHandle), 0);
    expectConsistentLists({"dev1", "dev2", "dev3"});
}

TEST_F(OwnershipTest, ListsStayConsistentUnderRandomOperations) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        reload();
        fake::recordNothing();
        Turmoil turmoil(seed);
        for (int step = 0; step < 48 && !HasFailure(); ++step) {
            turmoil.step();
            if (step % 6 == 5) {
                SCOPED_TRACE(step);
                expectConsistentLists(turmoil.names());
            }
        }
        EXPECT_THAT(fake::misuses(), IsEmpty());
    }
}

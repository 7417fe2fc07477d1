#include "list_invariants.h"
#include "manager_test.h"

#include <gmock/gmock.h>

namespace fake = fake_libusb;
using namespace manager_lists;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned devId = 0xA1;
constexpr int oldHandle = 21;
constexpr int newHandle = 22;

// Records created without a scan. The test must delete those that are in no list at its end.
class ReplaceTest : public ManagerTest {
protected:
    static GVDevice* record(const std::string& name, int devHnd, unsigned id = devId) {
        auto* device = new GVDevice(devHnd, fake::plug(name, fake::bulkReader("A1")));
        device->devId = id;
        return device;
    }

    static void open(GVDevice* device) {
        ASSERT_EQ(device->OpenDevice(), 0);
        device->owner = false;
    }

    static bool replaceInDeviceList(GVDevice* device) {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        return g_GvUsbMan.DL_ReplaceDevice(device);
    }

    static void replaceInScanList(GVDevice* device, int index) {
        const MutexLock lock(g_GvUsbMan.m_mtxDevList);
        g_GvUsbMan.SL_ReplaceDevice(device, index);
    }

    static bool isDestroyed(const std::string& name) { return fake::references(name) == 0; }
};

// The lists that contain the old record (dev1), and the effects on it and on the new one (dev2).
struct Row {
    // before
    bool scanned;
    bool listed; // in the device list
    bool open;
    // after DL_ReplaceDevice
    bool replaced;
    bool newOwner; // as set before
    bool newOpen;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << (row.scanned ? "Scanned" : "NotScanned") << (row.listed ? "Listed" : "NotListed")
               << (row.open ? "Open" : "Closed");
}

// The lists that contain the old record matter, not its owner flag.
class ReplaceByOldState : public ReplaceTest, public testing::WithParamInterface<std::tuple<Row, bool>> {
protected:
    static const Row& row() { return std::get<Row>(GetParam()); }

    // The old record, between unrelated ones.
    static GVDevice* makeOld() {
        const Row& row = ReplaceByOldState::row();
        GVDevice* const old = record("dev1", oldHandle);
        GVDevice* const other = record("dev8", 31, 0xB1);
        GVDevice* const otherOpen = record("dev9", 32, 0xB2);
        open(otherOpen);
        if (row.open) {
            open(old);
        }
        old->owner = std::get<bool>(GetParam());
        setScanList(row.scanned ? Devices{other, old} : Devices{other});
        setDeviceList(row.listed ? Devices{otherOpen, nullptr, old} : Devices{otherOpen, nullptr});
        fake::takeCalls();
        return old;
    }
};

INSTANTIATE_TEST_SUITE_P(Rows, ReplaceByOldState,
                         testing::Combine(testing::Values(
                                              //  scanned listed open     replaced newOwner newOpen
                                              Row{true, true, true, /**/ true, false, true},    //
                                              Row{true, true, false, /**/ true, true, false},   //
                                              Row{true, false, true, /**/ false, true, false},  //
                                              Row{true, false, false, /**/ false, true, false}, //
                                              Row{false, true, true, /**/ true, false, true},   //
                                              Row{false, true, false, /**/ true, true, false}),
                                          testing::Bool()),
                         [](const auto& each) {
                             return testing::PrintToString(std::get<Row>(each.param)) +
                                    (std::get<bool>(each.param) ? "OwnedByScanList" : "OwnedByDeviceList");
                         });

} // namespace

TEST_P(ReplaceByOldState, DeviceListReplacementTakesPositionHandleAndOpenState) {
    const Row& row = ReplaceByOldState::row();
    GVDevice* const old = makeOld();
    GVDevice* const fresh = record("dev2", newHandle);
    EXPECT_EQ(replaceInDeviceList(fresh), row.replaced);

    EXPECT_EQ(fresh->devHnd, row.replaced ? oldHandle : newHandle);
    EXPECT_EQ(fresh->owner, row.newOwner);
    EXPECT_EQ(isOpen(*fresh), row.newOpen);
    EXPECT_EQ(isDestroyed("dev1"), row.replaced);
    EXPECT_EQ(deviceList().size(), row.listed ? 3u : 2u);
    EXPECT_EQ(deviceList().at(0)->devHnd, 32);
    if (row.replaced) {
        EXPECT_EQ(deviceList().at(2), fresh);
        // The old record is no longer referenced.
        EXPECT_EQ(count(scanList(), old), 0);
        if (row.scanned) {
            EXPECT_EQ(scanList().at(1), nullptr);
        }
    } else {
        EXPECT_EQ(count(deviceList(), fresh), 0);
        EXPECT_EQ(count(scanList(), old), row.scanned ? 1 : 0);
        delete fresh;
    }
}

TEST_P(ReplaceByOldState, ScanListReplacementIsAlwaysInTheScanList) {
    const Row& row = ReplaceByOldState::row();
    makeOld();
    // Without an old entry, add a hole to replace.
    if (!row.scanned) {
        Devices devices = scanList();
        devices.push_back(nullptr);
        setScanList(devices);
    }
    GVDevice* const fresh = record("dev2", newHandle);
    fresh->owner = false;
    g_GvUsbMan.SetLastError(-1111);
    replaceInScanList(fresh, 1);

    EXPECT_EQ(scanList().size(), 2u);
    EXPECT_EQ(scanList().at(0)->devHnd, 31);
    EXPECT_EQ(scanList().at(1), fresh);
    EXPECT_TRUE(isDestroyed("dev1"));
    EXPECT_EQ(fake::openHandles("dev1"), 0);
    EXPECT_EQ(fresh->devHnd, row.replaced ? oldHandle : newHandle);
    EXPECT_EQ(fresh->owner, row.newOwner);
    EXPECT_EQ(isOpen(*fresh), row.newOpen);
    EXPECT_EQ(count(deviceList(), fresh), row.replaced ? 1 : 0);
    EXPECT_EQ(lastError(), -1111);
    expectConsistentLists({"dev1", "dev2", "dev8", "dev9"});
}

TEST_F(ReplaceTest, OldRecordIsDestroyedBeforeTheNewOneIsOpened) {
    GVDevice* const old = record("dev1", oldHandle);
    open(old);
    setScanList({old});
    setDeviceList({old});
    GVDevice* const fresh = record("dev2", newHandle);
    fake::takeCalls();
    replaceInScanList(fresh, 0);
    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = -5\n"
                                    "libusb_close(hnd1)\n"
                                    "libusb_unref_device(dev1)\n"
                                    "libusb_open(dev2) = 0\n"
                                    "libusb_get_config_descriptor(dev2, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev2)\n");
}

TEST_F(ReplaceTest, FailedReopeningLeavesTheNewRecordListedAndClosed) {
    for (const char* const call : {"libusb_open", "libusb_get_config_descriptor"}) {
        SCOPED_TRACE(call);
        reload();
        GVDevice* const old = record("dev1", oldHandle);
        open(old);
        setScanList({old});
        setDeviceList({old});
        GVDevice* const fresh = record("dev2", newHandle);
        fake::failNext(call, LIBUSB_ERROR_IO);
        g_GvUsbMan.SetLastError(-1111);
        replaceInScanList(fresh, 0);
        EXPECT_THAT(scanList(), ElementsAre(fresh));
        EXPECT_THAT(deviceList(), ElementsAre(fresh));
        EXPECT_EQ(fresh->devHnd, oldHandle);
        EXPECT_FALSE(fresh->owner);
        EXPECT_FALSE(isOpen(*fresh));
        EXPECT_EQ(lastError(), -1111);

        const unsigned char frame[] = {1};
        EXPECT_EQ(GVUSB_Transmit(oldHandle, "TESK-RCI2", frame, 1), -1144);
        expectConsistentLists({"dev1", "dev2"});
    }
}

TEST_F(ReplaceTest, ReaderWithItsOldHandleHasTheDefaultTimeout) {
    for (const bool byPoll : {true, false}) {
        SCOPED_TRACE(byPoll);
        reload();
        fake::plug("dev1", fake::bulkReader());
        const int devHnd = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
        ASSERT_EQ(GVUSB_SetDevicePara(devHnd, "TIMEOUT", "250"), 0);
        fake::replug("dev1", "dev2");
        if (byPoll) {
            g_GvUsbMan.UpdateDevices();
        } else {
            ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
        }
        ASSERT_EQ(GVUSB_IsDevicePresent(devHnd), 1);
        char value[GVUSB_PARAMETER_SIZE] = {};
        EXPECT_EQ(GVUSB_GetDevicePara(devHnd, "TIMEOUT", value), 0);
        EXPECT_STREQ(value, "1000");
    }
}

TEST_F(ReplaceTest, ScanThatOpensReturnsTheHandleOfAReaderWhoseReopeningFailed) {
    for (const int option : {GVUSB_SCAN_FIRST, GVUSB_SCAN_ALL}) {
        SCOPED_TRACE(option);
        reload();
        fake::plug("dev1", fake::bulkReader("A1"));
        const int devHnd = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
        fake::replug("dev1", "dev2");
        fake::failNth("libusb_open", 2, LIBUSB_ERROR_ACCESS, "dev2"); // after the identification
        EXPECT_EQ(GVUSB_ScanAndOpen(option, nullptr), option == GVUSB_SCAN_FIRST ? devHnd : 0);
        const unsigned char frame[] = {1};
        EXPECT_EQ(GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, frame, 1), GVUSB_ERR_NOT_OPENED);
        EXPECT_EQ(GVUSB_OpenDevice(0xA1), devHnd) << "it counts as open";
        EXPECT_EQ(GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, frame, 1), GVUSB_ERR_NOT_OPENED);

        EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
        EXPECT_EQ(GVUSB_OpenDevice(0xA1), devHnd);
        EXPECT_EQ(GVUSB_Transmit(devHnd, GVUSB_PROTOCOL, frame, 1), 0);
    }
}

TEST_F(ReplaceTest, ClosedSuccessorIsReplacedByTheNextOneWithoutBeingOpened) {
    GVDevice* const old = record("dev1", oldHandle);
    open(old);
    setScanList({old});
    setDeviceList({old});
    fake::failNext("libusb_open", LIBUSB_ERROR_IO);
    replaceInScanList(record("dev2", newHandle), 0);
    GVDevice* const third = record("dev3", 23);
    replaceInScanList(third, 0);
    EXPECT_THAT(deviceList(), ElementsAre(third));
    EXPECT_EQ(third->devHnd, oldHandle);
    EXPECT_TRUE(third->owner);
    EXPECT_FALSE(isOpen(*third));
    EXPECT_TRUE(isDestroyed("dev2"));

    // The handle stays valid after the scan list is cleared, and closing it destroys the record.
    GVUSB_ClearScanList();
    EXPECT_FALSE(third->owner);
    EXPECT_EQ(GVUSB_CloseDevice(oldHandle), 0);
    EXPECT_TRUE(isDestroyed("dev3"));
}

TEST_F(ReplaceTest, NoRecordReplacesItself) {
    GVDevice* const device = record("dev1", oldHandle);
    open(device);
    setScanList({device});
    setDeviceList({nullptr, device});
    fake::takeCalls();
    EXPECT_FALSE(replaceInDeviceList(device));
    EXPECT_THAT(deviceList(), ElementsAre(nullptr, device));
    replaceInScanList(device, 0);
    EXPECT_THAT(scanList(), ElementsAre(device));
    EXPECT_EQ(device->devHnd, oldHandle);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    device->owner = false;

    GVDevice* const closed = record("dev2", newHandle);
    setScanList({closed});
    replaceInScanList(closed, 0);
    EXPECT_THAT(scanList(), ElementsAre(closed));
    EXPECT_FALSE(isDestroyed("dev2"));
}

TEST_F(ReplaceTest, OfTwoEqualDeviceIdsOnlyTheFirstIsReplaced) {
    GVDevice* const first = record("dev1", oldHandle);
    GVDevice* const second = record("dev3", 23);
    open(first);
    open(second);
    setDeviceList({first, second});
    GVDevice* const fresh = record("dev2", newHandle);
    EXPECT_TRUE(replaceInDeviceList(fresh));
    EXPECT_THAT(deviceList(), ElementsAre(fresh, second));
    EXPECT_TRUE(isDestroyed("dev1"));
    EXPECT_TRUE(isOpen(*second));
    EXPECT_EQ(second->devHnd, 23);
}

TEST_F(ReplaceTest, OtherListedReaderWithTheSameIdKeepsItsHandleWhenItsScanEntryIsReplaced) {
    for (const bool open_ : {true, false}) {
        SCOPED_TRACE(open_);
        reload();
        GVDevice* const first = record("dev1", oldHandle);
        GVDevice* const second = record("dev3", 23);
        open(first);
        if (open_) {
            open(second);
        }
        setScanList({second});
        setDeviceList({first, second});
        GVDevice* const fresh = record("dev2", newHandle);
        replaceInScanList(fresh, 0);
        EXPECT_THAT(scanList(), ElementsAre(fresh));
        EXPECT_THAT(deviceList(), ElementsAre(fresh, second));
        EXPECT_FALSE(second->owner) << "now only the device list owns it";
        EXPECT_EQ(GVUSB_IsDevicePresent(23), open_ ? 1 : 0);
        expectConsistentLists({"dev1", "dev2", "dev3"});
    }
}

TEST_F(ReplaceTest, RecordThatTakesTheHandleOfItsDuplicateLeavesAHole) {
    GVDevice* const first = record("dev1", oldHandle);
    GVDevice* const second = record("dev3", 23);
    open(first);
    open(second);
    setDeviceList({first, second});
    EXPECT_TRUE(replaceInDeviceList(second));
    EXPECT_THAT(deviceList(), ElementsAre(second, nullptr));
    EXPECT_THAT(openHandlesInOrder(), ElementsAre(oldHandle));
}

TEST_F(ReplaceTest, ClosedEntryReplacedInTheScanListIsDestroyedDespiteAnOpenDuplicate) {
    GVDevice* const open_ = record("dev1", oldHandle);
    open(open_);
    GVDevice* const closed = record("dev3", 23);
    setScanList({closed});
    setDeviceList({open_});
    GVDevice* const fresh = record("dev2", newHandle);
    replaceInScanList(fresh, 0);
    EXPECT_TRUE(isDestroyed("dev1"));
    EXPECT_TRUE(isDestroyed("dev3"));
    EXPECT_THAT(deviceList(), ElementsAre(fresh));
    expectConsistentLists({"dev1", "dev2", "dev3"});
}

TEST_F(ReplaceTest, LogShowsTheNewAndTheOldRecord) {
    for (const int level : {0, 1}) {
        SCOPED_TRACE(level);
        reload();
        GVDevice* const old = record("dev1", 0x1A);
        open(old);
        setScanList({old});
        setDeviceList({old});
        GVDevice* const fresh = record("dev2", 0x1B);
        const Lines wanted = {"[replace] " + deviceText(0x1B, devId, "dev2", true),
                              "[to ... ] " + deviceText(0x1A, devId, "dev1", false)};
        LogAt log(level);
        replaceInScanList(fresh, 0);
        EXPECT_EQ(log.takeLines(), level > 0 ? wanted : Lines{});
    }
}

TEST_F(ReplaceTest, NothingIsLoggedWithoutAnOldRecord) {
    setScanList({nullptr});
    LogAt log(3);
    replaceInScanList(record("dev2", newHandle), 0);
    EXPECT_THAT(log.takeLines(), IsEmpty());
}

#include "situations.h"

#include "list_invariants.h"

#include <algorithm>
#include <memory>

#include <gmock/gmock.h>

namespace fake = fake_libusb;

namespace failures {

const unsigned char frame[frameLength] = {0x02, 0x00, 0x07, 0xFF, 0x01};

namespace {

struct Situation {
    std::vector<std::string> names;
    std::vector<unsigned> devIds;
    std::unique_ptr<manager_lists::RecordedEvents> events;
};

Situation& situation() {
    static Situation instance;
    return instance;
}

void plug(const char* name, fake::FakeReader reader) {
    situation().names.emplace_back(name);
    fake::plug(name, std::move(reader));
}

void plugReader(const char* name, unsigned devId, fake::FakeReader reader) {
    situation().devIds.push_back(devId);
    plug(name, std::move(reader));
}

void replugFirst() {
    situation().names.emplace_back("dev4");
    fake::replug("dev1", "dev4");
}

} // namespace

void forgetSituation() {
    situation() = {};
}

const std::vector<std::string>& deviceNames() {
    return situation().names;
}

void plugged() {
    plugReader("dev1", bulkId, fake::bulkReader("A1"));
    fake::FakeReader withDriver = fake::bulkReader("A2");
    withDriver.kernelDriver = true;
    plugReader("dev2", kernelDriverId, withDriver);
    plug("lamp", fake::foreignDevice());
    fake::FakeReader otherwiseConfigured = fake::controlReader("A3");
    otherwiseConfigured.configurations = {fake::FakeConfiguration{.value = 2}, fake::FakeConfiguration{}};
    plugReader("dev3", controlId, otherwiseConfigured);
}

void scanned() {
    plugged();
    ASSERT_EQ(GVUSB_Scan(GVUSB_SCAN_ALL, nullptr), 0);
}

void opened() {
    plugged();
    ASSERT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
}

void exchanging() {
    opened();
    for (const unsigned devId : situation().devIds) {
        ASSERT_EQ(transceive(devId), frameLength);
    }
}

void closedReplugged() {
    scanned();
    replugFirst();
}

void openReplugged() {
    exchanging();
    replugFirst();
}

void unplugged() {
    exchanging();
    fake::unplug("dev1");
    std::erase(situation().devIds, bulkId);
}

void plugNewcomer() {
    plugReader("dev5", newcomerId, fake::bulkReader("A5"));
}

int handleOf(unsigned devId) {
    return GVUSB_GetDeviceHnd(devId);
}

int transceive(unsigned devId) {
    unsigned char answer[16];
    return GVUSB_Transceive(handleOf(devId), GVUSB_PROTOCOL, 0, frame, frameLength, answer, sizeof answer);
}

void expectEverythingWorks() {
    for (const int devHnd : manager_lists::openHandlesInOrder()) {
        EXPECT_EQ(GVUSB_CloseDevice(devHnd), 0);
    }
    EXPECT_EQ(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, nullptr), 0);
    EXPECT_THAT(manager_lists::deviceIds(manager_lists::scanList()),
                testing::UnorderedElementsAreArray(situation().devIds));
    for (const unsigned devId : situation().devIds) {
        EXPECT_EQ(GVUSB_IsDevicePresent(handleOf(devId)), 1) << devId;
        EXPECT_EQ(transceive(devId), frameLength) << devId;
    }
}

void listenForEvents() {
    situation().events = std::make_unique<manager_lists::RecordedEvents>();
}

std::vector<std::string> takeEvents() {
    return situation().events ? situation().events->take() : std::vector<std::string>();
}

} // namespace failures

#include "device_test.h"
#include "edge_buffer.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

struct Search {
    std::int32_t mask = 0;
    const char* famName = "";
    const char* devName = "";
    const char* devId = "";

    operator _GVUSB_SCANSEARCH() const {
        _GVUSB_SCANSEARCH record = {};
        record.mask = mask;
        std::snprintf(record.famName, sizeof record.famName, "%s", famName);
        std::snprintf(record.devName, sizeof record.devName, "%s", devName);
        std::snprintf(record.devId, sizeof record.devId, "%s", devId);
        return record;
    }
};

class SearchMatchTest : public DeviceTest {
protected:
    SearchMatchTest()
        : device(1, fake::plug("dev1", fake::bulkReader())) {
        device.devId = 0x1A2B3C;
        std::strcpy(device.famName, "DESKTOP");
        std::strcpy(device.devName, "READER ONE");
        fake::takeCalls();
    }

    bool matches(_GVUSB_SCANSEARCH search) { return device.IsDevice(&search); }

    ~SearchMatchTest() noexcept override = default;

    GVDevice device;
};

TEST_F(SearchMatchTest, NoRecordMatchesEveryReader) {
    EXPECT_TRUE(device.IsDevice(nullptr));
}

TEST_F(SearchMatchTest, MaskWithoutCriterionMatchesNone) {
    for (const std::int32_t mask : {0, 8, 16, 0x10000, 0x7FFFFFF8, -8, INT32_MIN}) {
        SCOPED_TRACE(mask);
        EXPECT_FALSE(matches(Search{mask, "DESKTOP", "READER ONE", "1A2B3C"}));
    }
}

TEST_F(SearchMatchTest, OnlyTheLowestCriterionCounts) {
    for (std::int32_t mask = 0; mask < 16; ++mask) {
        const bool byFamily = (mask & 1) != 0;
        const bool byName = !byFamily && (mask & 2) != 0;
        const bool byId = !byFamily && !byName && (mask & 4) != 0;
        for (const std::int32_t full : {mask, mask | 0x10000, mask | INT32_MIN}) {
            SCOPED_TRACE(full);
            EXPECT_EQ(matches(Search{full, "DESKTOP", "other", "other"}), byFamily);
            EXPECT_EQ(matches(Search{full, "other", "READER ONE", "other"}), byName);
            EXPECT_EQ(matches(Search{full, "other", "other", "1A2B3C"}), byId);
        }
    }
}

TEST_F(SearchMatchTest, MaskWithEveryBitComparesTheFamilyName) {
    EXPECT_TRUE(matches(Search{-1, "DESKTOP", "other", "other"}));
    EXPECT_FALSE(matches(Search{-1, "other", "READER ONE", "1A2B3C"}));
}

TEST_F(SearchMatchTest, FamilyNameIsComparedByteByByte) {
    for (const char* text : {"desktop", "DESKTO", "DESKTOP ", " DESKTOP", "DESKTOPS", ""}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(matches(Search{1, text}));
    }
    EXPECT_TRUE(matches(Search{1, "DESKTOP"}));
}

TEST_F(SearchMatchTest, DeviceNameIsComparedByteByByte) {
    for (const char* text : {"reader one", "READER ON", "READER ONE ", "READER-ONE", ""}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(matches(Search{2, "", text}));
    }
    EXPECT_TRUE(matches(Search{2, "", "READER ONE"}));
}

TEST_F(SearchMatchTest, BytesAboveAsciiAreCompared) {
    std::strcpy(device.famName, "M\xC3\x9CNCHEN\xFF");
    EXPECT_TRUE(matches(Search{1, "M\xC3\x9CNCHEN\xFF"}));
    EXPECT_FALSE(matches(Search{1, "M\xC3\x9CNCHEN\x7F"}));
}

TEST_F(SearchMatchTest, EmptyNamesEqualEachOther) {
    device.famName[0] = '\0';
    device.devName[0] = '\0';
    EXPECT_TRUE(matches(Search{1}));
    EXPECT_TRUE(matches(Search{2}));
}

TEST_F(SearchMatchTest, DeviceIdIsReadAsHexadecimal) {
    for (const char* text : {"1A2B3C", "1a2b3c", "0x1A2B3C", "0X1a2B3c", "  1A2B3C", "\t0x1A2B3C", "001A2B3C",
                             "1A2B3C and more", "1A2B3Cg", "+1A2B3C"}) {
        SCOPED_TRACE(text);
        EXPECT_TRUE(matches(Search{4, "", "", text}));
    }
    for (const char* text : {"1A2B3D", "1A2B3", "1A2B3C0", "1A 2B3C", "1A2B,3C"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(matches(Search{4, "", "", text}));
    }
}

TEST_F(SearchMatchTest, DeviceIdWithoutDigitsNeverMatches) {
    device.devId = 0;
    for (const char* text : {"", "   ", "xyz", "-", "+", "gA", "x1"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(matches(Search{4, "", "", text}));
    }
    EXPECT_TRUE(matches(Search{4, "", "", "0"}));
}

TEST_F(SearchMatchTest, LargestDeviceIdIsFound) {
    device.devId = 0xFFFFFFFF;
    EXPECT_TRUE(matches(Search{4, "", "", "ffffffff"}));
    EXPECT_FALSE(matches(Search{4, "", "", "7fffffff"}));
}

// A record whose bytes after the mask are all nonzero, so that no field is terminated.
_GVUSB_SCANSEARCH filled(std::int32_t mask, char filler) {
    _GVUSB_SCANSEARCH record;
    std::memset(static_cast<void*>(&record), filler, sizeof record);
    record.mask = mask;
    return record;
}

TEST_F(SearchMatchTest, TextThatFillsItsFieldNeedsNoTerminator) {
    std::memset(device.famName, 'f', sizeof _GVUSB_SCANSEARCH::famName);
    std::memset(device.devName, 'f', sizeof _GVUSB_SCANSEARCH::devName);
    EXPECT_TRUE(matches(filled(1, 'f')));
    EXPECT_TRUE(matches(filled(2, 'f')));
    device.famName[25] = 'f';
    device.devName[50] = 'f';
    EXPECT_FALSE(matches(filled(1, 'f')));
    EXPECT_FALSE(matches(filled(2, 'f')));
}

// Fill a record with a device ID of this length, which ends with the reader's.
void fillWithLongDeviceId(_GVUSB_SCANSEARCH& record, std::size_t length) {
    record.mask = GVUSB_SEARCH_DEVICE_ID;
    char* const text = reinterpret_cast<char*>(&record) + offsetof(_GVUSB_SCANSEARCH, devId);
    std::memset(text, '0', length);
    std::memcpy(text + length - 6, "1A2B3C", 6);
}

// The lengths keep the records aligned.
TEST_F(SearchMatchTest, DeviceIdMayBeShorterOrLongerThanItsField) {
    for (const std::size_t length : {8u, 20u, 24u, 28u, 100u, 252u}) {
        SCOPED_TRACE(length);
        support::EdgeBuffer memory(offsetof(_GVUSB_SCANSEARCH, devId) + length + 1);
        auto* const record = memory.record<_GVUSB_SCANSEARCH>();
        fillWithLongDeviceId(*record, length);
        memory.bytes()[memory.size() - 1] = 0;
        EXPECT_TRUE(device.IsDevice(record));
    }
}

TEST_F(SearchMatchTest, DeviceIdIsReadUpTo255Characters) {
    support::EdgeBuffer memory(offsetof(_GVUSB_SCANSEARCH, devId) + 257);
    auto* const record = memory.record<_GVUSB_SCANSEARCH>();
    fillWithLongDeviceId(*record, 255);
    std::memcpy(memory.text() + memory.size() - 2, "FF", 2);
    EXPECT_TRUE(device.IsDevice(record));
    fillWithLongDeviceId(*record, 256);
    EXPECT_FALSE(device.IsDevice(record));
    device.devId = 0x1A2B3;
    EXPECT_TRUE(device.IsDevice(record));
}

TEST_F(SearchMatchTest, NameOf255BytesIsComparedCompletely) {
    std::memset(device.famName, 'n', 255);
    std::memset(device.devName, 'n', 255);
    EXPECT_FALSE(matches(filled(1, 'n')));
    EXPECT_FALSE(matches(filled(2, 'n')));
}

TEST_F(SearchMatchTest, SearchRecordIsOnlyRead) {
    _GVUSB_SCANSEARCH record = Search{7, "DESKTOP", "READER ONE", "1A2B3C"};
    const _GVUSB_SCANSEARCH before = record;
    device.IsDevice(&record);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
}

TEST_F(SearchMatchTest, ReaderIsIdentifiedByBusAndAddressTogether) {
    fake::FakeReader reader = fake::bulkReader();
    reader.bus = 3;
    reader.address = 200;
    GVDevice other(2, fake::plug("dev2", reader));
    EXPECT_TRUE(other.IsDevice(3, 200));
    EXPECT_FALSE(other.IsDevice(3, 201));
    EXPECT_FALSE(other.IsDevice(4, 200));
    EXPECT_FALSE(other.IsDevice(200, 3));
}

TEST_F(SearchMatchTest, MatchingLocksNothingCallsNothingAndKeepsTheLastError) {
    _GVUSB_SCANSEARCH record = Search{4, "", "", "1A2B3C"};
    device.lastError = GVUSB_ERR_OUT_OF_RANGE;
    const MutexLock lock(device.mutex);
    EXPECT_TRUE(device.IsDevice(1, 1));
    EXPECT_TRUE(device.IsDevice(&record));
    EXPECT_THAT(fake::takeCalls(), testing::IsEmpty());
    EXPECT_EQ(device.lastError, GVUSB_ERR_OUT_OF_RANGE);
}

} // namespace

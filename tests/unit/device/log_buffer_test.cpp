#include "allocation_failure.h"
#include "device_test.h"

#include <algorithm>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogBufferTest : public DeviceTest {
protected:
    Lines dump(int level, const char* tag, const std::string& prefix, const fake::Bytes& bytes) {
        return logOf(level, [&] {
            device.logBuffer(tag, prefix.c_str(), bytes.data(), static_cast<unsigned int>(bytes.size()));
        });
    }

    ~LogBufferTest() noexcept override = default;

    GVDevice device{1, fake::plug("dev1", fake::bulkReader())};
};

TEST_F(LogBufferTest, WritesOneLineWithTagAndPrefix) {
    EXPECT_THAT(dump(2, "some tag ", "prefix: ", {0x02, 0x00, 0x0A, 0xFF}),
                ElementsAre("[some tag ] prefix: 02 00 0A FF "));
    EXPECT_THAT(dump(3, "t", "", {0x01}), ElementsAre("[t] 01 "));
}

TEST_F(LogBufferTest, IsNotLoggedUpToLevelOne) {
    for (const int level : {-1, 0, 1}) {
        EXPECT_THAT(dump(level, "tag", "prefix", {0x01}), IsEmpty()) << level;
    }
}

TEST_F(LogBufferTest, EmptyBufferLogsOnlyThePrefix) {
    EXPECT_THAT(dump(2, "tag", "prefix", {}), ElementsAre("[tag] prefix"));
    EXPECT_THAT(logOf(2, [&] { device.logBuffer("tag", "prefix", nullptr, 0); }),
                ElementsAre("[tag] prefix"));
}

TEST_F(LogBufferTest, PercentSignsInThePrefixAreText) {
    EXPECT_THAT(dump(2, "tag", "100%s%n", {0x01}), ElementsAre("[tag] 100%s%n01 "));
}

TEST_F(LogBufferTest, LongestLinesAreNotTruncated) {
    for (const std::size_t length : {4090u, 4091u}) {
        const std::string prefix(length, 'p');
        EXPECT_THAT(dump(2, "tag", prefix, {0xAB, 0xCD}), ElementsAre("[tag] " + prefix + "AB ")) << length;
    }
    for (const std::size_t length : {4092u, 4095u, 5000u}) {
        const std::string shown(std::min<std::size_t>(length, 4095), 'p');
        EXPECT_THAT(dump(2, "tag", std::string(length, 'p'), {0xAB, 0xCD}), ElementsAre("[tag] " + shown))
            << length;
    }
}

TEST_F(LogBufferTest, DumpNeedsNoMemory) {
    if (!support::allocationsAreWatched) {
        GTEST_SKIP() << "the sanitizer replaces operator new";
    }
    support::CapturedStdout output;
    const fake::Bytes bytes(5000, 0x5A);
    GVLOG_SetLevel(2);
    const std::size_t before = support::allocations();
    device.logBuffer("tag", "prefix", bytes.data(), 5000);
    const std::size_t used = support::allocations() - before;
    GVLOG_SetLevel(0);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(output.takeLogLines().size(), 1u);
}

TEST_F(LogBufferTest, DumpAccessesNeitherTheLastErrorNorTheMutex) {
    device.lastError = GVUSB_ERR_OUT_OF_RANGE;
    const MutexLock lock(device.mutex);
    EXPECT_THAT(dump(2, "tag", "", {0x01}), ElementsAre("[tag] 01 "));
    EXPECT_EQ(device.lastError, GVUSB_ERR_OUT_OF_RANGE);
}

struct Count {
    unsigned int bytes;
    const char* text;
};

const Count counts[] = {{0, "   "},     {1, "  1"},     {9, "  9"},     {10, " 10"},
                        {99, " 99"},    {100, "100"},   {999, "999"},   {1000, "1000"},
                        {1359, "1359"}, {1360, "1360"}, {1361, "1361"}, {4096, "4096"}};

// The part of the dump after the prefix, for this number of bytes 0x3C.
std::string shownBytes(unsigned int bytes, std::size_t prefixLength) {
    const std::size_t room = (4092 - prefixLength + 2) / 3;
    std::string text;
    for (std::size_t i = 0; i < std::min<std::size_t>(bytes, room); ++i) {
        text += "3C ";
    }
    return text;
}

TEST_F(LogBufferTest, SentFrameIsPrefixedWithItsLength) {
    const std::pair<const char*, fake::FakeReader> media[] = {{"[bulkTransmit] ", fake::bulkReader()},
                                                              {"[ctrlTransmit] ", fake::controlReader()}};
    for (const auto& [tag, reader] : media) {
        fake::reset();
        GVDevice sender(2, fake::plug("dev2", reader));
        makeReady(sender);
        for (const auto& [count, text] : counts) {
            SCOPED_TRACE(std::string(tag) + text);
            const fake::Bytes frame(count + 1, 0x3C);
            const std::string prefix = std::string(text) + " Bytes >> ";
            EXPECT_THAT(logOf(2, [&, length = count] { sender.Transmit("TESK-RCI2", frame.data(), length); }),
                        ElementsAre(tag + prefix + shownBytes(count, prefix.size())));
        }
    }
}

TEST_F(LogBufferTest, ReceivedFrameIsPrefixedWithItsLength) {
    const std::pair<const char*, fake::FakeReader> media[] = {{"[bulkReceive ] ", fake::bulkReader()},
                                                              {"[ctrlReceive ] ", fake::controlReader()}};
    for (const auto& [tag, reader] : media) {
        fake::reset();
        GVDevice receiver(2, fake::plug("dev2", reader));
        makeReady(receiver);
        for (const auto& [count, text] : counts) {
            SCOPED_TRACE(std::string(tag) + text);
            fake::Bytes buffer(4096);
            fake::setHandler([length = count](const fake::Request&) {
                return fake::Answer{.data = fake::Bytes(length, 0x3C)};
            });
            const std::string prefix = std::string(text) + " Bytes << ";
            EXPECT_THAT(logOf(2, [&] { receiver.Receive("TESK-RCI2", buffer.data(), 4096); }),
                        ElementsAre(tag + prefix + shownBytes(count, prefix.size())));
        }
    }
}

} // namespace

#include "usbip/output.h"

#include <gtest/gtest.h>

#include <array>

namespace emulator::usbip {
namespace {

class UsbipOutputTest : public testing::Test {
protected:
    void addReply(std::uint8_t fill) {
        output.write([&](Bytes& bytes) { bytes.insert(bytes.end(), headerSize, fill); });
        all.insert(all.end(), headerSize, fill);
    }
    void addData(const Bytes& data) {
        output.append(data);
        all.insert(all.end(), data.begin(), data.end());
    }

    // What at most `most` bytes are described as, joined.
    Bytes described(std::size_t most) const {
        std::array<iovec, 8> pieces;
        Bytes joined;
        const std::size_t count = output.describe(pieces, most);
        for (std::size_t i = 0; i < count; ++i) {
            const auto* const bytes = static_cast<const std::uint8_t*>(pieces.at(i).iov_base);
            joined.insert(joined.end(), bytes, bytes + pieces.at(i).iov_len);
        }
        return joined;
    }

    Output output;
    Bytes all;
};

TEST_F(UsbipOutputTest, GivesBackWhatWasAppended) {
    for (const std::size_t step : {1U, 47U, 48U, 49U, 4096U, 100'000U, 1'000'000U}) {
        all.clear();
        for (std::uint8_t i = 0; i < 20; ++i) {
            addReply(i);
            addData(Bytes(i % 3 == 0 ? 0 : i * 1000U, i));
        }
        ASSERT_EQ(output.size(), all.size());
        Bytes got;
        while (!output.empty()) {
            const Bytes piece = described(step);
            ASSERT_FALSE(piece.empty());
            ASSERT_LE(piece.size(), step);
            ASSERT_EQ(piece.front(), output.front().front());
            got.insert(got.end(), piece.begin(), piece.end());
            output.sent(piece.size());
        }
        EXPECT_EQ(got, all) << step;
        EXPECT_TRUE(output.front().empty());
        EXPECT_TRUE(described(1).empty());
        EXPECT_LE(output.memory(), 4096U) << "for the next reply";
    }
}

TEST_F(UsbipOutputTest, CountsItsMemory) {
    addReply(1);
    addData(Bytes(100'000));
    EXPECT_GE(output.memory(), 100'000U);
    output.clear();
    EXPECT_EQ(output.memory(), 0U);
    EXPECT_TRUE(output.empty());
}

} // namespace
} // namespace emulator::usbip

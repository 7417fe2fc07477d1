#include "model/transfer_faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace emulator {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t seed = 42;

TransferFaults faults(Chance chance, std::string_view kind) {
    TransferFaults made;
    made.setChance(chance, TransferFault::parse(kind));
    return made;
}

// A letter for each transfer.
std::string fates(TransferFaults made, std::size_t count, std::uint64_t from = seed) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        const TransferFate fate = made.next(from);
        text += fate.stalls ? 's' : fate.mute ? 'm' : fate.corruption ? 'c' : fate.delay != 0ms ? 'd' : '.';
    }
    return text;
}

TEST(TransferFaultTest, ReadsEveryKind) {
    EXPECT_EQ(TransferFault::parse("stall").kind, TransferFault::Kind::stall);
    EXPECT_EQ(TransferFault::parse("mute").kind, TransferFault::Kind::mute);
    EXPECT_EQ(TransferFault::parse("corrupt").kind, TransferFault::Kind::corrupt);
    EXPECT_EQ(TransferFault::parse("delay:5-9").time.longest, 9ms);
    EXPECT_FALSE(TransferFault::parse("delay:5").needsDraw());
    EXPECT_TRUE(TransferFault::parse("delay:5-9").needsDraw());
    EXPECT_TRUE(TransferFault::parse("corrupt").needsDraw());
}

TEST(TransferFaultTest, RejectsOtherTexts) {
    for (const char* text : {"", "explode", "stalls", "delay", "delay:", "delay:9-5", "mute:1"}) {
        EXPECT_THROW(TransferFault::parse(text), TextError) << text;
    }
}

TEST(TransferFaultTest, ReadsPercentages) {
    EXPECT_EQ(parseChance("0"), 0U);
    EXPECT_EQ(parseChance("5"), 5000U);
    EXPECT_EQ(parseChance("0.5"), 500U);
    EXPECT_EQ(parseChance("12.345"), 12345U);
    EXPECT_EQ(parseChance("100"), 100'000U);
    for (const char* text :
         {"", "101", "100.001", "-1", "1.", ".5", "1.2345", "1.2.3", "0x10", "5%", "1e1"}) {
        EXPECT_THROW(parseChance(text), TextError) << text;
    }
}

TEST(TransferFaultsTest, CountsTransfers) {
    TransferFaults made;
    made.failNth(3, {});
    made.failNth(1, TransferFault::parse("mute"));
    made.failNth(4, TransferFault::parse("delay:5"));
    EXPECT_EQ(fates(made, 6), "m.sd..");
    made.next(seed);
    made.failNth(1, {});
    EXPECT_EQ(fates(made, 4), "ssd.") << "counted from now";
    made.failNone();
    EXPECT_EQ(fates(made, 4), "....");
}

TEST(TransferFaultsTest, ChanceIsKept) {
    EXPECT_EQ(fates(faults(0, "stall"), 1000), std::string(1000, '.'));
    EXPECT_EQ(fates(faults(100'000, "mute"), 1000), std::string(1000, 'm'));
    const std::string drawn = fates(faults(10'000, "corrupt"), 10'000);
    const auto count = std::ranges::count(drawn, 'c');
    EXPECT_GT(count, 900);
    EXPECT_LT(count, 1100);
}

TEST(TransferFaultsTest, SameSeedDrawsTheSame) {
    const TransferFaults made = faults(20'000, "stall");
    EXPECT_EQ(fates(made, 200), fates(made, 200));
    EXPECT_NE(fates(made, 200), fates(made, 200, seed + 1));
}

TEST(TransferFaultsTest, KeepsOneChanceForEachKind) {
    TransferFaults made = faults(100'000, "mute");
    made.setChance(100'000, TransferFault::parse("delay:1"));
    TransferFate fate = made.next(seed);
    EXPECT_TRUE(fate.mute);
    EXPECT_EQ(fate.delay, 1ms);
    made.setChance(0, TransferFault::parse("mute"));
    made.setChance(100'000, TransferFault::parse("delay:2"));
    fate = made.next(seed);
    EXPECT_FALSE(fate.mute);
    EXPECT_EQ(fate.delay, 2ms);
    made.clearChances();
    EXPECT_EQ(fates(made, 100), std::string(100, '.'));
}

TEST(TransferFateTest, CorruptsOneByte) {
    TransferFaults made = faults(100'000, "corrupt");
    std::set<std::size_t> places;
    for (int i = 0; i < 200; ++i) {
        Bytes data(8, 0x5A);
        made.next(seed).corrupt(data);
        std::size_t changed = 0;
        for (std::size_t at = 0; at < data.size(); ++at) {
            if (data[at] != 0x5A) {
                ++changed;
                places.insert(at);
            }
        }
        EXPECT_EQ(changed, 1U);
    }
    EXPECT_EQ(places.size(), 8U);
    Bytes none;
    made.next(seed).corrupt(none);
    Bytes kept = {1, 2};
    TransferFate{}.corrupt(kept);
    EXPECT_EQ(kept, (Bytes{1, 2}));
}

TEST(TransferFateTest, CombinesBoth) {
    TransferFate fate{.delay = 3ms};
    fate.add({.stalls = true, .corruption = 7, .delay = 4ms});
    fate.add({.mute = true, .corruption = 8});
    EXPECT_TRUE(fate.stalls);
    EXPECT_TRUE(fate.mute);
    EXPECT_EQ(fate.corruption, 7U);
    EXPECT_EQ(fate.delay, 7ms);
}

} // namespace
} // namespace emulator

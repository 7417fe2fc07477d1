#include "commands/presence.h"

#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

void PrintTo(const Change& change, std::ostream* stream) {
    *stream << (change.connected ? "connect " : "disconnect ") << std::hex << change.id << " handle "
            << change.handle;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int handle = 7;
constexpr Report arrival{.arrived = true, .id = 0xA1, .handle = 0};
constexpr Report departure{.arrived = false, .id = 0xA1, .handle = handle};
constexpr Report unknownDeparture{.arrived = false, .id = 0, .handle = 0};
constexpr Change connected{.connected = true, .id = 0xA1, .handle = 0};
constexpr Change disconnected{.connected = false, .id = 0xA1, .handle = 0};
constexpr Change disconnectedHandle{.connected = false, .id = 0xA1, .handle = handle};

TEST(PresenceTest, ReadersPresentAtTheStartAreNoChanges) {
    Presence presence({0xA1, 0xB2});
    EXPECT_THAT(presence.update({}, {0xB2, 0xA1}), IsEmpty());
}

TEST(PresenceTest, APlugAndAnUnplugAreOneChangeEach) {
    Presence presence({});
    EXPECT_THAT(presence.update({arrival}, {0xA1}), ElementsAre(connected));
    EXPECT_THAT(presence.update({}, {0xA1}), IsEmpty());
    EXPECT_THAT(presence.update({departure}, {}), ElementsAre(disconnectedHandle));
    EXPECT_THAT(presence.update({}, {}), IsEmpty());
}

TEST(PresenceTest, AReportOfAChangeThatAScanSawFirstIsIgnored) {
    Presence presence({});
    EXPECT_THAT(presence.update({}, {0xA1}), ElementsAre(connected));
    EXPECT_THAT(presence.update({arrival}, {0xA1}), IsEmpty());
    EXPECT_THAT(presence.update({}, {}), ElementsAre(disconnected));
    EXPECT_THAT(presence.update({departure}, {}), IsEmpty());
}

TEST(PresenceTest, ADepartureOfAPresentReaderMeansThatItCameBack) {
    Presence presence({0xA1});
    EXPECT_THAT(presence.update({departure}, {0xA1}), ElementsAre(disconnectedHandle, connected));
}

TEST(PresenceTest, AnArrivalOfAMissingReaderMeansThatItLeftAgain) {
    Presence presence({});
    EXPECT_THAT(presence.update({arrival}, {}), ElementsAre(connected, disconnected));
    EXPECT_THAT(presence.update({arrival, departure}, {}), ElementsAre(connected, disconnectedHandle));
}

TEST(PresenceTest, ADepartureWithoutIdBelongsToTheMissingReader) {
    Presence presence({0xA1, 0xB2});
    EXPECT_THAT(presence.update({unknownDeparture}, {0xB2}), ElementsAre(disconnected));
    EXPECT_THAT(presence.update({arrival}, {0xA1, 0xB2}), ElementsAre(connected));
}

TEST(PresenceTest, ADepartureWithoutIdAndAnArrivalAreAQuickReplug) {
    Presence together({0xA1});
    EXPECT_THAT(together.update({unknownDeparture, arrival}, {0xA1}), ElementsAre(disconnected, connected));
    EXPECT_THAT(together.update({arrival}, {0xA1}), IsEmpty());

    Presence apart({0xA1});
    EXPECT_THAT(apart.update({unknownDeparture}, {0xA1}), IsEmpty());
    EXPECT_THAT(apart.update({arrival}, {0xA1}), ElementsAre(disconnected, connected));
}

TEST(PresenceTest, ADepartureThatAScanSawFirstMatchesNoOther) {
    Presence presence({0xA1});
    EXPECT_THAT(presence.update({}, {}), ElementsAre(disconnected));
    EXPECT_THAT(presence.update({unknownDeparture}, {0xA1}), ElementsAre(connected));
    EXPECT_THAT(presence.update({arrival}, {0xA1}), IsEmpty());
}

TEST(PresenceTest, AnUnmatchedDepartureIsForgottenOnceTheBusSettles) {
    Presence presence({0xA1});
    EXPECT_THAT(presence.update({unknownDeparture}, {0xA1}), IsEmpty());
    presence.settle();
    EXPECT_THAT(presence.update({arrival}, {0xA1}), IsEmpty());
}

TEST(PresenceTest, ReadersWithTheSameIdAreCounted) {
    Presence presence({0xA1});
    EXPECT_THAT(presence.update({arrival}, {0xA1, 0xA1}), ElementsAre(connected));
    // Polling mistakes the second reader for the first one and reports a departure.
    EXPECT_THAT(presence.update({departure}, {0xA1, 0xA1, 0xA1}), ElementsAre(connected));
    EXPECT_THAT(presence.update({departure}, {0xA1}), ElementsAre(disconnectedHandle, disconnectedHandle));
}

TEST(PresenceTest, DeparturesComeBeforeArrivals) {
    Presence presence({0xB2});
    EXPECT_THAT(presence.update({arrival}, {0xA1}),
                ElementsAre(Change{.connected = false, .id = 0xB2, .handle = 0}, connected));
}

} // namespace

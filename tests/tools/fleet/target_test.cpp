#include "fleet/target.h"

#include <gtest/gtest.h>

namespace {

std::string parsed(const std::string& text) {
    const auto target = parseFleetTarget(text);
    return target ? target->machine + " " + target->reader : "none";
}

TEST(FleetTarget, NamesAMachineAndAReader) {
    EXPECT_EQ(parsed("gate-7/1A2B3C"), "gate-7 1A2B3C");
    EXPECT_EQ(parsed("gate-7/0x1a2b3c"), "gate-7 1A2B3C");
    EXPECT_EQ(parsed("gate-7/00a1"), "gate-7 A1");
    EXPECT_EQ(parseFleetTarget("gate-7/0xA1").value().text(), "gate-7/A1");
}

TEST(FleetTarget, MayNameThePlaceOnTheBus) {
    EXPECT_EQ(parsed("gate-7/a1@1-2.3"), "gate-7 A1@1-2.3");
    EXPECT_EQ(parsed("gate-7/A1@"), "none");
    EXPECT_EQ(parsed("gate-7/A1@1"), "none");
    EXPECT_EQ(parsed("gate-7/A1@usb:1-2"), "none");
}

TEST(FleetTarget, RejectsWhatCannotBeATopic) {
    for (const char* const text :
         {"", "/", "1A2B3C", "/1A2B3C", "gate-7/", "gate-7/xyz", "gate-7/123456789", "+/1A", "gate 7/1A",
          "a/b/1A", "gate-7/1A/", "gate-7/#", "gate-7/usb:1-2"}) {
        EXPECT_EQ(parsed(text), "none") << text;
    }
}

} // namespace

#include "time_stamp.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

TEST(TimeStamp, ReadsTimesInUtc) {
    ::setenv("TZ", "XYZ-2", 1); // two hours ahead
    ::tzset();
    const auto time = parseTimeStamp("2026-11-23T23:00:00.123Z");
    ASSERT_TRUE(time);
    EXPECT_EQ(timeStamp(*time), "2026-11-24T01:00:00.123+02:00");
    EXPECT_EQ(timeStamp(parseTimeStamp("2026-11-23T12:00:00Z").value()), "2026-11-23T14:00:00.000+02:00");
    EXPECT_EQ(timeStamp(parseTimeStamp("2026-11-23T12:00:00.123456789Z").value()),
              "2026-11-23T14:00:00.123+02:00");
    ::unsetenv("TZ");
    ::tzset();
}

TEST(TimeStamp, RejectsOtherTexts) {
    for (const char* const text :
         {"", "now", "2026-11-23", "2026-11-23T12:00:00", "2026-11-23T12:00:00.Z", "2026-11-23T12:00:00.123",
          "2026-11-23T12:00:00+02:00", "2026-13-23T12:00:00Z", "2026-11-23T12:00:00.1234567891Z",
          "2026-11-23T12:00:00Zulu"}) {
        EXPECT_FALSE(parseTimeStamp(text)) << text;
    }
}

} // namespace

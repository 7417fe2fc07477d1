#include "manager/configuration.h"

#include <climits>
#include <string>

#include <gtest/gtest.h>

namespace {

Configuration parsed(const std::string& text) {
    return parseConfiguration(text.c_str());
}

TEST(ConfigurationText, EmptyTextGivesTheDefaults) {
    for (const char* text : {"", "\n", "# nothing here\n", "gvusb", "="}) {
        SCOPED_TRACE(text);
        const Configuration configuration = parsed(text);
        EXPECT_EQ(configuration.libUsbDebugLevel, 0);
        EXPECT_EQ(configuration.debugLevel, 0);
        EXPECT_EQ(configuration.hotPlugMode, 1);
        EXPECT_EQ(configuration.updateRate, 300000u);
        EXPECT_FALSE(configuration.parallel);
        EXPECT_STREQ(configuration.logFile, "");
    }
}

TEST(ConfigurationText, EveryKeySetsItsOwnSetting) {
    const Configuration configuration = parsed("libusb_debuglevel=4\n"
                                               "gvusb_debuglevel=2\n"
                                               "gvusb_hotplug=2\n"
                                               "gvusb_updaterate=250\n"
                                               "gvusb_logfile=/tmp/log\n");
    EXPECT_EQ(configuration.libUsbDebugLevel, 4);
    EXPECT_EQ(configuration.debugLevel, 2);
    EXPECT_EQ(configuration.hotPlugMode, 2);
    EXPECT_EQ(configuration.updateRate, 250000u);
    EXPECT_STREQ(configuration.logFile, "/tmp/log");
}

TEST(ConfigurationText, OneKeyKeepsTheOtherSettings) {
    EXPECT_EQ(parsed("libusb_debuglevel=4").debugLevel, 0);
    EXPECT_EQ(parsed("gvusb_debuglevel=3").libUsbDebugLevel, 0);
    EXPECT_EQ(parsed("gvusb_hotplug=0").updateRate, 300000u);
    EXPECT_EQ(parsed("gvusb_updaterate=20").hotPlugMode, 1);
}

struct NumberRow {
    const char* value;
    int number;
};

TEST(ConfigurationText, LevelsAreDecimalIntegers) {
    const NumberRow rows[] = {
        {"0", 0},
        {"3", 3},
        {"-1", -1},
        {"+2", 2},
        {" 2", 2},
        {"\n2", 2},
        {"007", 7},
        {"2abc", 2},
        {"1.9", 1},
        {"0x10", 0},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MAX},
        {"4294967297", INT_MAX},
        {"-2147483648", INT_MIN},
        {"-2147483649", INT_MIN},
        {"99999999999999999999", INT_MAX},
        {"-99999999999999999999", INT_MIN},
    };
    for (const auto& [value, number] : rows) {
        EXPECT_EQ(parsed("libusb_debuglevel=" + std::string(value)).libUsbDebugLevel, number) << value;
        EXPECT_EQ(parsed("gvusb_debuglevel=" + std::string(value)).debugLevel, number) << value;
    }
}

TEST(ConfigurationText, ValueThatIsNoNumberKeepsTheDefault) {
    for (const char* value : {"", " ", "abc", "-", "=3", ";3"}) {
        SCOPED_TRACE(value);
        const std::string text(value);
        EXPECT_EQ(parsed("libusb_debuglevel=" + text).libUsbDebugLevel, 0);
        EXPECT_EQ(parsed("gvusb_debuglevel=" + text).debugLevel, 0);
        EXPECT_EQ(parsed("gvusb_updaterate=" + text).updateRate, 300000u);
    }
}

TEST(ConfigurationText, HotPlugModeIsOneCharacter) {
    const NumberRow rows[] = {
        {"0", 0},  {"1", 1},  {"2", 2},    {"7", 7},   {"9", 9},     {"12", 1}, {"20", 2},      {"a", 49},
        {"z", 74}, {"/", -1}, {" 2", -16}, {"-2", -3}, {"\n2", -38}, {"=", 13}, {"\x80", -176}, {"\xFF", -49},
    };
    for (const auto& [value, mode] : rows) {
        EXPECT_EQ(parsed("gvusb_hotplug=" + std::string(value)).hotPlugMode, mode) << '"' << value << '"';
    }
}

TEST(ConfigurationText, HotPlugModeWithoutACharacterIsUnchanged) {
    EXPECT_EQ(parsed("gvusb_hotplug=").hotPlugMode, 1);
}

TEST(ConfigurationText, ParallelModeIsOneOrOff) {
    EXPECT_TRUE(parsed("gvusb_parallel=1").parallel);
    EXPECT_TRUE(parsed("gvusb_parallel= +1x").parallel);
    for (const char* value : {"0", "2", "-1", "10", "", "yes", "4294967297"}) {
        EXPECT_FALSE(parsed("gvusb_parallel=" + std::string(value)).parallel) << value;
    }
}

TEST(ConfigurationText, LogFileIsTheRestOfItsLine) {
    EXPECT_STREQ(parsed("gvusb_logfile=stderr").logFile, "stderr");
    EXPECT_STREQ(parsed("gvusb_logfile=/var/log/my readers.log \ngvusb_hotplug=0").logFile,
                 "/var/log/my readers.log ");
    EXPECT_STREQ(parsed("gvusb_logfile=/log\r\nnopnp").logFile, "/log");
    EXPECT_STREQ(parsed("gvusb_logfile=\n/log").logFile, "");
    const std::string longest(configurationSize - std::string("gvusb_logfile=").size(), 'x');
    EXPECT_EQ(parsed("gvusb_logfile=" + longest).logFile, longest);
    EXPECT_EQ(parsed("gvusb_logfile=" + std::string(3000, 'x')).logFile, std::string(configurationSize, 'x'));
}

TEST(ConfigurationText, UpdateRateIsGivenInMillisecondsOfAtLeastTen) {
    struct Row {
        const char* value;
        unsigned int microseconds;
    };
    const Row rows[] = {
        {"300", 300000},        {"250", 250000},   {"11", 11000},  {"10", 10000},
        {"9", 10000},           {"5", 10000},      {"0", 10000},   {"-3", 10000},
        {"-2147483649", 10000}, {"250ms", 250000}, {" 20", 20000}, {"3600000", 3600000000},
    };
    for (const auto& [value, microseconds] : rows) {
        EXPECT_EQ(parsed("gvusb_updaterate=" + std::string(value)).updateRate, microseconds) << value;
    }
}

TEST(ConfigurationText, UpdateRateThatDoesNotFitSaturates) {
    EXPECT_EQ(parsed("gvusb_updaterate=4294967").updateRate, 4294967000u);
    for (const char* value : {"4294968", "2147483647", "2147483648", "4294967306", "99999999999999999999"}) {
        EXPECT_EQ(parsed("gvusb_updaterate=" + std::string(value)).updateRate, UINT_MAX) << value;
    }
}

TEST(ConfigurationText, NoPnpTurnsHotPlugOffAnywhereInTheText) {
    for (const char* text :
         {"nopnp", "nopnp\ngvusb_hotplug=1", "gvusb_hotplug=1\nnopnp", "gvusb_hotplug=2 nopnp",
          "# do not use nopnp here", "xnopnpx", "gvusb_hotplug=nopnp"}) {
        EXPECT_EQ(parsed(text).hotPlugMode, 0) << text;
    }
    EXPECT_EQ(parsed("nopn p").hotPlugMode, 1);
    EXPECT_EQ(parsed("NOPNP").hotPlugMode, 1);
}

TEST(ConfigurationText, NoPnpKeepsTheOtherSettings) {
    const Configuration configuration =
        parsed("nopnp libusb_debuglevel=1 gvusb_debuglevel=2 gvusb_updaterate=20");
    EXPECT_EQ(configuration.libUsbDebugLevel, 1);
    EXPECT_EQ(configuration.debugLevel, 2);
    EXPECT_EQ(configuration.updateRate, 20000u);
}

TEST(ConfigurationText, KeysAreFoundInsideOtherWords) {
    EXPECT_EQ(parsed("#gvusb_debuglevel=3").debugLevel, 3);
    EXPECT_EQ(parsed("my_gvusb_debuglevel=3").debugLevel, 3);
    EXPECT_EQ(parsed("xlibusb_debuglevel=2").libUsbDebugLevel, 2);
    EXPECT_EQ(parsed("no-gvusb_hotplug=0").hotPlugMode, 0);
    EXPECT_EQ(parsed("a=1 b=2 gvusb_updaterate=40 c=3").updateRate, 40000u);
}

TEST(ConfigurationText, FirstOccurrenceCountsEvenIfItHasNoNumber) {
    EXPECT_EQ(parsed("gvusb_debuglevel=1\ngvusb_debuglevel=2").debugLevel, 1);
    EXPECT_EQ(parsed("#gvusb_debuglevel=\n#\ngvusb_debuglevel=2").debugLevel, 0);
    EXPECT_EQ(parsed("gvusb_hotplug=0gvusb_hotplug=2").hotPlugMode, 0);
    EXPECT_EQ(parsed("gvusb_updaterate=abc gvusb_updaterate=20").updateRate, 300000u);
}

TEST(ConfigurationText, KeysMustMatchExactly) {
    for (const char* text : {"GVUSB_DEBUGLEVEL=3", "gvusb_debuglevel =3", "gvusb-debuglevel=3",
                             "gvusb_debuglevel:3", "gvusb_debugleve=3"}) {
        EXPECT_EQ(parsed(text).debugLevel, 0) << text;
    }
}

} // namespace

#include "configuration_file.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

// Read by the first object of this file, before main.
extern "C" const char* gvusbTestInitialConfiguration() {
    return "gvusb_hotplug=0\n";
}

namespace {

constexpr const char* path = "/etc/gavo/gvusb.conf";

std::string contents() {
    std::FILE* const file = std::fopen(path, "r");
    if (file == nullptr) {
        return "errno " + std::to_string(errno);
    }
    char buffer[4096];
    const std::size_t count = std::fread(buffer, 1, sizeof buffer, file);
    std::string text(buffer, count);
    if (std::ferror(file) != 0) {
        text += "read error " + std::to_string(errno);
    }
    std::fclose(file);
    return text;
}

const std::string readBeforeMain = contents();

} // namespace

TEST(ConfigurationFileTest, HasAChosenTextBeforeMain) {
    EXPECT_EQ(readBeforeMain, "gvusb_hotplug=0\n");
}

TEST(ConfigurationFileTest, IsWhatTheTestSets) {
    support::setConfigurationText("nopnp");
    EXPECT_EQ(contents(), "nopnp");
    EXPECT_EQ(contents(), "nopnp");
    EXPECT_EQ(support::configurationOpens(), 2);
    support::setConfigurationText(std::string("a\0b", 3));
    EXPECT_EQ(contents(), std::string("a\0b", 3));
    support::setConfigurationText("");
    EXPECT_EQ(contents(), "");
    EXPECT_EQ(support::configurationOpens(), 1);
    support::setConfigurationText(std::string(3000, 'x'));
    EXPECT_EQ(contents().size(), 3000u);
}

TEST(ConfigurationFileTest, IsReadByStreamsToo) {
    support::setConfigurationText("nopnp");
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_EQ(text.str(), "nopnp");
}

TEST(ConfigurationFileTest, CanBeMissingUnreadableOrADirectory) {
    support::setConfigurationText(std::nullopt);
    EXPECT_EQ(contents(), "errno " + std::to_string(ENOENT));
    EXPECT_EQ(support::configurationOpens(), 1);
    support::makeConfigurationUnreadable();
    EXPECT_EQ(contents(), "errno " + std::to_string(EACCES));
    support::makeConfigurationADirectory();
    EXPECT_EQ(contents(), "read error " + std::to_string(EISDIR));
}

TEST(ConfigurationFileTest, CannotBeWritten) {
    support::setConfigurationText("nopnp");
    EXPECT_EQ(std::fopen(path, "w"), nullptr);
    EXPECT_EQ(std::fopen(path, "r+"), nullptr);
}

TEST(ConfigurationFileTest, OtherPathsAreReal) {
    std::FILE* const file = std::fopen("/proc/self/comm", "r");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    EXPECT_EQ(std::fopen("/etc/gavo/no-such-file", "r"), nullptr);
}

#include "configuration_file.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

// Read by the first object of this file, before main().
extern "C" const char* gvusbTestInitialConfiguration() {
    return "gvusb_hotplug=0\n";
}

namespace {

constexpr const char* path = "/etc/gavo/gvusb.conf";

std::string contents() {
    const int descriptor = open(path, O_RDONLY);
    if (descriptor < 0) {
        return "errno " + std::to_string(errno);
    }
    char buffer[4096];
    const ssize_t count = read(descriptor, buffer, sizeof buffer);
    const std::string text = count < 0 ? "read error " + std::to_string(errno)
                                       : std::string(buffer, static_cast<std::size_t>(count));
    close(descriptor);
    return text;
}

const std::string readBeforeMain = contents();

} // namespace

TEST(ConfigurationFileTest, HasAChosenTextBeforeMain) {
    EXPECT_EQ(readBeforeMain, "gvusb_hotplug=0\n");
}

TEST(ConfigurationFileTest, HasTheTextThatTheTestSets) {
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

TEST(ConfigurationFileTest, CanBeMissingUnreadableOrAnotherFile) {
    support::setConfigurationText(std::nullopt);
    EXPECT_EQ(contents(), "errno " + std::to_string(ENOENT));
    EXPECT_EQ(support::configurationOpens(), 1);
    support::makeConfigurationUnreadable();
    EXPECT_EQ(contents(), "errno " + std::to_string(EACCES));
    support::setConfigurationPath("/");
    EXPECT_EQ(contents(), "read error " + std::to_string(EISDIR));
}

TEST(ConfigurationFileTest, CannotBeWritten) {
    support::setConfigurationText("nopnp");
    for (const int access : {O_WRONLY, O_RDWR}) {
        const int descriptor = open(path, access);
        EXPECT_EQ(descriptor, -1);
    }
}

TEST(ConfigurationFileTest, OtherPathsAreNotRedirected) {
    const int present = open("/proc/self/comm", O_RDONLY);
    EXPECT_GE(present, 0);
    close(present);
    const int missing = open("/etc/gavo/no-such-file", O_RDONLY);
    EXPECT_EQ(missing, -1);
    close(missing);
}

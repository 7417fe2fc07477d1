#include "control/commands.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace emulator {
namespace {

std::string contentOf(const char* file) {
    std::ifstream stream(file);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

// As help2man writes it: each command begins a line, and minus signs are quoted.
TEST(CommandTextsTest, TheManualPageHasEveryCommand) {
    std::string page = contentOf(GVUSB_MANUAL_PAGE);
    std::erase(page, '\\');
    const auto begin = page.find("COMMANDS");
    const auto end = page.find("CONFIGURATION");
    ASSERT_LT(begin, end);
    const std::string section = page.substr(begin, end - begin);
    for (const std::string_view name : commandNames()) {
        const std::string line = "\n  " + std::string(name);
        EXPECT_TRUE(section.find(line + " ") != std::string::npos) << name;
    }
}

} // namespace
} // namespace emulator

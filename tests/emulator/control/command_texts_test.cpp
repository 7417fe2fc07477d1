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

#ifdef GVUSB_MANUAL_PAGE
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
#endif

TEST(CommandTextsTest, TheCompletionHasEveryCommandAndNoOther) {
    std::string text = contentOf(GVUSB_COMPLETION);
    const auto begin = text.find("compgen -W '", text.find("    --send)"));
    ASSERT_NE(begin, std::string::npos);
    text = text.substr(begin + 12);
    std::string words;
    for (const std::string_view name : commandNames()) {
        words += (words.empty() ? "" : " ") + std::string(name);
    }
    std::string found;
    for (const char character : text.substr(0, text.find('\''))) {
        const bool blank = character == ' ' || character == '\n';
        if (!blank || !found.ends_with(' ')) {
            found += blank ? ' ' : character;
        }
    }
    EXPECT_EQ(found, words);
}

} // namespace
} // namespace emulator

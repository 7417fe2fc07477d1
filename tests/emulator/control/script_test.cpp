#include "control/script.h"

#include <gtest/gtest.h>

#include <sstream>

namespace emulator {
namespace {

using namespace std::chrono_literals;

Script parse(const std::string& text) {
    std::istringstream stream(text);
    return Script::parse(stream, "script");
}

std::string complaint(const std::string& text) {
    try {
        parse(text);
    } catch (const TextError& error) {
        return error.what();
    }
    return "none";
}

TEST(ScriptTest, GivesCommandsWhenTheyAreDue) {
    Script script = parse("# away\n\n at 100  unplug 1 \nat 100 plug 2\nat 250 string 1 5 A  name\n");
    EXPECT_EQ(script.next(), 100ms);
    EXPECT_FALSE(script.take(99ms).has_value());
    EXPECT_EQ(script.take(100ms)->command, "unplug 1");
    const auto second = script.take(100ms);
    EXPECT_EQ(second->command, "plug 2");
    EXPECT_EQ(second->line, 4U);
    EXPECT_FALSE(script.take(249ms).has_value());
    EXPECT_EQ(script.take(1h)->command, "string 1 5 A  name");
    EXPECT_FALSE(script.next().has_value());
    EXPECT_FALSE(script.take(1h).has_value());
}

TEST(ScriptTest, EmptyScriptHasNothingToDo) {
    EXPECT_FALSE(Script().next().has_value());
}

TEST(ScriptTest, NamesTheMistakeAndItsLine) {
    EXPECT_EQ(complaint("at 1 unplug 1\nunplug 1\n"), "script:2: expected: at MS COMMAND");
    EXPECT_EQ(complaint("at soon unplug 1"),
              "script:1: time must be a number from 0 to 86400000, not 'soon'");
    EXPECT_EQ(complaint("at 5 explode 1"), "script:1: unknown command 'explode'");
    EXPECT_EQ(complaint("at 5"), "script:1: missing command");
    EXPECT_EQ(complaint("at 5 mute 1"), "script:1: usage: mute READER PIPE");
    EXPECT_EQ(complaint("at 5 wait 1"), "script:1: wait cannot be used in a script");
    EXPECT_EQ(complaint("at 5 unplug 1\nat 4 plug 1"),
              "script:2: time is earlier than that of the line before");
}

} // namespace
} // namespace emulator

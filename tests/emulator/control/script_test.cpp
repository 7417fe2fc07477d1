#include "control/script.h"

#include <gtest/gtest.h>

#include <sstream>

namespace emulator {
namespace {

using namespace std::chrono_literals;

const Script::Bus twoReaders = {.readers = parseReaders("copies=2"), .hostIsElsewhere = false};

Script parse(const std::string& text, const std::optional<Script::Bus>& bus = twoReaders) {
    std::istringstream stream(text);
    return Script::parse(stream, "script", bus);
}

std::string mistakeIn(const std::string& text, const std::optional<Script::Bus>& bus = twoReaders) {
    try {
        parse(text, bus);
    } catch (const TextError& error) {
        return error.what();
    }
    return "none";
}

// The commands with their times, up to a time.
std::string timetable(Script& script, Milliseconds until = 1h) {
    std::string text;
    while (script.next() && *script.next() <= until) {
        const std::string time = std::to_string(script.next()->count());
        EXPECT_FALSE(script.take(*script.next() - 1ms).has_value());
        text += (text.empty() ? "" : ", ") + time + " " + script.take(*script.next())->command;
    }
    return text;
}

TEST(ScriptTest, GivesCommandsWhenTheyAreDue) {
    Script script = parse("# away\n\n at 100  unplug 1 \nat 100 plug 2\nat 250 string 1 5 A  name\n");
    EXPECT_EQ(script.next(), 100ms);
    EXPECT_FALSE(script.take(99ms).has_value());
    EXPECT_EQ(script.take(100ms)->command, "unplug 1");
    const auto second = script.take(100ms);
    EXPECT_EQ(second->command, "plug 2");
    EXPECT_EQ(second->place, "script:4");
    EXPECT_FALSE(script.take(249ms).has_value());
    EXPECT_EQ(script.take(1h)->command, "string 1 5 A  name");
    EXPECT_FALSE(script.next().has_value());
    EXPECT_FALSE(script.take(1h).has_value());
}

TEST(ScriptTest, SkipsAByteOrderMarkAndCarriageReturns) {
    Script script = parse("\xEF\xBB\xBF"
                          "at 1 unplug 1\r\n\r\n# note\r\nat 2 plug 1\r\n");
    EXPECT_EQ(timetable(script), "1 unplug 1, 2 plug 1");
    EXPECT_EQ(mistakeIn("at 1 unplug 1\n\xEF\xBB\xBF"
                        "at 1 plug 1"),
              "script:2: expected: at MS COMMAND");
}

TEST(ScriptTest, RepeatsALoop) {
    Script script = parse("at 5 plug 2\nat 100 repeat 3\n  at 0 unplug 1\n  at 10 plug 1\nat 25 end\n"
                          "at 175 plug 1\n");
    EXPECT_EQ(timetable(script),
              "5 plug 2, 100 unplug 1, 110 plug 1, 125 unplug 1, 135 plug 1, 150 unplug 1, "
              "160 plug 1, 175 plug 1");
}

TEST(ScriptTest, RepeatsLoopsInLoops) {
    Script script = parse("at 10 repeat 2\nat 1 repeat 2\nat 2 list\nat 3 end\nat 7 flush 1\nat 10 end\n");
    EXPECT_EQ(timetable(script), "13 list, 16 list, 17 flush 1, 23 list, 26 list, 27 flush 1");
}

TEST(ScriptTest, RunsForever) {
    Script script = parse("at 10 forever\nat 0 unplug 1\nat 1 plug 1\nat 2 end");
    EXPECT_EQ(timetable(script, 13ms), "10 unplug 1, 11 plug 1, 12 unplug 1, 13 plug 1");
    EXPECT_EQ(script.next(), 14ms);
    Script copy = script;
    script = Script();
    EXPECT_EQ(timetable(copy, 15ms), "14 unplug 1, 15 plug 1");
}

TEST(ScriptTest, KnowsWhatItHasMissed) {
    Script script = parse("at 1 list\nat 2 list\n");
    EXPECT_EQ(script.missed()->place, "script:1");
    timetable(script, 1ms);
    EXPECT_EQ(script.missed()->place, "script:2");
    timetable(script, 2ms);
    EXPECT_FALSE(script.missed().has_value());

    script = parse("at 1 repeat 2\nat 0 list\nat 2 end\n");
    timetable(script, 2ms);
    EXPECT_EQ(script.missed()->place, "script:2") << "the second pass";

    script = parse("at 1 forever\nat 0 list\nat 1 repeat 2\nat 0 flush 1\nat 1 end\nat 3 end\n");
    EXPECT_EQ(script.missed()->place, "script:2");
    timetable(script, 2ms);
    EXPECT_EQ(script.missed()->place, "script:4") << "the first pass must be complete";
    timetable(script, 3ms);
    EXPECT_FALSE(script.missed().has_value());
    timetable(script, 5ms);
    EXPECT_FALSE(script.missed().has_value()) << "even inside another loop";
}

TEST(ScriptTest, EmptyScriptHasNothingToDo) {
    EXPECT_FALSE(Script().next().has_value());
}

TEST(ScriptTest, NamesTheMistakeAndItsLine) {
    EXPECT_EQ(mistakeIn("at 1 unplug 1\nunplug 1\n"), "script:2: expected: at MS COMMAND");
    EXPECT_EQ(mistakeIn("at soon unplug 1"),
              "script:1: time must be a number from 0 to 86400000, not 'soon'");
    EXPECT_EQ(mistakeIn("at 5 explode 1"), "script:1: unknown command 'explode'");
    EXPECT_EQ(mistakeIn("at 5"), "script:1: missing command");
    EXPECT_EQ(mistakeIn("at 5 mute 1"), "script:1: usage: mute READER PIPE");
    EXPECT_EQ(mistakeIn("at 5 wait 1"), "script:1: wait cannot be used in a script");
    EXPECT_EQ(mistakeIn("at 5 unplug 1\nat 4 plug 1"),
              "script:2: time is earlier than that of the line before");
}

TEST(ScriptTest, ChecksArguments) {
    EXPECT_EQ(mistakeIn("at 5 unplug 3"), "script:1: reader must be a number from 1 to 2, not '3'");
    EXPECT_EQ(mistakeIn("at 5 stall 1 0x83"), "script:1: reader has no endpoint 0x83");
    EXPECT_EQ(mistakeIn("at 5 on 1 0 mute"),
              "script:1: beginning of a frame must have two digits for each byte, not '0'");
    EXPECT_EQ(mistakeIn("at 5 plug 1"), "none") << "a program may have unplugged it";
    EXPECT_EQ(mistakeIn("at 5 busy 1 on"), "none");
    EXPECT_EQ(mistakeIn("at 5 busy 1 on", Script::Bus{.readers = parseReaders(""), .hostIsElsewhere = true}),
              "script:1: not possible over USB/IP: the machine that attaches the reader is its host");
}

TEST(ScriptTest, KnowsReadersThatItPlugs) {
    EXPECT_EQ(mistakeIn("at 5 plug id=77\nat 6 unplug 3"), "none");
    EXPECT_EQ(mistakeIn("at 5 plug id=77,endpoints=control\nat 6 stall 3 0x81"),
              "script:2: reader has no endpoint 0x81");
    EXPECT_EQ(mistakeIn("at 5 unplug 3\nat 6 plug id=77"),
              "script:1: reader must be a number from 1 to 2, not '3'");
    EXPECT_EQ(mistakeIn("at 5 repeat 3\nat 0 plug copies=2\nat 1 end\nat 8 unplug 8"), "none");
    EXPECT_EQ(mistakeIn("at 5 repeat 3\nat 0 plug copies=2\nat 1 end\nat 8 unplug 9"),
              "script:4: reader must be a number from 1 to 8, not '9'");
    EXPECT_EQ(mistakeIn("at 5 repeat 3\nat 0 unplug 3\nat 0 plug id=7\nat 1 end"),
              "script:2: reader must be a number from 1 to 2, not '3'");
    EXPECT_EQ(mistakeIn("at 5 repeat 100000\nat 0 plug id=7\nat 1 end"), "script:3: more than 65535 readers");
    EXPECT_EQ(mistakeIn("at 5 repeat 1000000\nat 0 unplug 1\nat 1 end"), "none");
}

TEST(ScriptTest, ChecksOnlyNamesWithoutABus) {
    EXPECT_EQ(mistakeIn("at 5 unplug 3\nat 6 stall 1 sideways", std::nullopt), "none");
    EXPECT_EQ(mistakeIn("at 5 mute 1", std::nullopt), "script:1: usage: mute READER PIPE");
    EXPECT_EQ(mistakeIn("at 5 explode", std::nullopt), "script:1: unknown command 'explode'");
}

TEST(ScriptTest, NamesMistakesInLoops) {
    EXPECT_EQ(mistakeIn("at 1 end"), "script:1: end without a loop");
    EXPECT_EQ(mistakeIn("at 1 repeat 2\nat 0 list\n\n"), "script:1: loop without end");
    EXPECT_EQ(mistakeIn("at 1 repeat 2\nat 1 end"), "script:2: loop without a command");
    EXPECT_EQ(mistakeIn("at 1 repeat\nat 0 list\nat 1 end"),
              "script:1: number of passes must be a number from 1 to 1000000000, not ''");
    EXPECT_EQ(mistakeIn("at 1 repeat 2 times\n"), "script:1: unexpected argument 'times'");
    EXPECT_EQ(mistakeIn("at 1 forever 2\n"), "script:1: unexpected argument '2'");
    EXPECT_EQ(mistakeIn("at 1 repeat 2\nat 0 list\nat 1 end 2"), "script:3: unexpected argument '2'");
    EXPECT_EQ(mistakeIn("at 1 forever\nat 0 list\nat 0 end"),
              "script:3: a pass of a loop must take at least 1 ms");
    EXPECT_EQ(mistakeIn("at 1 repeat 2\nat 7 list\nat 6 end"),
              "script:3: time is earlier than that of the line before");
    EXPECT_EQ(mistakeIn("at 1 repeat 3\nat 7 list\nat 8 end\nat 24 list"),
              "script:4: time is earlier than the end of the loop before, which is at 25");
    EXPECT_EQ(mistakeIn("at 1 repeat 3\nat 7 list\nat 8 end\nat 25 list"), "none");
    EXPECT_EQ(mistakeIn("at 1 repeat 2\nat 0 forever"), "script:2: forever cannot be used inside a loop");
    EXPECT_EQ(mistakeIn("at 1 forever\nat 0 list\nat 1 end\nat 9 list"),
              "script:4: never runs, because the loop before it runs forever");
    EXPECT_EQ(mistakeIn("at 1 repeat 1000000000\nat 0 list\nat 1 end"),
              "script:3: the loop ends later than after 24 hours; use forever");
    std::string deep;
    for (int i = 0; i < 17; ++i) {
        deep += "at 0 repeat 1\n";
    }
    EXPECT_EQ(mistakeIn(deep), "script:17: more than 16 loops inside each other");
}

} // namespace
} // namespace emulator

#include "logic/messages.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

using namespace std::chrono_literals;
using Kind = LogicAction::Kind;

std::string complaint(std::string_view line) {
    try {
        parseLogicLine(line, 7);
    } catch (const TextError& error) {
        return error.what();
    }
    return "none";
}

TEST(LogicMessagesTest, HelloTellsTheFactsOfTheReader) {
    const auto readers = parseReaders("id=CAFE,name=Desk \"1\",family=F\xFF,missing=10,product=2,speed=high,"
                                      "endpoints=0x81+0x02:interrupt:8,copies=2,logic=cat");
    EXPECT_EQ(helloLine(readers[1], 5),
              "{\"hello\":1,\"reader\":5,\"copy\":2,\"id\":\"CAFF\",\"family\":\"F\xEF\xBF\xBD\",\"name\":"
              "\"Desk \\\"1\\\"\","
              "\"interface\":\"TESK RCI2\",\"type\":null,\"vendor\":" +
                  std::to_string(GVUSB_VENDOR_ID) +
                  ",\"product\":2,\"release\":256,\"speed\":\"high\",\"endpoints\":["
                  "{\"address\":\"0x81\",\"type\":\"bulk\",\"packet\":512},"
                  "{\"address\":\"0x02\",\"type\":\"interrupt\",\"packet\":8}]}\n");
}

TEST(LogicMessagesTest, FramesHaveNumberPipeAndEndpoint) {
    EXPECT_EQ(frameLine(1, 0x02, {0x00, 0xFE}),
              "{\"frame\":\"00fe\",\"number\":1,\"pipe\":\"bulk\",\"endpoint\":\"0x02\"}\n");
    EXPECT_EQ(frameLine(12, 0, {}),
              "{\"frame\":\"\",\"number\":12,\"pipe\":\"control\",\"endpoint\":\"0x00\"}\n");
}

TEST(LogicMessagesTest, EventsHaveTheirValues) {
    EXPECT_EQ(eventLine(ReaderEvent::plugged, 0), "{\"event\":\"plugged\"}\n");
    EXPECT_EQ(eventLine(ReaderEvent::unplugged, 0), "{\"event\":\"unplugged\"}\n");
    EXPECT_EQ(eventLine(ReaderEvent::opened, 0), "{\"event\":\"opened\"}\n");
    EXPECT_EQ(eventLine(ReaderEvent::closed, 0), "{\"event\":\"closed\"}\n");
    EXPECT_EQ(eventLine(ReaderEvent::claimed, 3), "{\"event\":\"claimed\",\"interface\":3}\n");
    EXPECT_EQ(eventLine(ReaderEvent::released, 3), "{\"event\":\"released\",\"interface\":3}\n");
    EXPECT_EQ(eventLine(ReaderEvent::reset, 0), "{\"event\":\"reset\"}\n");
    EXPECT_EQ(eventLine(ReaderEvent::configured, 2), "{\"event\":\"configured\",\"configuration\":2}\n");
    EXPECT_EQ(eventLine(ReaderEvent::haltCleared, 0x81),
              "{\"event\":\"halt-cleared\",\"endpoint\":\"0x81\"}\n");
    EXPECT_EQ(lostEventsLine(9), "{\"event\":\"lost\",\"count\":9}\n");
}

TEST(LogicMessagesTest, ParsesFramesToSend) {
    LogicAction action = parseLogicLine(R"({"send": "01 fF"})", 7);
    EXPECT_EQ(action.kind, Kind::send);
    EXPECT_EQ(action.frame, (Bytes{1, 0xFF}));
    EXPECT_EQ(action.byControl, std::nullopt);
    EXPECT_EQ(action.after, 0ms);
    action = parseLogicLine(R"({"pipe":"control","after_ms":20,"send":""})", 7);
    EXPECT_EQ(action.frame, Bytes{});
    EXPECT_EQ(action.byControl, true);
    EXPECT_EQ(action.after, 20ms);
    EXPECT_EQ(parseLogicLine(R"({"send":"","pipe":"bulk"})", 7).byControl, false);
}

TEST(LogicMessagesTest, ParsesWhatItAsksOfTheLauncher) {
    const auto parsed = [](std::string_view line, Kind kind) {
        const LogicAction action = parseLogicLine(line, 7);
        EXPECT_EQ(action.kind, kind) << line;
        return action.text;
    };
    EXPECT_EQ(parsed(R"({"stall":"in"})", Kind::stall), "in");
    EXPECT_EQ(parsed(R"({"mute":"all"})", Kind::command), "mute 7 all");
    EXPECT_EQ(parsed(R"({"unmute":"0x81"})", Kind::command), "unmute 7 0x81");
    EXPECT_EQ(parsed(R"({"delay":"in","ms":15})", Kind::command), "delay 7 in 15");
    EXPECT_EQ(parsed(R"({"reply":"fixed:9000"})", Kind::command), "reply 7 fixed:9000");
    EXPECT_EQ(parsed(R"({"flush":true})", Kind::command), "flush 7");
    EXPECT_EQ(parsed(R"({"command":"string 7 5 A b"})", Kind::command), "string 7 5 A b");
    EXPECT_EQ(parsed(R"({"plug":true})", Kind::plug), "");
    EXPECT_EQ(parsed(R"({"unplug":true})", Kind::unplug), "");
    EXPECT_EQ(parsed(R"({"log":"a\nb"})", Kind::log), "a\nb");
}

TEST(LogicMessagesTest, ExplainsMistakes) {
    EXPECT_EQ(complaint(""), "not a JSON object");
    EXPECT_EQ(complaint("9000"), "not a JSON object");
    EXPECT_EQ(complaint("{\"send\":\"01\""), "not a JSON object");
    EXPECT_EQ(complaint("{\"log\":\"\xFF\"}"), "not a JSON object");
    EXPECT_EQ(complaint(std::string(10'000, '[')), "not a JSON object");
    EXPECT_EQ(complaint("{}"), "expected one of the keys send, stall, mute, unmute, delay, reply, flush, "
                               "plug, unplug, command, log");
    EXPECT_EQ(complaint(R"({"answer":"01"})"), "unknown key \"answer\"");
    EXPECT_EQ(complaint(R"({"send":"01","ms":5})"), "unknown key \"ms\" with \"send\"");
    EXPECT_EQ(complaint(R"({"send":"01","stall":"in"})"), "unknown key \"stall\" with \"send\"");
    EXPECT_EQ(complaint(R"({"send":1})"), "expected a text for \"send\"");
    EXPECT_EQ(complaint(R"({"send":"0g"})"), "\"send\" must be pairs of hexadecimal digits, not '0g'");
    EXPECT_EQ(complaint(R"({"send":"","pipe":"in"})"), "expected bulk or control for \"pipe\"");
    EXPECT_EQ(complaint(R"({"send":"","after_ms":-1})"),
              "expected a number from 0 to 3600000 for \"after_ms\"");
    EXPECT_EQ(complaint(R"({"send":"","after_ms":3600001})"),
              "expected a number from 0 to 3600000 for \"after_ms\"");
    EXPECT_EQ(complaint(R"({"delay":"in"})"), "expected \"ms\" with \"delay\"");
    EXPECT_EQ(complaint(R"({"plug":false})"), "expected true for \"plug\"");
    EXPECT_EQ(complaint(R"({"flush":1})"), "expected true for \"flush\"");
}

} // namespace
} // namespace emulator

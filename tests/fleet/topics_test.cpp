#include "fleet/topics.h"

#include <gtest/gtest.h>

namespace {

using namespace fleet;

TEST(TopicsTest, AreBelowPrefixAndMachine) {
    EXPECT_EQ(statusTopic("gvusb", "gate-1"), "gvusb/gate-1/status");
    EXPECT_EQ(eventsTopic("gvusb", "gate-1"), "gvusb/gate-1/events");
    EXPECT_EQ(scanTopic("site/gvusb", "gate-1"), "site/gvusb/gate-1/scan");
    EXPECT_EQ(readerTopic("gvusb", "gate-1", "1A2B3C"), "gvusb/gate-1/readers/1A2B3C");
    EXPECT_EQ(requestTopic("gvusb", "gate-1", "1A2B3C", Operation::set), "gvusb/gate-1/readers/1A2B3C/set");
    EXPECT_EQ(requestTopic("gvusb", "gate-1", "", Operation::scan), "gvusb/gate-1/scan");
}

TEST(TopicsTest, OfRequestsAreParsed) {
    for (const Operation operation : {Operation::transceive, Operation::transmit, Operation::receive,
                                      Operation::get, Operation::set, Operation::scan}) {
        const std::string text = requestTopic("a/b", "gate", "1A2B3C@1-2.3", operation);
        const auto topic = parseTopic("a/b", text);
        ASSERT_TRUE(topic) << text;
        EXPECT_EQ(topic->kind, Topic::Kind::request);
        EXPECT_EQ(topic->machine, "gate");
        EXPECT_EQ(topic->reader, operation == Operation::scan ? "" : "1A2B3C@1-2.3");
        EXPECT_EQ(topic->operation, operation);
    }
}

TEST(TopicsTest, OfStatusEventsAndReadersAreParsed) {
    EXPECT_EQ(parseTopic("gvusb", "gvusb/gate/status")->kind, Topic::Kind::status);
    EXPECT_EQ(parseTopic("gvusb", "gvusb/gate/events")->kind, Topic::Kind::events);
    const auto topic = parseTopic("gvusb", "gvusb/gate/readers/CAFE");
    ASSERT_TRUE(topic);
    EXPECT_EQ(topic->kind, Topic::Kind::reader);
    EXPECT_EQ(topic->reader, "CAFE");
}

TEST(TopicsTest, OfOthersAreNothing) {
    for (const char* const text :
         {"", "gvusb", "gvusb/", "gvusb/gate", "gvusb/gate/", "gvusb//status", "gvusb/gate/readers",
          "gvusb/gate/readers/", "gvusb/gate/readers//get", "gvusb/gate/readers/CAFE/",
          "gvusb/gate/readers/CAFE/open", "gvusb/gate/readers/CAFE/get/TIMEOUT", "gvusb/gate/status/now",
          "gvusb2/gate/status", "other/gate/status"}) {
        const auto topic = parseTopic("gvusb", text);
        EXPECT_FALSE(topic) << text;
    }
}

TEST(TopicsTest, MachineNamesFitIntoOneLevel) {
    EXPECT_TRUE(isMachineName("gate-1.example"));
    EXPECT_TRUE(isMachineName("tor-äöü"));
    EXPECT_TRUE(isMachineName(std::string(64, 'x')));
    EXPECT_FALSE(isMachineName(std::string(65, 'x')));
    for (const char* const text : {"", "a/b", "a+", "#", "$SYS", "a b", "a\tb", "a\x7F", "\xFF"}) {
        EXPECT_FALSE(isMachineName(text)) << text;
    }
}

TEST(TopicsTest, PrefixesHaveLevels) {
    EXPECT_TRUE(isPrefix("gvusb"));
    EXPECT_TRUE(isPrefix("site/hall-2/gvusb"));
    for (const char* const text : {"", "/", "a/", "/a", "a//b", "a/+", "$share/a"}) {
        EXPECT_FALSE(isPrefix(text)) << text;
    }
}

} // namespace

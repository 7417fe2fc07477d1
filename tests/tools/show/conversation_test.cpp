#include "show/conversation.h"
#include "show/event_text.h"
#include "show/sample_recordings.h"
#include "show/summary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using std::chrono::microseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ConversationTest : public ::testing::Test {
protected:
    ConversationTest() { made.identify(2, "1-1", "A1", "Desk", "Desk reader"); }

    void derive(bool all = false) {
        capture = capture::readCapture(made.file, "test");
        conversation = conversationOf(capture, all);
    }

    std::vector<std::string> ends() const {
        std::vector<std::string> list;
        for (const Exchange& exchange : conversation.exchanges) {
            list.push_back((exchange.request ? "" : "unasked ") + std::string(nameOf(exchange.outcome)));
        }
        return list;
    }

    SampleRecording made;
    capture::Capture capture;
    Conversation conversation;
};

TEST_F(ConversationTest, PairsARequestWithItsAnswer) {
    made.out(2, {1});
    made.in(2, {2, 3}, 0, microseconds(500));
    derive();
    ASSERT_THAT(ends(), ElementsAre("answered"));
    const Exchange& exchange = conversation.exchanges[0];
    EXPECT_EQ(capture.transfers[*exchange.request].out, capture::Bytes{1});
    ASSERT_EQ(exchange.answers.size(), 1U);
    EXPECT_EQ(capture.transfers[exchange.answers[0]].in, (capture::Bytes{2, 3}));
    EXPECT_EQ(exchange.duration(), SampleRecording::step + microseconds(500));
}

TEST_F(ConversationTest, PairsARequestWithATransferThatWaitsForIt) {
    const auto in = made.submit(2, capture::TransferType::bulk, 0x81, {}, 512);
    made.out(2, {1});
    made.complete(in, 2, capture::TransferType::bulk, 0x81, 0, {2}, 1);
    made.submit(2, capture::TransferType::bulk, 0x81, {}, 512);
    derive();
    EXPECT_THAT(ends(), ElementsAre("answered"));
}

TEST_F(ConversationTest, KeepsAnAnswerThatArrivesBeforeItsRequestIsComplete) {
    const auto out = made.submit(2, capture::TransferType::bulk, 0x02, {1}, 1);
    made.in(2, {2});
    made.complete(out, 2, capture::TransferType::bulk, 0x02, 0, {}, 1);
    derive();
    EXPECT_THAT(ends(), ElementsAre("answered"));
    EXPECT_EQ(conversation.exchanges[0].duration(), SampleRecording::step);
}

TEST_F(ConversationTest, JoinsTransfersThatFillTheirBuffer) {
    made.out(2, {1});
    made.in(2, {1, 2}, 0, microseconds(10), 2);
    made.in(2, {3, 4}, 0, microseconds(10), 2);
    made.in(2, {5}, 0, microseconds(10), 2);
    made.in(2, {6}, 0, microseconds(10), 2);
    derive();
    EXPECT_THAT(ends(), ElementsAre("answered", "unasked answered"));
    EXPECT_EQ(conversation.exchanges[0].answers.size(), 3U);
    EXPECT_FALSE(conversation.exchanges[1].isLate);
}

TEST_F(ConversationTest, EndsALongAnswerWithATimeOut) {
    made.out(2, {1});
    made.in(2, {1, 2}, 0, microseconds(10), 2);
    made.in(2, {}, -ENOENT, microseconds(10), 2);
    derive();
    EXPECT_THAT(ends(), ElementsAre("answered", "unasked time-out"));
}

TEST_F(ConversationTest, TellsHowExchangesEnd) {
    for (const int status : {-ENOENT, -EPIPE, -ENODEV, -ESHUTDOWN, -EPROTO, -ETIMEDOUT}) {
        made.out(2, {1});
        made.in(2, {}, status);
    }
    made.out(2, {1}, -ENOENT);
    made.out(2, {1});
    made.out(2, {1});
    made.submit(2, capture::TransferType::bulk, 0x81, {}, 512);
    derive();
    EXPECT_THAT(ends(), ElementsAre("time-out", "stall", "gone", "gone", "error", "time-out", "time-out",
                                    "sent", "unfinished"));
    EXPECT_EQ(outcomeText(Outcome::stall, -EPIPE), "stall [EPIPE]");
    EXPECT_EQ(conversation.exchanges.back().duration(), std::nullopt);
}

TEST_F(ConversationTest, TellsACancelFromATimeOutByTheCallsResult) {
    for (const int result : {-1130, -1139, -1137}) {
        made.call("GVUSB_Transceive", "268435457, sends 1 bytes");
        made.out(2, {1});
        made.in(2, {}, -ENOENT);
        made.returned(result);
    }
    derive();
    EXPECT_THAT(ends(), ElementsAre("time-out", "canceled", "gone"));
    EXPECT_EQ(capture.events[*conversation.exchanges[0].call].result, -1130);
}

TEST_F(ConversationTest, MarksAnAnswerAfterItsTimeOut) {
    made.out(2, {1});
    made.in(2, {}, -ENOENT);
    made.in(2, {}, -ENOENT);
    made.in(2, {9});
    made.in(2, {8});
    derive();
    ASSERT_THAT(ends(), ElementsAre("time-out", "unasked time-out", "unasked answered", "unasked answered"));
    EXPECT_TRUE(conversation.exchanges[2].isLate);
    EXPECT_FALSE(conversation.exchanges[3].isLate);
}

TEST_F(ConversationTest, KnowsTheReadersOfCallsThatRunAtTheSameTime) {
    made.identify(3, "1-2", "B2", "Gate", "Gate reader");
    made.call("GVUSB_OpenDevice", "0xA1");
    made.returned(7);
    made.call("GVUSB_OpenDevice", "0xB2");
    made.returned(8);
    made.call("GVUSB_Transceive", "8, sends 1 bytes", 1);
    made.call("GVUSB_Transceive", "7, sends 1 bytes", 2);
    made.out(2, {1});
    made.out(3, {1});
    made.in(3, {1});
    made.in(2, {1});
    made.returned(1, 1);
    made.returned(1, 2);
    derive();
    ASSERT_THAT(ends(), ElementsAre("answered", "answered"));
    EXPECT_EQ(capture.events[*conversation.exchanges[0].call].arguments, "7, sends 1 bytes");
    EXPECT_EQ(capture.events[*conversation.exchanges[1].call].arguments, "8, sends 1 bytes");
}

TEST_F(ConversationTest, LeavesCallsWithoutAReaderIfSeveralCouldBeMeant) {
    made.call("GVUSB_Transceive", "8, sends 1 bytes", 1);
    made.call("GVUSB_Transceive", "7, sends 1 bytes", 2);
    made.out(2, {1});
    made.in(2, {1});
    derive();
    EXPECT_EQ(conversation.exchanges[0].call, std::nullopt);
}

TEST_F(ConversationTest, IsOneReaderWhenItReturns) {
    made.event("left", 2);
    made.pause(microseconds(1000));
    made.event("came", 4);
    made.identify(4, "1-1", "A1", "Desk", "Desk reader");
    made.event("left", 4);
    made.event("came", 5);
    made.identify(5, "1-1", "C3", "Desk", "Desk reader");
    derive();
    ASSERT_EQ(conversation.readers.readers.size(), 2U);
    const RecordedReader& first = conversation.readers.readers[0];
    EXPECT_EQ(first.label, "A1");
    EXPECT_EQ(first.devices.size(), 2U);
    ASSERT_EQ(first.absences.size(), 2U);
    EXPECT_TRUE(first.absences[0].second.has_value());
    EXPECT_FALSE(first.absences[1].second.has_value());
    EXPECT_EQ(conversation.readers.readers[1].id, "C3");
    EXPECT_TRUE(isNamed(first, "0xa1"));
    EXPECT_TRUE(isNamed(first, "usb:1-1"));
    EXPECT_FALSE(isNamed(first, "usb:1-2"));
}

TEST_F(ConversationTest, NamesReadersWithTheSameIdByTheirPath) {
    made.identify(3, "1-2", "A1", "Desk", "Desk reader");
    derive();
    EXPECT_EQ(conversation.readers.readers[0].label, "usb:1-1");
    EXPECT_EQ(conversation.readers.readers[1].label, "usb:1-2");
}

TEST_F(ConversationTest, LeavesOtherDevicesOutUnlessAsked) {
    made.identify(3, "1-2", "77", "Mouse", "Mouse", 0x046D);
    made.out(3, {1});
    derive();
    EXPECT_THAT(ends(), IsEmpty());
    derive(true);
    EXPECT_THAT(ends(), ElementsAre("sent"));
    EXPECT_EQ(conversation.readers.readers.size(), 2U);
}

TEST_F(ConversationTest, SummarizesRequestsThatIdentifyAReader) {
    derive();
    ASSERT_EQ(conversation.requests.size(), 2U);
    EXPECT_EQ(requestsText(capture, conversation.requests[1]),
              "3 control requests in 0.3 ms: strings 1, 3, 5");
    made.controlIn(2, {0x80, 6, 10, 3, 9, 4, 255, 0}, {}, -EPIPE);
    derive();
    EXPECT_EQ(requestsText(capture, conversation.requests.back()),
              "1 control request in 0.1 ms: string 10; string 10 failed [EPIPE]");
}

// Readers that are identified at the same time take turns.
TEST_F(ConversationTest, KeepsTheOrderOfEveryRequestIfAsked) {
    const capture::SetupPacket firstString = {0x80, 6, 1, 3, 9, 4, 255, 0};
    made.identify(3, "1-2", "B2", "Desk", "Desk reader");
    made.controlIn(2, firstString, {4, 3, 'A', 0});
    made.controlIn(3, firstString, {4, 3, 'B', 0});
    derive(true);
    EXPECT_THAT(conversation.requests, IsEmpty());
    const auto& items = conversation.items;
    EXPECT_TRUE(std::ranges::is_sorted(items, {}, &Item::at));
    ASSERT_GE(std::ranges::count(items, Item::Kind::transfer, &Item::kind), 4);
    EXPECT_EQ(items.back().index, capture.transfers.size() - 1);
}

TEST_F(ConversationTest, DescribesEvents) {
    made.event("open", 2, {{"result", -EACCES}});
    made.event("claim", 2, {{"interface", 1}, {"result", 0}});
    made.event("clear-halt", 2, {{"endpoint", 0x81}});
    made.event("new kind", 2);
    made.call("GVUSB_Scan", "0");
    derive();
    const std::size_t first = capture.events.size() - 5;
    EXPECT_EQ(eventText(capture.events[first]), "opening failed [EACCES]");
    EXPECT_EQ(eventText(capture.events[first + 1]), "claimed interface 1");
    EXPECT_EQ(eventText(capture.events[first + 2]), "cleared the halt of endpoint 81");
    EXPECT_EQ(eventText(capture.events[first + 3]), "new kind");
    EXPECT_EQ(callText(capture.events[first + 4]) + resultText(capture.events[first + 4]),
              "GVUSB_Scan(0) did not return");
}

TEST_F(ConversationTest, SumsUp) {
    for (int i = 1; i <= 10; ++i) {
        made.out(2, {1}, 0, microseconds(0));
        made.in(2, {1}, 0, microseconds(1000 * i));
    }
    made.out(2, {2}, 0, microseconds(0));
    made.in(2, {}, -ENOENT, microseconds(5500));
    made.in(2, {7});
    made.out(2, {3});
    derive();
    const Summary summary = summaryOf(conversation, {true});
    EXPECT_EQ(summary.exchanges, 12U);
    EXPECT_EQ(summary.failed, 1U);
    ASSERT_EQ(summary.readers.size(), 1U);
    EXPECT_EQ(summary.readers[0].of(Outcome::answered), 10U);
    EXPECT_EQ(summary.readers[0].of(Outcome::sent), 1U);
    EXPECT_EQ(summary.readers[0].late, 1U);
    EXPECT_DOUBLE_EQ(summary.readers[0].times.median(), 5.5);
    EXPECT_DOUBLE_EQ(summary.readers[0].times.maximum(), 10);
    EXPECT_THAT(summary.slowest, ElementsAre(9U, 8U, 7U, 6U, 5U));
    EXPECT_THAT(summaryOf(conversation, {false}).slowest, IsEmpty());
}

TEST_F(ConversationTest, SaysWhatStandsInThePlaceOfData) {
    made.submit(2, capture::TransferType::bulk, 0x02, {0}, 5, {}, capture::redactedComment);
    made.submit(2, capture::TransferType::bulk, 0x02, {1, 2}, 5);
    made.submit(2, capture::TransferType::bulk, 0x02, {}, 0);
    derive();
    const std::size_t first = capture.transfers.size() - 3;
    EXPECT_EQ(dataText(capture.transfers[first]), "(5 bytes, redacted)");
    EXPECT_EQ(dataText(capture.transfers[first + 1]), "01 02 ... (5 bytes, 2 of them captured)");
    EXPECT_EQ(dataText(capture.transfers[first + 2]), "(empty)");
}

} // namespace

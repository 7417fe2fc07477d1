#include "model_test.h"

#include <memory>
#include <utility>
#include <vector>

namespace emulator {
namespace {

using namespace std::chrono_literals;

TEST_F(ReaderModelTest, AnswersAFrameOverBulk) {
    const TransferId sent = out({1, 2, 3});
    expectCompletion(sent, Outcome::done);
    const TransferId received = in();
    expectCompletion(received, Outcome::done, {1, 2, 3});
    expectNothing();
}

TEST_F(ReaderModelTest, AnswersAFrameOverControl) {
    expectCompletion(frameOut({1, 2, 3}), Outcome::done);
    expectCompletion(frameIn(2), Outcome::done, {1, 2});
    const TransferId waiting = frameIn();
    expectNothing();
    ASSERT_TRUE(reader.cancel(waiting, now));
    expectCompletion(waiting, Outcome::cancelled);
}

TEST_F(ReaderModelTest, KeepsBulkAndControlAnswersApart) {
    frameOut({1});
    out({2});
    take();
    take();
    expectCompletion(in(), Outcome::done, {2});
    expectCompletion(frameIn(), Outcome::done, {1});
}

TEST_F(ReaderModelTest, InWaitsForAFrame) {
    const TransferId waiting = in();
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    const TransferId sent = out({9});
    expectCompletion(sent, Outcome::done);
    expectCompletion(waiting, Outcome::done, {9});
}

TEST_F(ReaderModelTest, AnswersInOrder) {
    out({1});
    out({2});
    take();
    take();
    expectCompletion(in(), Outcome::done, {1});
    expectCompletion(in(), Outcome::done, {2});
}

TEST_F(ReaderModelTest, CancelsOnlyPendingTransfers) {
    const TransferId waiting = in();
    EXPECT_TRUE(reader.cancel(waiting, now));
    expectCompletion(waiting, Outcome::cancelled);
    EXPECT_FALSE(reader.cancel(waiting, now));
    const TransferId sent = out({1});
    EXPECT_FALSE(reader.cancel(sent, now));
}

TEST_F(ReaderModelTest, CancelingTheFirstLetsTheNextComplete) {
    const TransferId first = in();
    const TransferId second = in();
    reader.cancel(first, now);
    out({7});
    expectCompletion(first, Outcome::cancelled);
    take();
    expectCompletion(second, Outcome::done, {7});
}

TEST_F(ReaderModelTest, SplitsAnAnswerAtWholePackets) {
    Bytes frame(100);
    for (std::size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<std::uint8_t>(i);
    }
    out(frame);
    take();
    expectCompletion(in(64), Outcome::done, Bytes(frame.begin(), frame.begin() + 64));
    expectCompletion(in(64), Outcome::done, Bytes(frame.begin() + 64, frame.end()));
}

TEST_F(ReaderModelTest, OverflowLosesTheRestOfThePacketOnly) {
    Bytes frame(100, 5);
    out(frame);
    take();
    expectCompletion(in(10), Outcome::overflow, Bytes(10, 5));
    expectCompletion(in(64), Outcome::done, Bytes(36, 5));
}

TEST_F(ReaderModelTest, AnswerOfWholePacketsEndsTheTransfer) {
    out(Bytes(64, 1));
    take();
    expectCompletion(in(1000), Outcome::done, Bytes(64, 1));
    const TransferId waiting = in();
    expectNothing();
    EXPECT_TRUE(reader.cancel(waiting, now));
}

TEST_F(ReaderModelTest, EmptyFrameIsAFrame) {
    out({});
    take();
    EXPECT_EQ(reader.frameCount(), 1U);
    expectCompletion(in(), Outcome::done, {});
}

TEST_F(ReaderModelTest, StallHoldsUntilTheHaltIsCleared) {
    fault("out", {.stalled = true});
    expectCompletion(out({1}), Outcome::stalled);
    expectCompletion(out({1}), Outcome::stalled);
    EXPECT_EQ(reader.frameCount(), 0U);
    reader.clearHalt(0x02, now);
    expectCompletion(out({1}), Outcome::done);
}

TEST_F(ReaderModelTest, StallEndsPendingTransfers) {
    const TransferId waiting = in();
    fault("in", {.stalled = true});
    expectCompletion(waiting, Outcome::stalled);
}

TEST_F(ReaderModelTest, StuckStallOutlivesClearingTheHalt) {
    fault("0x81", {.stalled = true, .stuck = true});
    reader.clearHalt(0x81, now);
    expectCompletion(in(), Outcome::stalled);
    fault("0x81", {});
    in();
    expectNothing();
}

TEST_F(ReaderModelTest, MuteOutTakesNoFrameUntilUnmuted) {
    fault("out", {.mute = true});
    const TransferId waiting = out({1});
    expectNothing();
    fault("out", {});
    expectCompletion(waiting, Outcome::done);
    EXPECT_EQ(reader.frameCount(), 1U);
}

TEST_F(ReaderModelTest, MuteReaderDoesNotAnswerLater) {
    fault("in", {.mute = true});
    expectCompletion(out({1}), Outcome::done);
    EXPECT_EQ(reader.frameCount(), 1U);
    const TransferId waiting = in();
    expectNothing();
    fault("in", {});
    expectNothing();
    out({2});
    take();
    expectCompletion(waiting, Outcome::done, {2});
}

TEST_F(ReaderModelTest, MuteInOfAControlReaderLeavesItsStringsReadable) {
    reader = described("endpoints=none");
    fault("in", {.mute = true});
    frameOut({1});
    take();
    const TransferId string =
        reader.submit({.endpoint = 0, .setup = {0x80, 6, 0x0300, 0, 255}, .capacity = 255}, now);
    expectCompletion(string, Outcome::done, {4, 3, 9, 4});
    frameIn();
    expectNothing();
}

TEST_F(ReaderModelTest, DelayCountsFromWhenTheTransferCouldComplete) {
    fault("in", {.delay = 50ms});
    const TransferId waiting = in();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    now += 10ms;
    out({1});
    take();
    EXPECT_EQ(reader.nextDeadline(), now + 50ms);
    now += 49ms;
    reader.advance(now);
    expectNothing();
    now += 1ms;
    reader.advance(now);
    expectCompletion(waiting, Outcome::done, {1});
    EXPECT_FALSE(reader.nextDeadline().has_value());
}

TEST_F(ReaderModelTest, NothingIsDueWhenNothingCanComplete) {
    fault("in", {.delay = 100ms});
    reader.submit({.endpoint = 0, .setup = {0x02, 3, 0, 0x81, 0}}, now);
    const TransferId waiting = in();
    take();
    EXPECT_EQ(reader.nextDeadline(), now + 100ms) << "the stall is delayed";
    reader.submit({.endpoint = 0, .setup = {0x02, 1, 0, 0x81, 0}}, now);
    take();
    now += 100ms;
    reader.advance(now);
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());

    out({1});
    take();
    reader.forgetAnswers();
    now += 100ms;
    reader.advance(now);
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());

    out({2});
    take();
    EXPECT_EQ(reader.nextDeadline(), now + 100ms) << "the delay starts again";
    now += 100ms;
    reader.advance(now);
    expectCompletion(waiting, Outcome::done, {2});
}

TEST_F(ReaderModelTest, DelayedOutCompletesAPendingIn) {
    fault("out", {.delay = 5ms});
    const TransferId waiting = in();
    const TransferId sent = out({1});
    expectNothing();
    now += 5ms;
    reader.advance(now);
    expectCompletion(sent, Outcome::done);
    expectCompletion(waiting, Outcome::done, {1});
}

TEST_F(ReaderModelTest, ShortLimitsTheBytesMoved) {
    fault("out", {.shortTo = 2});
    out({1, 2, 3});
    EXPECT_EQ(reader.takeCompletion()->actual, 2U);
    EXPECT_EQ(reader.lastFrame().data, (Bytes{1, 2}));
    fault("in", {.shortTo = 1});
    expectCompletion(in(), Outcome::done, {1});
}

TEST_F(ReaderModelTest, UnpluggingEndsPendingTransfers) {
    const TransferId bulk = in();
    const TransferId control = frameIn();
    reader.unplug();
    expectCompletion(control, Outcome::gone);
    expectCompletion(bulk, Outcome::gone);
}

TEST_F(ReaderModelTest, PowerResetsTheReader) {
    reader = described("configuration=2+1");
    reader.configure(1, now);
    out({1});
    fault("in", {.mute = true, .stalled = true});
    reader.power(now);
    take();
    EXPECT_EQ(reader.configuration(), 2);
    EXPECT_FALSE(reader.pipeFaults(pipeOf(0x81)).stalled);
    EXPECT_TRUE(reader.pipeFaults(pipeOf(0x81)).mute) << "only halts are cleared";
    fault("in", {});
    in();
    expectNothing();
}

TEST_F(ReaderModelTest, ResetKeepsConfigurationAndControlTransfers) {
    reader = described("configuration=2+1");
    reader.configure(1, now);
    const TransferId bulk = in();
    frameIn();
    reader.reset(now);
    EXPECT_EQ(reader.configuration(), 1);
    expectCompletion(bulk, Outcome::gone);
    expectNothing();
}

TEST_F(ReaderModelTest, RefusesUnknownConfigurations) {
    EXPECT_TRUE(reader.configure(1, now));
    EXPECT_FALSE(reader.configure(2, now));
    EXPECT_EQ(reader.configuration(), 1);
    EXPECT_TRUE(reader.hasEndpoint(0x81));
    EXPECT_TRUE(reader.configure(0, now));
    EXPECT_FALSE(reader.hasEndpoint(0x81));
    EXPECT_TRUE(reader.hasEndpoint(0));
    reader.requestFaults().refusesConfiguration = true;
    EXPECT_FALSE(reader.configure(1, now));
}

TEST_F(ReaderModelTest, ReaderWithoutConfigurationHasNoEndpoints) {
    reader = described("configuration=none");
    EXPECT_EQ(reader.configuration(), 0);
    EXPECT_FALSE(reader.hasEndpoint(0x81));
}

TEST_F(ReaderModelTest, InterruptEndpointStaysSilent) {
    reader = described("endpoints=0x83:interrupt");
    const TransferId waiting = in(8, 0x83);
    expectNothing();
    EXPECT_TRUE(reader.cancel(waiting, now));
}

TEST_F(ReaderModelTest, RemembersTheLastFrameAndItsEndpoint) {
    out({1});
    frameOut({2, 3});
    EXPECT_EQ(reader.frameCount(), 2U);
    EXPECT_EQ(reader.lastFrame().endpoint, 0);
    EXPECT_EQ(reader.lastFrame().data, (Bytes{2, 3}));
}

// ---- with a logic

class RecordedLogic final : public ReaderLogic {
public:
    bool takesFrames() const override { return takes; }
    void take(std::uint8_t endpoint, const Bytes& frame) override { frames.emplace_back(endpoint, frame); }
    void note(ReaderEvent event, std::uint8_t value) override { events.emplace_back(event, value); }

    bool takes = true;
    std::vector<std::pair<std::uint8_t, Bytes>> frames;
    std::vector<std::pair<ReaderEvent, std::uint8_t>> events;
};

class ReaderLogicTest : public ReaderModelTest {
protected:
    ReaderLogicTest() {
        reader = described("logic=none");
        reader.setLogic(logic, now);
    }

    std::shared_ptr<RecordedLogic> logic = std::make_shared<RecordedLogic>();
};

TEST_F(ReaderLogicTest, GetsFramesAndAnswersLater) {
    expectCompletion(out({1, 2}), Outcome::done);
    expectCompletion(frameOut({3}), Outcome::done);
    EXPECT_EQ(logic->frames, (std::vector<std::pair<std::uint8_t, Bytes>>{{0x02, {1, 2}}, {0, {3}}}));
    const TransferId bulk = in();
    const TransferId control = frameIn();
    expectNothing();
    reader.push(false, {4}, now);
    expectCompletion(bulk, Outcome::done, {4});
    reader.push(true, {5}, now);
    expectCompletion(control, Outcome::done, {5});
}

TEST_F(ReaderLogicTest, SendsUnasked) {
    reader.push(false, {1}, now);
    reader.push(false, {2}, now);
    EXPECT_GE(reader.waitingAnswers(), 2U);
    expectCompletion(in(), Outcome::done, {1});
    expectCompletion(in(), Outcome::done, {2});
    EXPECT_EQ(reader.waitingAnswers(), 0U);
}

TEST_F(ReaderLogicTest, FramesStayPendingUntilItTakesThem) {
    logic->takes = false;
    const TransferId first = out({1});
    const TransferId second = frameOut({2});
    expectNothing();
    logic->takes = true;
    reader.advance(now);
    expectCompletion(second, Outcome::done);
    expectCompletion(first, Outcome::done);
}

TEST_F(ReaderLogicTest, FramesWaitForTheLogic) {
    reader = described("logic=none");
    const TransferId waiting = out({1});
    expectNothing();
    reader.setLogic(logic, now);
    expectCompletion(waiting, Outcome::done);
    EXPECT_EQ(logic->frames.size(), 1U);
}

TEST_F(ReaderLogicTest, MuteReaderLosesWhatItSends) {
    fault("in", {.mute = true});
    reader.push(false, {1}, now);
    reader.push(true, {2}, now);
    fault("in", {});
    const TransferId waiting = in();
    expectNothing();
    EXPECT_TRUE(reader.cancel(waiting, now));
}

TEST_F(ReaderLogicTest, StallsAnEndpointUntilItsHaltIsCleared) {
    const TransferId waiting = in();
    reader.stallNext(pipeOf(0x81), now);
    expectCompletion(waiting, Outcome::stalled);
    expectCompletion(in(), Outcome::stalled);
    logic->events.clear();
    reader.clearHalt(0x81, now);
    reader.clearHalt(0x81, now);
    EXPECT_EQ(logic->events,
              (std::vector<std::pair<ReaderEvent, std::uint8_t>>{{ReaderEvent::haltCleared, 0x81}}));
    reader.push(false, {1}, now);
    expectCompletion(in(), Outcome::done, {1});
}

TEST_F(ReaderLogicTest, StallsOneControlFrame) {
    reader.stallNext(Pipe::controlFrameOut, now);
    expectCompletion(frameOut({1}), Outcome::stalled);
    EXPECT_TRUE(logic->frames.empty());
    expectCompletion(frameOut({1}), Outcome::done);
    const TransferId waiting = frameIn();
    reader.stallNext(Pipe::controlFrameIn, now);
    expectCompletion(waiting, Outcome::stalled);
    reader.push(true, {2}, now);
    expectCompletion(frameIn(), Outcome::done, {2});
    reader.stallNext(Pipe::control, now);
    reader.reset(now);
    expectCompletion(frameOut({1}), Outcome::done);
}

TEST_F(ReaderLogicTest, IsToldWhatTheHostDoes) {
    reader.power(now);
    reader.configure(0, now);
    reader.configure(1, now);
    reader.reset(now);
    reader.note(ReaderEvent::opened);
    EXPECT_EQ(logic->events, (std::vector<std::pair<ReaderEvent, std::uint8_t>>{{ReaderEvent::plugged, 0},
                                                                                {ReaderEvent::configured, 0},
                                                                                {ReaderEvent::configured, 1},
                                                                                {ReaderEvent::reset, 0},
                                                                                {ReaderEvent::opened, 0}}));
}

} // namespace
} // namespace emulator

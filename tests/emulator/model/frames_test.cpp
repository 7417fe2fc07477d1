// What a reader does with frames, and faults of single transfers.
#include "model_test.h"

namespace emulator {
namespace {

using namespace std::chrono_literals;

class FramesTest : public ReaderModelTest {
protected:
    void rule(Bytes beginning, std::string_view text) {
        reader.frameRules().set(std::move(beginning), FrameRule::parse(text));
    }
    void failNext(std::uint8_t endpoint, std::string_view kind, std::uint64_t n = 1) {
        reader.transferFaults(pipeOf(endpoint)).failNth(n, TransferFault::parse(kind));
    }
    void passes(Milliseconds time) {
        now += time;
        reader.advance(now);
    }
    // The answer to a frame, or what became of it.
    std::string exchange(const Bytes& frame) {
        out(frame);
        const Outcome sent = reader.takeCompletion()->outcome;
        const TransferId waiting = in();
        const std::optional<Completion> received = reader.takeCompletion();
        if (sent != Outcome::done) {
            reader.clearHalt(0x02, now);
            reader.cancel(waiting, now);
            reader.takeCompletion();
            return "out stalls";
        }
        if (!received) {
            reader.cancel(waiting, now);
            reader.takeCompletion();
            return "silent";
        }
        if (received->outcome == Outcome::stalled) {
            reader.clearHalt(0x81, now);
            reader.forgetAnswers();
            return "in stalls";
        }
        return hexText(received->data);
    }
};

// ---- pushed frames

TEST_F(FramesTest, PushesAFrameByBulk) {
    const TransferId waiting = in();
    reader.push({7, 8}, now);
    expectCompletion(waiting, Outcome::done, {7, 8});
    reader.push({}, now);
    reader.push({9}, now);
    expectCompletion(in(), Outcome::done, {});
    expectCompletion(in(), Outcome::done, {9});
    frameIn();
    expectNothing();
}

TEST_F(FramesTest, PushesAFrameByControl) {
    for (const char* description : {"endpoints=control", "endpoints=out-only", "endpoints=interrupt"}) {
        reader = described(description);
        const TransferId waiting = frameIn();
        reader.push({7, 8}, now);
        expectCompletion(waiting, Outcome::done, {7, 8});
        expectNothing();
    }
}

TEST_F(FramesTest, MuteReaderPushesNothing) {
    fault("in", {.mute = true});
    reader.push({7}, now);
    fault("in", {});
    in();
    expectNothing();
}

// ---- rules

TEST_F(FramesTest, RuleRepliesInsteadOfTheReader) {
    rule({1}, "reply 9000");
    EXPECT_EQ(exchange({1, 2}), "9000");
    EXPECT_EQ(exchange({2, 1}), "0201");
    frameOut({1});
    take();
    expectCompletion(frameIn(), Outcome::done, {0x90, 0x00});
}

TEST_F(FramesTest, RuleStallsReadingOverBulk) {
    rule({1}, "stall");
    const TransferId waiting = in();
    const TransferId sent = out({1});
    expectCompletion(sent, Outcome::done);
    expectCompletion(waiting, Outcome::stalled);
    expectCompletion(in(), Outcome::stalled);
    reader.clearHalt(0x81, now);
    EXPECT_EQ(exchange({2}), "02");
    EXPECT_EQ(exchange({1}), "in stalls");
}

TEST_F(FramesTest, RuleStallsTheFrameOverControl) {
    rule({1}, "stall");
    expectCompletion(frameOut({1}), Outcome::stalled);
    expectCompletion(frameOut({2}), Outcome::done);
    expectCompletion(frameIn(), Outcome::done, {2});
    EXPECT_EQ(exchange({2}), "02") << "bulk is another way";
}

TEST_F(FramesTest, RuleLeavesAFrameUnanswered) {
    rule({1}, "mute");
    EXPECT_EQ(exchange({1}), "silent");
    EXPECT_EQ(exchange({2}), "02");
    EXPECT_EQ(reader.frameCount(), 2U);
}

TEST_F(FramesTest, RuleDelaysAnAnswer) {
    rule({1}, "delay 40");
    rule({2}, "delay 10 reply 9000");
    out({1});
    out({2});
    take();
    take();
    const TransferId first = in();
    const TransferId second = in();
    EXPECT_EQ(reader.nextDeadline(), now + 40ms);
    passes(39ms);
    expectNothing();
    passes(1ms);
    expectCompletion(first, Outcome::done, {1});
    expectCompletion(second, Outcome::done, {0x90, 0x00});
    EXPECT_FALSE(reader.nextDeadline().has_value());
}

TEST_F(FramesTest, DelayedAnswerOverControl) {
    rule({1}, "delay 40");
    frameOut({1});
    take();
    const TransferId waiting = frameIn();
    expectNothing();
    EXPECT_EQ(reader.nextDeadline(), now + 40ms);
    passes(40ms);
    expectCompletion(waiting, Outcome::done, {1});
}

TEST_F(FramesTest, NothingIsDueWhileNobodyReads) {
    rule({1}, "delay 40");
    out({1});
    take();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    passes(50ms);
    expectCompletion(in(), Outcome::done, {1});
}

TEST_F(FramesTest, ReaderUnplugsItself) {
    rule({1}, "unplug");
    const TransferId waiting = in();
    EXPECT_FALSE(reader.leaving());
    expectCompletion(out({1}), Outcome::done);
    EXPECT_TRUE(reader.leaving());
    const TransferId later = out({2});
    const TransferId string =
        reader.submit({.endpoint = 0, .setup = {0x80, 6, 0x0300, 0, 255}, .capacity = 255}, now);
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    reader.unplug();
    expectCompletion(string, Outcome::gone);
    expectCompletion(later, Outcome::gone);
    expectCompletion(waiting, Outcome::gone);
    reader.power(now);
    EXPECT_FALSE(reader.leaving());
    EXPECT_EQ(exchange({2}), "02");
}

// ---- jitter

TEST_F(FramesTest, JitterDelaysAnswers) {
    reader.setJitter(TimeRange::parse("jitter", "20-30"));
    out({1});
    take();
    const TransferId waiting = in();
    ASSERT_TRUE(reader.nextDeadline().has_value());
    EXPECT_GE(*reader.nextDeadline(), now + 20ms);
    EXPECT_LE(*reader.nextDeadline(), now + 30ms);
    passes(30ms);
    expectCompletion(waiting, Outcome::done, {1});
    reader.setJitter(std::nullopt);
    EXPECT_EQ(exchange({2}), "02");
}

TEST_F(FramesTest, JitterDependsOnTheSeed) {
    const auto due = [&](std::uint64_t seed) {
        reader = described("");
        reader.setSeed(seed);
        reader.setJitter(TimeRange::parse("jitter", "0-1000"));
        std::vector<Time> times;
        for (int i = 0; i < 5; ++i) {
            out({1});
            in();
            times.push_back(reader.nextDeadline().value_or(now));
            passes(1000ms);
            now -= 1000ms;
        }
        return times;
    };
    const std::vector<Time> times = due(1);
    EXPECT_EQ(due(1), times);
    EXPECT_NE(due(2), times);
    EXPECT_NE(times[0], times[1]);
}

// ---- faults of single transfers

TEST_F(FramesTest, NthTransferHaltsItsEndpoint) {
    failNext(0x02, "stall", 2);
    EXPECT_EQ(exchange({1}), "01");
    expectCompletion(out({2}), Outcome::stalled);
    expectCompletion(out({3}), Outcome::stalled);
    reader.clearHalt(0x02, now);
    EXPECT_EQ(exchange({4}), "04");
    EXPECT_EQ(reader.frameCount(), 2U);
}

TEST_F(FramesTest, NthControlTransferStallsAlone) {
    reader.transferFaults(Pipe::controlFrameIn).failNth(2, {});
    reader.transferFaults(Pipe::control).failNth(5, {});
    frameOut({1});
    take();
    expectCompletion(frameIn(), Outcome::done, {1});
    frameOut({2});
    take();
    expectCompletion(frameIn(), Outcome::stalled);
    expectCompletion(frameIn(), Outcome::stalled); // the fifth control transfer
    expectCompletion(frameIn(), Outcome::done, {2});
}

TEST_F(FramesTest, MuteTransferLosesItsAnswer) {
    failNext(0x81, "mute");
    EXPECT_EQ(exchange({1}), "silent");
    EXPECT_EQ(exchange({2}), "02");

    failNext(0x81, "mute");
    const TransferId mute = in();
    const TransferId behind = in();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    out({3});
    take();
    expectNothing();
    out({4});
    take();
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    reader.cancel(mute, now);
    expectCompletion(mute, Outcome::cancelled);
    expectCompletion(behind, Outcome::done, {4});
}

TEST_F(FramesTest, MuteTransferLosesADelayedAnswer) {
    rule({1}, "delay 40");
    failNext(0x81, "mute");
    const TransferId mute = in();
    out({1});
    take();
    EXPECT_EQ(reader.nextDeadline(), now + 40ms);
    passes(40ms);
    expectNothing();
    EXPECT_FALSE(reader.nextDeadline().has_value());
    reader.cancel(mute, now);
    take();
    EXPECT_EQ(exchange({2}), "02");
}

TEST_F(FramesTest, MuteOutLosesTheFrame) {
    failNext(0x02, "mute");
    const TransferId mute = out({1});
    expectNothing();
    const TransferId behind = out({2});
    expectNothing();
    reader.cancel(mute, now);
    expectCompletion(mute, Outcome::cancelled);
    expectCompletion(behind, Outcome::done);
    expectCompletion(in(), Outcome::done, {2});
    EXPECT_EQ(reader.frameCount(), 1U);
}

TEST_F(FramesTest, MuteControlTransferLosesItsAnswer) {
    reader.transferFaults(Pipe::controlFrameIn).failNth(1, TransferFault::parse("mute"));
    frameOut({1});
    take();
    const TransferId mute = frameIn();
    expectNothing();
    reader.cancel(mute, now);
    take();
    frameOut({2});
    take();
    expectCompletion(frameIn(), Outcome::done, {2});
}

TEST_F(FramesTest, HaltedEndpointStallsEvenAMuteTransfer) {
    failNext(0x81, "mute");
    const TransferId mute = in();
    expectNothing();
    fault("in", {.stalled = true, .delay = 5ms});
    EXPECT_EQ(reader.nextDeadline(), now + 5ms);
    passes(5ms);
    expectCompletion(mute, Outcome::stalled);
}

TEST_F(FramesTest, CorruptsFramesInBothDirections) {
    failNext(0x02, "corrupt");
    const std::string received = exchange({1, 2, 3});
    EXPECT_NE(received, "010203");
    EXPECT_EQ(received.size(), 6U);
    EXPECT_EQ(hexText(reader.lastFrame().data), received);
    failNext(0x81, "corrupt");
    EXPECT_NE(exchange({1, 2, 3}), "010203");
    EXPECT_EQ(reader.lastFrame().data, (Bytes{1, 2, 3}));
    EXPECT_EQ(exchange({1, 2, 3}), "010203");
}

TEST_F(FramesTest, DelaysATransfer) {
    fault("in", {.delay = 10ms});
    failNext(0x81, "delay:5");
    out({1});
    take();
    const TransferId waiting = in();
    EXPECT_EQ(reader.nextDeadline(), now + 15ms);
    passes(15ms);
    expectCompletion(waiting, Outcome::done, {1});
}

TEST_F(FramesTest, PipesDrawByThemselves) {
    const auto run = [&](bool otherPipes) {
        reader = described("");
        reader.setSeed(7);
        reader.transferFaults(pipeOf(0x81)).setChance(30'000, TransferFault::parse("stall"));
        reader.transferFaults(Pipe::control).setChance(30'000, TransferFault::parse("stall"));
        reader.transferFaults(pipeOf(0x02)).setChance(30'000, TransferFault::parse("delay:0-0"));
        std::string seen;
        for (std::uint8_t i = 0; i < 50; ++i) {
            seen += exchange({i}) + " ";
            if (otherPipes) {
                frameOut({1});
                take();
            }
        }
        return seen;
    };
    const std::string alone = run(false);
    EXPECT_NE(alone.find("in stalls"), std::string::npos);
    EXPECT_EQ(run(true), alone);
}

// ---- frames of several transfers

class LongFramesTest : public FramesTest {
protected:
    LongFramesTest() { reader = described("frames=short-packet"); }
};

TEST_F(LongFramesTest, FrameGoesOnUntilAShortPacket) {
    out(Bytes(64, 1));
    out(Bytes(128, 2));
    EXPECT_EQ(reader.frameCount(), 0U);
    out({3});
    EXPECT_EQ(reader.frameCount(), 1U);
    Bytes whole(64, 1);
    whole.insert(whole.end(), 128, 2);
    whole.push_back(3);
    EXPECT_EQ(reader.lastFrame().data, whole);
    for (int i = 0; i < 3; ++i) {
        take();
    }
    expectCompletion(in(1000), Outcome::done, whole);
}

TEST_F(LongFramesTest, ZeroLengthPacketEndsAFrame) {
    out(Bytes(64, 1));
    out({});
    EXPECT_EQ(reader.lastFrame().data, Bytes(64, 1));
    reader.submit({.endpoint = 0x02, .data = Bytes(64, 2), .zeroPacket = true}, now);
    EXPECT_EQ(reader.frameCount(), 2U);
    EXPECT_EQ(reader.lastFrame().data, Bytes(64, 2));
    reader.submit({.endpoint = 0x02, .data = {3}, .zeroPacket = true}, now);
    out({});
    EXPECT_EQ(reader.frameCount(), 4U);
    EXPECT_EQ(reader.lastFrame().data, Bytes{});
}

TEST_F(LongFramesTest, PacketSizeIsThatOfTheEndpoint) {
    reader = described("frames=short-packet,speed=high");
    out(Bytes(64, 1));
    EXPECT_EQ(reader.frameCount(), 1U);
    out(Bytes(512, 1));
    EXPECT_EQ(reader.frameCount(), 1U);
    reader = described("frames=short-packet,endpoints=0x81+0x02:bulk:8");
    out(Bytes(16, 1));
    EXPECT_EQ(reader.frameCount(), 0U);
}

TEST_F(LongFramesTest, ResettingDropsABegunFrame) {
    const auto frameAfter = [&](auto action) {
        out(Bytes(64, 1));
        action();
        out({2});
        return reader.lastFrame().data;
    };
    EXPECT_EQ(frameAfter([&] { reader.reset(now); }), Bytes{2});
    EXPECT_EQ(frameAfter([&] { reader.clearHalt(0x02, now); }), Bytes{2});
    EXPECT_EQ(frameAfter([&] { reader.configure(1, now); }), Bytes{2});
    EXPECT_EQ(frameAfter([&] { reader.forgetAnswers(); }), Bytes{2});
    EXPECT_EQ(frameAfter([&] { reader.power(now); }), Bytes{2});
    EXPECT_EQ(frameAfter([&] { reader.clearHalt(0x81, now); }).size(), 65U);
}

TEST_F(LongFramesTest, ControlFramesEndWithTheirTransfer) {
    frameOut(Bytes(64, 1));
    EXPECT_EQ(reader.frameCount(), 1U);
}

TEST_F(LongFramesTest, RuleSeesTheWholeFrame) {
    Bytes beginning(64, 1);
    beginning.push_back(2);
    rule(beginning, "reply 9000");
    out(Bytes(64, 1));
    out({2, 3});
    take();
    take();
    expectCompletion(in(), Outcome::done, {0x90, 0x00});
}

} // namespace
} // namespace emulator

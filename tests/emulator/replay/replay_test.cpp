#include "replay/replay.h"

#include "replay/recording.h"

#include "../control/plain_bus.h"
#include "recorded_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace emulator::replay {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ReplayTest : public testing::Test {
protected:
    void play(const RecordedSession& session, Mode mode = Mode::matching, double speed = 1,
              Plugging plugging = Plugging::recorded) {
        Settings settings;
        settings.recording = std::make_shared<const Recording>(recordingFrom(session.read()));
        settings.mode = mode;
        settings.speed = speed;
        settings.plugging = plugging;
        for (const RecordedReader& each : settings.recording->readers) {
            bus.add(each.description);
        }
        replay.emplace(settings, bus, [this](const std::string& line) { reports.push_back(line); });
        for (std::size_t number = 1; number <= bus.size(); ++number) {
            if (bus.description(number).plugged) {
                plugIn(number);
            }
        }
        replay->start(now);
    }
    void plugIn(std::size_t number) {
        bus.plug(number);
        bus.model(number).power(now);
    }
    ReaderModel& model() { return bus.model(1); }

    TransferId out(const Bytes& frame) { return model().submit({.endpoint = 0x02, .data = frame}, now); }
    TransferId in(std::size_t capacity = 64) {
        return model().submit({.endpoint = 0x81, .capacity = capacity}, now);
    }
    std::optional<Completion> take() { return model().takeCompletion(); }
    void pass(milliseconds time) {
        now += time;
        model().advance(now);
    }
    // Long enough for the microseconds between packets.
    void passPackets() { pass(milliseconds(1)); }

    Outcome send(const Bytes& frame) {
        out(frame);
        passPackets();
        const auto completion = take();
        return completion ? completion->outcome : Outcome::gone;
    }
    Bytes receive() {
        in();
        passPackets();
        const auto completion = take();
        return completion && completion->outcome == Outcome::done ? completion->data : Bytes{0xEE};
    }
    Bytes exchange(const Bytes& frame) { return send(frame) == Outcome::done ? receive() : Bytes{0xEF}; }
    // Read without an answer, then cancel.
    bool staysPending(milliseconds time = milliseconds(10'000)) {
        const TransferId id = in();
        pass(time);
        if (take()) {
            return false;
        }
        model().cancel(id, now);
        take();
        return true;
    }

    Time now{std::chrono::hours(1)};
    PlainBus bus;
    std::optional<Replay> replay;
    std::vector<std::string> reports;
};

TEST_F(ReplayTest, ReaderAppearsAsRecorded) {
    const Recording recording = recordingFrom(RecordedSession().reader("CAFE", "1-2.3").read());
    ASSERT_EQ(recording.readers.size(), 1U);
    const ReaderDescription& reader = recording.readers.front().description;
    EXPECT_EQ(reader.place, "1-2.3");
    EXPECT_EQ(reader.bus, 1);
    EXPECT_THAT(reader.addresses, ElementsAre(5));
    EXPECT_EQ(reader.strings.at(deviceIdString), "CAFE");
    EXPECT_EQ(reader.strings.at(deviceNameString), "Gate reader");
    EXPECT_EQ(reader.speed, emulator::Speed::full);
    EXPECT_TRUE(reader.plugged);
    Bytes all = capture::readerDescriptor;
    all.insert(all.end(), configurationBytes.begin(), configurationBytes.end());
    EXPECT_EQ(reader.descriptors, all);
    ASSERT_EQ(reader.endpoints.size(), 2U);
    EXPECT_EQ(reader.endpoints[1].address, 0x02);
}

TEST_F(ReplayTest, SameRequestGetsItsAnswersInTurnAndTheLastFromThenOn) {
    play(RecordedSession().reader().exchange({1}, {10}).exchange({2}, {20}).exchange({1}, {11}));
    EXPECT_EQ(exchange({2}), Bytes{20});
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(exchange({1}), Bytes{11});
    EXPECT_EQ(exchange({1}), Bytes{11});
    EXPECT_EQ(exchange({2}), Bytes{20});
    EXPECT_FALSE(replay->finish());
}

TEST_F(ReplayTest, AnswerMayBeSeveralTransfers) {
    play(RecordedSession().reader().out({1}).in({10}).in({11}).exchange({2}, {20}));
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(receive(), Bytes{11});
    EXPECT_TRUE(staysPending());
    EXPECT_EQ(exchange({2}), Bytes{20});
}

TEST_F(ReplayTest, AnswerComesAsLateAsRecorded) {
    play(RecordedSession().reader().out({1}).in({10}, milliseconds(200)));
    EXPECT_EQ(send({1}), Outcome::done);
    in();
    pass(milliseconds(190));
    EXPECT_FALSE(take());
    pass(milliseconds(11));
    EXPECT_EQ(take()->data, Bytes{10});
}

TEST_F(ReplayTest, SpeedDividesTimes) {
    play(RecordedSession().reader().out({1}).in({10}, milliseconds(200)), Mode::matching, 10);
    EXPECT_EQ(send({1}), Outcome::done);
    in();
    pass(milliseconds(15));
    EXPECT_FALSE(take());
    pass(milliseconds(6));
    EXPECT_EQ(take()->data, Bytes{10});
}

TEST_F(ReplayTest, SpeedZeroWaitsForNothing) {
    play(RecordedSession().reader().out({1}).in({10}, milliseconds(200)), Mode::matching, 0);
    out({1});
    EXPECT_TRUE(take());
    in();
    EXPECT_EQ(take()->data, Bytes{10});
}

TEST_F(ReplayTest, DeadlineIsThatOfTheAnswer) {
    play(RecordedSession().reader().out({1}).in({10}, milliseconds(200)));
    EXPECT_EQ(send({1}), Outcome::done);
    in();
    const auto deadline = model().nextDeadline();
    ASSERT_TRUE(deadline);
    EXPECT_GT(*deadline, now + milliseconds(190));
    EXPECT_LT(*deadline, now + milliseconds(201));
}

TEST_F(ReplayTest, TimeOutStaysPendingEvenAtFullSpeed) {
    play(RecordedSession().reader().out({1}).timeOut(milliseconds(100)).in({10}, milliseconds(50)),
         Mode::matching, 0);
    EXPECT_EQ(send({1}), Outcome::done);
    EXPECT_TRUE(staysPending());
    EXPECT_EQ(receive(), Bytes{10});
}

TEST_F(ReplayTest, NextRequestEndsSilence) {
    play(RecordedSession().reader().out({1}).timeOut(milliseconds(100)).exchange({2}, {20}));
    EXPECT_EQ(send({1}), Outcome::done);
    in(); // is not canceled, unlike the recorded one
    pass(milliseconds(500));
    EXPECT_FALSE(take());
    out({2});
    passPackets();
    EXPECT_TRUE(take());
    EXPECT_EQ(take()->data, Bytes{20});
}

TEST_F(ReplayTest, AnswerOutlastsACanceledTransfer) {
    play(RecordedSession().reader().out({1}).in({10}, milliseconds(200)));
    EXPECT_EQ(send({1}), Outcome::done);
    EXPECT_TRUE(staysPending(milliseconds(100)));
    pass(milliseconds(150));
    EXPECT_EQ(receive(), Bytes{10});
}

TEST_F(ReplayTest, CanceledTransferMayHaveMovedData) {
    play(RecordedSession().reader().out({1}).in({10, 11}, milliseconds(100), -ENOENT));
    EXPECT_EQ(send({1}), Outcome::done);
    const TransferId id = in();
    pass(milliseconds(200));
    EXPECT_TRUE(model().cancel(id, now));
    const auto completion = take();
    EXPECT_EQ(completion->outcome, Outcome::cancelled);
    EXPECT_EQ(completion->data, (Bytes{10, 11}));
}

TEST_F(ReplayTest, StallLastsUntilTheHaltIsCleared) {
    play(RecordedSession().reader().out({1}).in({}, {}, -EPIPE).exchange({2}, {20}));
    EXPECT_EQ(send({1}), Outcome::done);
    for (int i = 0; i < 2; ++i) {
        in();
        passPackets();
        EXPECT_EQ(take()->outcome, Outcome::stalled);
    }
    model().clearHalt(0x81, now);
    EXPECT_TRUE(staysPending());
}

TEST_F(ReplayTest, RequestMayStallOrFail) {
    play(RecordedSession().reader().out({1}, -EPIPE).out({2}, -EPROTO));
    EXPECT_EQ(send({1}), Outcome::stalled);
    model().clearHalt(0x02, now);
    out({2});
    passPackets();
    const auto completion = take();
    EXPECT_EQ(completion->outcome, Outcome::failed);
    EXPECT_EQ(completion->failure, -EPROTO);
}

TEST_F(ReplayTest, FramesAreCountedAsFarAsTheReaderTookThem) {
    play(RecordedSession().reader().shortOut({1, 2, 3}, 2).out({4}, -EPIPE));
    EXPECT_EQ(send({1, 2, 3}), Outcome::done);
    EXPECT_EQ(model().frameCount(), 1U);
    EXPECT_EQ(model().lastFrame().data, (Bytes{1, 2}));
    EXPECT_EQ(send({4}), Outcome::stalled);
    EXPECT_EQ(model().frameCount(), 1U);
}

TEST_F(ReplayTest, RequestMayTimeOut) {
    play(RecordedSession().reader().out({1}, -ENOENT));
    const TransferId id = out({1});
    pass(milliseconds(10'000));
    EXPECT_FALSE(take());
    EXPECT_TRUE(model().cancel(id, now));
}

TEST_F(ReplayTest, UnknownFrameGetsNoAnswerAndIsReportedOnce) {
    play(RecordedSession().reader().exchange({1}, {10}));
    EXPECT_EQ(send({0xAB, 0xCD}), Outcome::done);
    EXPECT_TRUE(staysPending());
    EXPECT_EQ(send({0xAB, 0xCD}), Outcome::done);
    EXPECT_THAT(reports, ElementsAre(HasSubstr("reader 1 (CAFE): the recording has no such request, so it is "
                                               "not answered: endpoint 0x02, 2 bytes: abcd")));
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_TRUE(replay->finish());
}

TEST_F(ReplayTest, ControlRequestsAreAnsweredBySetupAndData) {
    play(RecordedSession()
             .reader()
             .control({0xC0, 7, 1, 0, 0, 0, 4, 0}, {1, 2})
             .control({0x40, 8, 0, 0, 0, 0, 1, 0}, {5}, -EPIPE));
    model().submit({.endpoint = 0, .setup = {0xC0, 7, 1, 0, 4}, .capacity = 4}, now);
    passPackets();
    EXPECT_EQ(take()->data, (Bytes{1, 2}));
    model().submit({.endpoint = 0, .setup = {0x40, 8, 0, 0, 1}, .data = {5}}, now);
    passPackets();
    EXPECT_EQ(take()->outcome, Outcome::stalled);
    EXPECT_THAT(reports, IsEmpty());
    model().submit({.endpoint = 0, .setup = {0xC0, 7, 2, 0, 4}, .capacity = 4}, now);
    EXPECT_EQ(take()->outcome, Outcome::stalled);
    EXPECT_THAT(reports, ElementsAre(HasSubstr("stalls: control request c007020000000400")));
}

TEST_F(ReplayTest, FramesByControlAreRequestsWithAnswers) {
    play(RecordedSession()
             .reader()
             .control({0x40, 0, 0, 0, 0, 0, 1, 0}, {1})
             .control({0xC0, 0, 0, 0, 0, 0, 64, 0}, {10})
             .control({0x40, 0, 0, 0, 0, 0, 1, 0}, {2})
             .control({0xC0, 0, 0, 0, 0, 0, 64, 0}, {20}));
    for (const std::uint8_t frame : {std::uint8_t{2}, std::uint8_t{1}}) {
        model().submit({.endpoint = 0, .setup = {0x40, 0, 0, 0, 1}, .data = {frame}}, now);
        passPackets();
        EXPECT_EQ(take()->outcome, Outcome::done);
        model().submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, 64}, .capacity = 64}, now);
        passPackets();
        EXPECT_EQ(take()->data, Bytes{static_cast<std::uint8_t>(frame * 10)});
    }
}

TEST_F(ReplayTest, StandardRequestsAreAnsweredByTheDescriptors) {
    play(RecordedSession().reader().control({0x80, 6, 9, 3, 9, 4, 255, 0}, {}, -EPIPE));
    model().submit({.endpoint = 0, .setup = {0x80, 6, 0x0301, 0x0409, 255}, .capacity = 255}, now);
    EXPECT_EQ(take()->data, (Bytes{10, 3, 'C', 0, 'A', 0, 'F', 0, 'E', 0}));
    model().submit({.endpoint = 0, .setup = {0x80, 6, 0x0309, 0x0409, 255}, .capacity = 255}, now);
    passPackets();
    EXPECT_EQ(take()->outcome, Outcome::stalled);
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(ReplayTest, UnaskedDataComeAtTheirTime) {
    play(RecordedSession()
             .reader()
             .in({90}, milliseconds(100))
             .exchange({1}, {10})
             .in({91}, milliseconds(300)));
    in();
    pass(milliseconds(90));
    EXPECT_FALSE(take());
    pass(milliseconds(11));
    EXPECT_EQ(take()->data, Bytes{90});
    EXPECT_EQ(exchange({1}), Bytes{10});
    in();
    pass(milliseconds(290));
    EXPECT_FALSE(take());
    pass(milliseconds(11));
    EXPECT_EQ(take()->data, Bytes{91});
}

TEST_F(ReplayTest, LateDataDoNotHoldUpTheNextAnswer) {
    play(RecordedSession().reader().exchange({1}, {10}).in({91}, milliseconds(300)).exchange({2}, {20}));
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(exchange({2}), Bytes{20});
    pass(milliseconds(300));
    EXPECT_EQ(receive(), Bytes{91});
}

TEST_F(ReplayTest, ShorterReadGetsTheRestNext) {
    Bytes frame(64 + 6, 7);
    play(RecordedSession().reader().out({1}).in(frame));
    EXPECT_EQ(send({1}), Outcome::done);
    in(64);
    passPackets();
    EXPECT_EQ(take()->data.size(), 64U);
    EXPECT_EQ(receive().size(), 6U);
}

TEST_F(ReplayTest, RedactedFramesMatchByTheirLength) {
    RecordedSession session;
    session.reader();
    session.recording.submit(90, capture::TransferType::bulk, 0x02, {'x'}, 3, {}, capture::redactedComment);
    session.recording.complete(90, capture::TransferType::bulk, 0x02, 0, {}, 3);
    session.in({10});
    play(session);
    EXPECT_EQ(exchange({1, 2, 3}), Bytes{10});
    EXPECT_THAT(reports, IsEmpty());
    EXPECT_EQ(send({1, 2}), Outcome::done);
    EXPECT_EQ(reports.size(), 1U);
}

TEST_F(ReplayTest, CutFramesMatchByWhatIsKnown) {
    RecordedSession session;
    session.reader();
    session.recording.submit(90, capture::TransferType::bulk, 0x02, {1, 2}, 4);
    session.recording.complete(90, capture::TransferType::bulk, 0x02, 0, {}, 4);
    session.in({10});
    play(session);
    EXPECT_EQ(exchange({1, 2, 3, 4}), Bytes{10});
    EXPECT_EQ(send({1, 3, 3, 4}), Outcome::done);
    EXPECT_EQ(reports.size(), 1U);
}

// ---- strict mode

TEST_F(ReplayTest, StrictModeAcceptsTheRecordedOrder) {
    play(RecordedSession().reader().exchange({1}, {10}).exchange({2}, {20}).exchange({1}, {11}),
         Mode::strict);
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(exchange({2}), Bytes{20});
    EXPECT_EQ(exchange({1}), Bytes{11});
    EXPECT_FALSE(replay->finish());
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(ReplayTest, StrictModeReportsTheFirstDifference) {
    play(RecordedSession().reader().exchange({1}, {10}).wait(milliseconds(250)).exchange({2}, {20}),
         Mode::strict);
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(send({3, 4}), Outcome::done);
    EXPECT_EQ(send({5}), Outcome::done);
    ASSERT_EQ(reports.size(), 3U);
    EXPECT_EQ(reports[0], "reader 1 (CAFE): request 2 differs from the recording");
    EXPECT_THAT(reports[1], HasSubstr("recorded: endpoint 0x02, 1 byte: 02, at 0.2500"));
    EXPECT_THAT(reports[2], HasSubstr("now:      endpoint 0x02, 2 bytes: 0304, at 0.00"));
    EXPECT_TRUE(replay->finish());
    EXPECT_EQ(reports.size(), 3U);
}

TEST_F(ReplayTest, StrictModeReportsARequestTooMany) {
    play(RecordedSession().reader().exchange({1}, {10}), Mode::strict);
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_THAT(reports[1], HasSubstr("recorded: nothing more"));
    EXPECT_TRUE(replay->finish());
}

TEST_F(ReplayTest, StrictModeReportsAMissingRequest) {
    play(RecordedSession().reader().exchange({1}, {10}).exchange({2}, {20}), Mode::strict);
    EXPECT_EQ(exchange({1}), Bytes{10});
    EXPECT_TRUE(replay->finish());
    EXPECT_THAT(reports, ElementsAre(HasSubstr("the program did not make request 2 of the recording: "
                                               "endpoint 0x02, 1 byte: 02")));
}

// ---- comings and goings

RecordedSession leavingAndReturning() {
    RecordedSession session;
    session.reader().exchange({1}, {10}).wait(milliseconds(100)).event("left").refusedOut({2});
    session.wait(milliseconds(100));
    session.recording.address = 6;
    session.event("came").reader().exchange({2}, {20});
    return session;
}

TEST_F(ReplayTest, ReaderThatReturnsIsTheSame) {
    const Recording recording = recordingFrom(leavingAndReturning().read());
    ASSERT_EQ(recording.readers.size(), 1U);
    EXPECT_THAT(recording.readers.front().description.addresses, ElementsAre(5, 6));
    ASSERT_EQ(recording.happenings.size(), 2U);
    EXPECT_EQ(recording.happenings[0].requestsBefore, 1U);
    EXPECT_FALSE(recording.happenings[0].comes);
}

TEST_F(ReplayTest, ReadersComeAndLeaveAtTheirTimeAfterTheRequestBefore) {
    play(leavingAndReturning());
    now += std::chrono::seconds(4);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    EXPECT_EQ(exchange({1}), Bytes{10});
    now += milliseconds(90);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    now += milliseconds(20);
    replay->serve(now);
    EXPECT_FALSE(bus.plugged(1));
    now += milliseconds(100);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    model().power(now);
    EXPECT_EQ(exchange({2}), Bytes{20});
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(ReplayTest, FullSpeedKeepsTheOrderOfRequestsAndDepartures) {
    play(leavingAndReturning(), Mode::strict, 0);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    EXPECT_EQ(exchange({1}), Bytes{10});
    replay->serve(now);
    EXPECT_EQ(bus.plugs, 2U); // left and came
}

TEST_F(ReplayTest, RequestThatCameAfterTheDepartureWaitsForIt) {
    play(leavingAndReturning());
    EXPECT_EQ(exchange({1}), Bytes{10});
    out({2});
    passPackets();
    EXPECT_FALSE(take());
    replay->serve(now);
    EXPECT_FALSE(bus.plugged(1));
}

TEST_F(ReplayTest, DepartureDoesNotWaitForeverForARequest) {
    play(leavingAndReturning());
    now += Timeline::patience + milliseconds(99);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    now += milliseconds(10);
    replay->serve(now);
    EXPECT_FALSE(bus.plugged(1));
}

TEST_F(ReplayTest, CommandsTakeThePlaceOfRecordedDepartures) {
    play(leavingAndReturning());
    EXPECT_EQ(exchange({1}), Bytes{10});
    bus.unplug(1);
    replay->notePlugging();
    plugIn(1);
    replay->notePlugging();
    now += std::chrono::hours(1);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
    EXPECT_EQ(exchange({2}), Bytes{20});
}

TEST_F(ReplayTest, PluggingCanBeLeftToCommands) {
    play(leavingAndReturning(), Mode::matching, 1, Plugging::byCommands);
    EXPECT_EQ(exchange({1}), Bytes{10});
    now += std::chrono::hours(1);
    replay->serve(now);
    EXPECT_TRUE(bus.plugged(1));
}

TEST_F(ReplayTest, ResultsOfTheHostAreAsRecorded) {
    play(RecordedSession()
             .reader()
             .event("open", {{"result", -EACCES}})
             .event("open", {{"result", 7}})
             .event("claim", {{"interface", 0}, {"result", -EBUSY}})
             .event("reset", {{"result", -EIO}}));
    EXPECT_EQ(model().recordedResult(HostAction::open), -EACCES);
    EXPECT_EQ(model().recordedResult(HostAction::open), 0);
    EXPECT_EQ(model().recordedResult(HostAction::open), 0);
    EXPECT_EQ(model().recordedResult(HostAction::claim, 0), -EBUSY);
    EXPECT_EQ(model().recordedResult(HostAction::reset), -EIO);
    EXPECT_FALSE(model().recordedResult(HostAction::claim, 1));
}

TEST_F(ReplayTest, FirstDetachTellsWhetherAKernelDriverWasThere) {
    const auto driverOf = [](int first, int second) {
        RecordedSession session;
        session.reader();
        for (const int result : {first, second}) {
            session.event("detach", {{"interface", 0}, {"result", result}});
        }
        return recordingFrom(session.read()).readers.front().description.kernelDriver;
    };
    EXPECT_NE(driverOf(0, -ENODATA), "");
    EXPECT_EQ(driverOf(-ENODATA, 0), "");
}

TEST_F(ReplayTest, FaultsOfCommandsComeOnTop) {
    play(RecordedSession().reader().exchange({1}, {10}));
    PipeFaults faults;
    faults.stalled = true;
    model().setPipeFaults(pipeOf(0x81), faults, now);
    EXPECT_EQ(send({1}), Outcome::done);
    in();
    EXPECT_EQ(take()->outcome, Outcome::stalled);
    model().clearHalt(0x81, now);
    EXPECT_EQ(receive(), Bytes{10});
    model().push({77}, now);
    EXPECT_EQ(receive(), Bytes{77});
}

// ---- captures of others

TEST_F(ReplayTest, ConfigurationIsMadeOfTransfersIfItIsMissing) {
    RecordedSession session;
    session.recording.descriptor(capture::readerDescriptor);
    session.exchange({1}, {10});
    const Recording recording = recordingFrom(session.read());
    EXPECT_EQ(recording.readers.front().description.endpoints.size(), 2U);
    EXPECT_THAT(recording.notes,
                testing::Contains(HasSubstr("the configuration of device 5 of bus 1 is not in")));
    play(session);
    EXPECT_EQ(exchange({1}), Bytes{10});
}

TEST_F(ReplayTest, CaptureWithoutAReaderIsAnError) {
    RecordedSession session;
    session.exchange({1}, {10});
    EXPECT_THROW(recordingFrom(session.read()), capture::CaptureError);
}

} // namespace
} // namespace emulator::replay

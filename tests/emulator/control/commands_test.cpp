#include "control/commands.h"
#include "plain_bus.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace emulator {
namespace {

using namespace std::chrono_literals;

class CommandsTest : public testing::Test {
protected:
    CommandsTest() {
        run("plug id=A");
        run("plug id=B,endpoints=control");
    }

    std::string run(std::string_view line) { return runCommand(bus, line).text; }

    // Check that a line is wrong, and that a script which contains it would not start.
    void expectError(std::string_view line, std::string_view mistake) {
        EXPECT_EQ(run(line), "error: " + std::string(mistake));
        try {
            checkCommand(bus, line);
            ADD_FAILURE() << line << " is checked only when it runs";
        } catch (const TextError& error) {
            EXPECT_EQ(error.what(), mistake);
        }
    }

    std::string plugged() {
        std::string text;
        for (std::size_t number = 1; number <= bus.size(); ++number) {
            text += bus.plugged(number) ? '1' : '0';
        }
        return text;
    }

    // The reader's answer to a frame by control transfer, or what became of it.
    std::string exchange(std::size_t reader, const Bytes& frame) {
        ReaderModel& model = bus.model(reader);
        const Time now = std::chrono::steady_clock::now();
        const auto length = static_cast<std::uint16_t>(frame.size());
        model.submit({.endpoint = 0, .setup = {0x40, 0, 0, 0, length}, .data = frame}, now);
        if (model.takeCompletion()->outcome != Outcome::done) {
            return "stalled";
        }
        const TransferId waiting =
            model.submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, 64}, .capacity = 64}, now);
        const auto received = model.takeCompletion();
        if (!received) {
            model.cancel(waiting, now);
            model.takeCompletion();
            return "silent";
        }
        return received->outcome == Outcome::done ? hexText(received->data) : "in stalled";
    }

    PlainBus bus;
};

// ---- mistakes

TEST_F(CommandsTest, NamesMistakesInAnyCommand) {
    expectError("", "missing command");
    expectError("explode 1", "unknown command 'explode'");
    expectError("unplug", "usage: unplug READER");
    expectError("unplug 3", "reader must be a number from 1 to 2, not '3'");
    expectError("unplug 0", "reader must be a number from 1 to 2, not '0'");
    expectError("unplug first", "reader must be a number from 1 to 2, not 'first'");
    expectError("unplug 1 2", "unexpected argument '2'");
    expectError("plug 3", "reader must be a number from 1 to 2, not '3'");
    expectError("plug 1 2", "unexpected argument '2'");
    expectError("plug colour=red", "unknown key 'colour'");
    expectError("replug 1 now", "unexpected argument 'now'");
    expectError("string 1 256 Text", "string index must be a number from 0 to 255, not '256'");
    expectError("remove-string 1 one", "string index must be a number from 0 to 255, not 'one'");
    expectError("fail-string 1 5 maybe", "expected on or off, not 'maybe'");
    expectError("descriptors 1 123", "descriptors must have two digits for each byte, not '123'");
    expectError("stall 1 sideways",
                "pipe must be in, out, control, all or an endpoint such as 0x81, not 'sideways'");
    expectError("stall 2 0x81", "reader has no endpoint 0x81");
    expectError("stall 1 in slightly", "unexpected argument 'slightly'");
    expectError("unstall 1 in 5", "unexpected argument '5'");
    expectError("mute 1 in 5", "unexpected argument '5'");
    expectError("unmute 1 in 5", "unexpected argument '5'");
    expectError("delay 1 in long", "delay must be a number from 0 to 3600000, not 'long'");
    expectError("delay 1 in 5 6", "unexpected argument '6'");
    expectError("short 1 in -1", "count must be a number from 0 to 1048576, not '-1'");
    expectError("reply 1 shout",
                "reply must be echo, reverse, none, fixed:HEX or pattern:COUNT, not 'shout'");
    expectError("flush 1 all", "unexpected argument 'all'");
    expectError("busy 1 yes", "expected on or off, not 'yes'");
    expectError("driver 1 usbhid hid", "unexpected argument 'hid'");
    expectError("refuse 1 EIO", "expected EACCES, EPERM, ENODEV, ENOENT, EMFILE or off, not 'EIO'");
    expectError("fail-configuration 1 5", "expected on or off, not '5'");
    expectError("fail-reset 1 on off", "unexpected argument 'off'");
    expectError("list 1", "unexpected argument '1'");
    expectError("frames all", "reader must be a number from 1 to 2, not 'all'");
    expectError("counts 9", "reader must be a number from 1 to 2, not '9'");
    expectError("wait 3600001", "time to wait must be a number from 0 to 3600000, not '3600001'");
}

TEST_F(CommandsTest, NamesMistakesInFaultsOfTransfers) {
    expectError("fail 1 in", "usage: fail READER PIPE N [FAULT]|off");
    expectError("fail 1 in 0", "which transfer must be a number from 1 to 1048576, not '0'");
    expectError("fail 1 in 1 explode",
                "fault must be stall, mute, corrupt, delay:MS or delay:MIN-MAX, not 'explode'");
    expectError("fail 1 in 1 mute 2", "unexpected argument '2'");
    expectError("fail 1 in off mute", "unexpected argument 'mute'");
    expectError("fail 2 0x02 1", "reader has no endpoint 0x02");
    expectError("chance 1 in 5", "fault must be stall, mute, corrupt, delay:MS or delay:MIN-MAX, not ''");
    expectError("chance 1 in much stall",
                "chance must be a percentage from 0 to 100 with up to three decimal places, not 'much'");
    expectError("chance 1 in 5 delay:9-5", "delay must be MIN-MAX with MIN not above MAX, not '9-5'");
    expectError("chance 1 in 5 stall now", "unexpected argument 'now'");
    expectError("chance 1 in off stall", "unexpected argument 'stall'");
    expectError("chance 7 in off", "reader must be a number from 1 to 2, not '7'");
    expectError("jitter 1 9-5", "jitter must be MIN-MAX with MIN not above MAX, not '9-5'");
    expectError("jitter 1 some", "jitter must be a number from 0 to 3600000, not 'some'");
    expectError("jitter 1 5-9 10", "unexpected argument '10'");
}

TEST_F(CommandsTest, NamesMistakesInFrames) {
    expectError("push 1", "usage: push READER HEX");
    expectError("push 1 012", "frame must have two digits for each byte, not '012'");
    expectError("push 1 hello", "frame must be pairs of hexadecimal digits, not 'hello'");
    expectError("push 3 01", "reader must be a number from 1 to 2, not '3'");
    expectError("on 1 reply 01", "expected the beginning of a frame in hexadecimal, or off, not 'reply 01'");
    expectError("on 1 012 mute", "beginning of a frame must have two digits for each byte, not '012'");
    expectError("on 1 01 02",
                "expected reply HEX, reply RULE, stall, mute, unplug, delay MS, delay MS reply ... "
                "or off, not ''");
    expectError("on 1 01 shout",
                "expected reply HEX, reply RULE, stall, mute, unplug, delay MS, delay MS reply ... "
                "or off, not 'shout'");
    expectError("on 1 01 reply", "missing reply");
    expectError("on 1 01 reply 900", "reply must have two digits for each byte, not '900'");
    expectError("on 1 01 reply shout",
                "reply must be echo, reverse, none, fixed:HEX or pattern:COUNT, not 'shout'");
    expectError("on 1 01 delay long", "delay must be a number from 0 to 3600000, not 'long'");
    expectError("on 1 01 stall 5", "unexpected argument '5'");
    expectError("on 1 01 off now",
                "expected reply HEX, reply RULE, stall, mute, unplug, delay MS, delay MS reply "
                "... or off, not 'off now'");
    expectError("on 9 01 mute", "reader must be a number from 1 to 2, not '9'");
}

TEST_F(CommandsTest, ChecksWhatAnotherMachineDoes) {
    bus.elsewhere = true;
    for (const char* line :
         {"busy 1 on", "driver 1 usbhid", "refuse 1 EACCES", "fail-reset 1 on", "plug driver=usbhid"}) {
        expectError(line, "not possible over USB/IP: the machine that attaches the reader is its host");
    }
    expectError("plug endpoints=0x81+0x83:iso", "not possible over USB/IP: isochronous endpoints");
    EXPECT_EQ(bus.host, "");
    EXPECT_EQ(bus.size(), 2U);
}

TEST_F(CommandsTest, AnEmptyBusHasNoReaderToName) {
    PlainBus empty;
    EXPECT_EQ(runCommand(empty, "unplug 1").text, "error: no reader '1': the bus has none");
    EXPECT_EQ(runCommand(empty, "stall all in").text, "ok");
    EXPECT_EQ(runCommand(empty, "stall all sideways").text,
              "error: pipe must be in, out, control, all or an endpoint such as 0x81, not 'sideways'");
}

// ---- no command does half

TEST_F(CommandsTest, AReaderWithoutThePipeLeavesTheOthersAlone) {
    EXPECT_EQ(run("stall all 0x81"), "error: reader has no endpoint 0x81");
    EXPECT_FALSE(bus.model(1).pipeFaults(pipeOf(0x81)).stalled);
    EXPECT_EQ(run("delay all in 5 now"), "error: unexpected argument 'now'");
    EXPECT_EQ(bus.model(1).pipeFaults(pipeOf(0x81)).delay, 0ms);
}

TEST_F(CommandsTest, PlugsAllReadersOrNone) {
    EXPECT_EQ(run("plug plugged=no,copies=2"), "ok 3 4");
    EXPECT_EQ(run("unplug 1"), "ok");
    EXPECT_EQ(plugged(), "0100");
    bus.unpluggable = {4};
    EXPECT_EQ(run("plug all"), "error: reader 4 cannot be plugged");
    EXPECT_EQ(plugged(), "0100");
    bus.unpluggable.clear();
    EXPECT_EQ(run("plug all"), "ok");
    EXPECT_EQ(plugged(), "1111");
}

TEST_F(CommandsTest, AddsAllReadersOrNone) {
    bus.unpluggable = {5};
    EXPECT_EQ(run("plug copies=3"), "error: reader 5 cannot be plugged");
    EXPECT_EQ(bus.size(), 2U);
    EXPECT_EQ(plugged(), "11");
    bus.unpluggable.clear();
    EXPECT_EQ(run("plug copies=3"), "ok 3 4 5");
    EXPECT_EQ(plugged(), "11111");
}

TEST_F(CommandsTest, PlugsNothingIfThereIsNoRoomForAll) {
    PlainBus small(3);
    runCommand(small, "plug copies=2");
    const std::size_t before = small.plugs;
    EXPECT_EQ(runCommand(small, "plug copies=2").text, "error: the bus is full");
    EXPECT_EQ(small.size(), 2U);
    EXPECT_EQ(small.plugs, before) << "not even for a moment";
}

TEST_F(CommandsTest, ReplugsAllReadersOrNone) {
    run("unplug 2");
    const std::size_t before = bus.plugs;
    EXPECT_EQ(run("replug all"), "error: reader 2 is not plugged");
    EXPECT_EQ(bus.plugs, before);
    run("plug 2");
    EXPECT_EQ(run("replug all"), "ok");
    EXPECT_EQ(plugged(), "11");
}

TEST_F(CommandsTest, HostFaultsOfAllReaders) {
    EXPECT_EQ(run("busy all on"), "ok");
    EXPECT_EQ(run("driver 1 none"), "ok");
    EXPECT_EQ(run("refuse 2 EACCES"), "ok");
    EXPECT_EQ(run("fail-reset 1 on"), "ok");
    EXPECT_EQ(bus.host, "1 busy; 2 busy; 1 driver ; 2 refuse " + std::to_string(EACCES) + "; 1 fails");
}

// ---- frames and faults

TEST_F(CommandsTest, PushesFrames) {
    EXPECT_EQ(run("push all 01 02FF"), "ok");
    const Time now = std::chrono::steady_clock::now();
    bus.model(1).submit({.endpoint = 0x81, .capacity = 64}, now);
    EXPECT_EQ(bus.model(1).takeCompletion()->data, (Bytes{1, 2, 0xFF}));
    bus.model(2).submit({.endpoint = 0, .setup = {0xC0, 0, 0, 0, 64}, .capacity = 64}, now);
    EXPECT_EQ(bus.model(2).takeCompletion()->data, (Bytes{1, 2, 0xFF}));
}

TEST_F(CommandsTest, SetsAndRemovesRules) {
    EXPECT_EQ(run("on 2 01 reply 90 00"), "ok");
    EXPECT_EQ(run("on 2 01 02 03 stall"), "ok");
    EXPECT_EQ(run("on 2 AbCd mute"), "ok");
    EXPECT_EQ(exchange(2, {1, 2}), "9000");
    EXPECT_EQ(exchange(2, {1, 2, 3, 4}), "stalled");
    EXPECT_EQ(exchange(2, {0xAB, 0xCD}), "silent");
    EXPECT_EQ(run("on 2 01 02 03 off"), "ok");
    EXPECT_EQ(exchange(2, {1, 2, 3, 4}), "9000");
    EXPECT_EQ(run("on all off"), "ok");
    EXPECT_EQ(exchange(2, {1, 2, 3, 4}), "01020304");
    EXPECT_EQ(exchange(2, {0xAB, 0xCD}), "abcd");
}

TEST_F(CommandsTest, FailsTheNthTransfer) {
    EXPECT_EQ(run("fail 2 out 2"), "ok");
    EXPECT_EQ(exchange(2, {1}), "01");
    EXPECT_EQ(exchange(2, {2}), "stalled");
    EXPECT_EQ(exchange(2, {3}), "03");
    EXPECT_EQ(run("fail 2 in 1 mute"), "ok");
    EXPECT_EQ(exchange(2, {4}), "silent");
    EXPECT_EQ(exchange(2, {5}), "05");
    EXPECT_EQ(run("fail 2 in 1"), "ok");
    EXPECT_EQ(run("fail 2 in off"), "ok");
    EXPECT_EQ(exchange(2, {6}), "06");
}

TEST_F(CommandsTest, ChangesAnswersByChance) {
    EXPECT_EQ(run("chance 2 in 100 corrupt"), "ok");
    EXPECT_NE(exchange(2, {1, 2, 3}), "010203");
    EXPECT_EQ(run("chance 2 in off"), "ok");
    EXPECT_EQ(exchange(2, {1, 2, 3}), "010203");
    EXPECT_EQ(run("jitter 2 3600000"), "ok");
    EXPECT_EQ(exchange(2, {1}), "silent");
    EXPECT_EQ(run("jitter 2 off"), "ok");
    EXPECT_EQ(run("flush 2"), "ok");
    EXPECT_EQ(exchange(2, {2}), "02");
}

// ---- the seed

class SeedTest : public testing::Test {
protected:
    // The fate of exchanges with a reader, after this many exchanges with another one each time.
    static std::string fates(std::uint64_t seed, std::size_t reader, int others) {
        PlainBus bus;
        bus.seed().give(seed);
        runCommand(bus, "plug copies=3");
        EXPECT_EQ(runCommand(bus, "chance all out 30 stall").text, "ok");
        std::string text;
        const Time now{};
        for (int i = 0; i < 100; ++i) {
            for (int other = 0; other < others; ++other) {
                bus.model(3).submit({.endpoint = 0x02, .data = {1}}, now);
            }
            bus.model(reader).submit({.endpoint = 0x02, .data = {1}}, now);
            text += bus.model(reader).takeCompletion()->outcome == Outcome::stalled ? 's' : '.';
            bus.model(reader).clearHalt(0x02, now);
        }
        return text;
    }
};

TEST_F(SeedTest, SameSeedSameFaults) {
    const std::string first = fates(1, 1, 0);
    EXPECT_EQ(fates(1, 1, 0), first);
    EXPECT_EQ(fates(1, 1, 3), first) << "other readers draw by themselves";
    EXPECT_NE(fates(2, 1, 0), first);
    EXPECT_NE(fates(1, 2, 0), first);
    EXPECT_NE(first, std::string(100, '.'));
    EXPECT_NE(first, std::string(100, 's'));
}

TEST_F(SeedTest, DrawnSeedIsReportedOnce) {
    PlainBus bus;
    std::vector<std::uint64_t> reported;
    bus.seed().setReport([&](std::uint64_t seed) { reported.push_back(seed); });
    runCommand(bus, "plug copies=2");
    runCommand(bus, "fail 1 in 1 delay:5");
    EXPECT_TRUE(reported.empty()) << "nothing is drawn";
    runCommand(bus, "jitter all 1-5");
    runCommand(bus, "chance all in 5 stall");
    EXPECT_EQ(reported, std::vector<std::uint64_t>{bus.seed().value()});
    PlainBus other;
    EXPECT_NE(other.seed().value(), bus.seed().value()) << "in all but one of 4 billion runs";
}

TEST_F(SeedTest, GivenSeedIsNotReported) {
    PlainBus bus;
    bus.seed().setReport([](std::uint64_t) { ADD_FAILURE(); });
    bus.seed().give(5);
    runCommand(bus, "plug id=A");
    runCommand(bus, "jitter 1 1-5");
    EXPECT_EQ(bus.seed().value(), 5U);
}

} // namespace
} // namespace emulator

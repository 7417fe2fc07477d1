#include "usbip/connection.h"

#include "usbip/client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace emulator::usbip {
namespace {

using namespace std::chrono_literals;
using namespace usbip_client;

class UsbipConnectionTest : public testing::Test {
protected:
    explicit UsbipConnectionTest(const std::string& description = "") {
        for (ReaderDescription& reader : parseReaders(description)) {
            readers.plug(readers.add(std::move(reader)), now);
        }
    }

    Bytes take(Connection& from) {
        Bytes output;
        while (!from.unsent().empty()) {
            output.insert(output.end(), from.output().begin(), from.output().end());
            from.sent(from.output().size());
        }
        return output;
    }

    std::uint32_t importStatus(Connection& by, std::string_view busId = "1-1") {
        by.receive(importRequest(busId), now);
        const Bytes reply = take(by);
        EXPECT_EQ(reply.size(), statusOf(reply) == usbip_ok ? importReplySize : sizeof(usbip_operation));
        return statusOf(reply);
    }

    std::string replies(std::initializer_list<std::uint32_t> fetched = {}) {
        return Replies(take(connection), fetched).text();
    }

    std::string exchange(const Bytes& message, std::initializer_list<std::uint32_t> fetched = {}) {
        connection.receive(message, now);
        return replies(fetched);
    }

    ReaderModel& model() { return readers.at(1).model; }
    void fault(Pipe pipe, const PipeFaults& faults) { model().setPipeFaults(pipe, faults, now); }

    Time now{};
    Readers readers;
    Connection connection{readers};
};

TEST_F(UsbipConnectionTest, AcceptsMessagesInAnyPieces) {
    const Bytes all = join({importRequest("1-1"), sendFrame(1, {1, 2, 3}), fetchFrame(2), unlink(3, 9)});
    for (const std::uint8_t byte : all) {
        connection.receive(Bytes{byte}, now);
    }
    Bytes output = take(connection);
    ASSERT_GT(output.size(), importReplySize);
    output.erase(output.begin(), output.begin() + importReplySize);
    EXPECT_EQ(Replies(output, {2}).text(), "submitted 1 0 +3; submitted 2 0 010203; unlinked 3 0");
}

TEST_F(UsbipConnectionTest, DetectsAnIncompleteMessage) {
    EXPECT_FALSE(connection.hasPartialMessage());
    connection.receive(Bytes{0x01}, now);
    EXPECT_TRUE(connection.hasPartialMessage());
    connection.abort();
    EXPECT_FALSE(connection.hasPartialMessage());
}

TEST_F(UsbipConnectionTest, ReaderIsImportedByOneClientAtATime) {
    Connection second(readers);
    EXPECT_EQ(importStatus(connection), 0U);
    EXPECT_EQ(importStatus(second), 2U) << "busy";
    EXPECT_TRUE(second.closing());
    Connection third(readers);
    third.receive(listRequest(), now);
    EXPECT_EQ(listedDevices(take(third)), 0U) << "imported readers are not listed";
    connection.abort();
    Connection fourth(readers);
    EXPECT_EQ(importStatus(fourth), 0U);
}

TEST_F(UsbipConnectionTest, ReaderIsFreeAgainWhenItsConnectionIsGone) {
    {
        Connection passing(readers);
        EXPECT_EQ(importStatus(passing), 0U);
    }
    EXPECT_EQ(importStatus(connection), 0U);
    EXPECT_EQ(readers.at(1).counts.opens, 2U);
    EXPECT_EQ(readers.at(1).counts.closes, 1U);
}

TEST_F(UsbipConnectionTest, NextImporterSeesNothingOfThePreviousOne) {
    importStatus(connection);
    exchange(sendFrame(1, {1, 2, 3}));
    fault(pipeOf(0x81), {.stalled = true});
    fault(pipeOf(0x02), {.mute = true});
    EXPECT_EQ(exchange(sendFrame(2, {4, 5})), "");
    connection.abort();
    fault(pipeOf(0x02), {});
    Connection next(readers);
    importStatus(next);
    next.receive(fetchFrame(1), now);
    EXPECT_EQ(Replies(take(next), {1}).text(), "");
    EXPECT_EQ(model().frameCount(), 1U);
}

TEST_F(UsbipConnectionTest, PendingTransfersAreNotPerformedWhenTheImportEnds) {
    const Bytes fetchThenSend =
        join({control(1, {0xC0, 0, 0, 0, 0, 0, 64, 0}),
              submit({.sequence = 2, .length = 1, .setup = {0x40, 0, 0, 0, 0, 0, 1, 0}, .data = {7}})});
    importStatus(connection);
    EXPECT_EQ(exchange(fetchThenSend), "");
    connection.abort();
    EXPECT_EQ(model().frameCount(), 0U);
    Connection next(readers);
    importStatus(next);
    next.receive(fetchThenSend, now);
    readers.unplug(1);
    EXPECT_EQ(model().frameCount(), 0U);
}

TEST_F(UsbipConnectionTest, UnplugEndsTheImport) {
    importStatus(connection);
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "");
    readers.unplug(1);
    EXPECT_TRUE(connection.closing());
    Connection next(readers);
    EXPECT_EQ(importStatus(next), 4U) << "no device";
    readers.plug(1, now);
    Connection last(readers);
    EXPECT_EQ(importStatus(last), 0U);
    EXPECT_THROW(readers.plug(1, now), TextError);
    EXPECT_THROW(readers.plug(2, now), TextError);
}

TEST_F(UsbipConnectionTest, PendingFetchGetsALaterAnswer) {
    importStatus(connection);
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "");
    EXPECT_EQ(exchange(sendFrame(2, {7, 8}), {1}), "submitted 2 0 +2; submitted 1 0 0708");
}

TEST_F(UsbipConnectionTest, CompletesDelayedTransfersWhenDue) {
    importStatus(connection);
    fault(pipeOf(0x02), {.delay = 50ms});
    EXPECT_EQ(exchange(sendFrame(1, {7})), "");
    EXPECT_EQ(readers.nextDeadline(), now + 50ms);
    readers.advance(now + 49ms);
    EXPECT_EQ(replies(), "");
    readers.advance(now + 50ms);
    EXPECT_EQ(replies(), "submitted 1 0 +1");
}

TEST_F(UsbipConnectionTest, UnlinkReplacesTheReplyToTheSubmit) {
    importStatus(connection);
    EXPECT_EQ(exchange(join({fetchFrame(1), fetchFrame(2), unlink(3, 1)}), {1, 2}), "unlinked 3 -104");
    EXPECT_EQ(exchange(sendFrame(4, {7}), {2}), "submitted 4 0 +1; submitted 2 0 07");
    EXPECT_EQ(exchange(unlink(5, 2)), "unlinked 5 0") << "the submit has completed";
    EXPECT_EQ(exchange(unlink(6, 77)), "unlinked 6 0") << "there is no such submit";
    EXPECT_EQ(readers.at(1).counts.cancels, 1U);
}

TEST_F(UsbipConnectionTest, StallLastsUntilTheHaltIsCleared) {
    importStatus(connection);
    fault(pipeOf(0x81), {.stalled = true});
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "submitted 1 -32 ");
    EXPECT_EQ(exchange(control(2, {0x82, 0, 0, 0, 0x81, 0, 2, 0}), {2}), "submitted 2 0 0100");
    EXPECT_EQ(exchange(control(3, {0x02, 1, 0, 0, 0x81, 0, 0, 0})), "submitted 3 0 +0");
    EXPECT_EQ(exchange(control(4, {0x82, 0, 0, 0, 0x81, 0, 2, 0}), {4}), "submitted 4 0 0000");
    EXPECT_EQ(exchange(fetchFrame(5), {5}), "");
    EXPECT_EQ(readers.at(1).counts.clearHalts, 1U);
}

TEST_F(UsbipConnectionTest, ConfigurationIsChosenByTheClient) {
    importStatus(connection);
    EXPECT_EQ(exchange(control(1, {0x00, 9, 0, 0, 0, 0, 0, 0})), "submitted 1 0 +0");
    EXPECT_EQ(model().configuration(), 0);
    EXPECT_EQ(exchange(control(2, {0x00, 9, 1, 0, 0, 0, 0, 0})), "submitted 2 0 +0");
    EXPECT_EQ(exchange(control(3, {0x00, 9, 5, 0, 0, 0, 0, 0})), "submitted 3 -32 +0");
    EXPECT_EQ(exchange(control(4, {0x80, 8, 0, 0, 0, 0, 1, 0}), {4}), "submitted 4 0 01");
    EXPECT_EQ(exchange(control(5, {0x01, 11, 0, 0, 0, 0, 0, 0})), "submitted 5 0 +0");
    EXPECT_EQ(readers.at(1).counts.setConfigurations, 3U);
}

TEST_F(UsbipConnectionTest, ChoosingAConfigurationEndsPendingTransfers) {
    importStatus(connection);
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "");
    EXPECT_EQ(exchange(control(2, {0x00, 9, 1, 0, 0, 0, 0, 0}), {1}), "submitted 1 -108 ; submitted 2 0 +0");
}

TEST_F(UsbipConnectionTest, PortResetResetsTheReader) {
    importStatus(connection);
    fault(pipeOf(0x02), {.stalled = true});
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "");
    EXPECT_EQ(exchange(control(2, {0x23, 3, 4, 0, 1, 0, 0, 0}), {1}), "submitted 1 -108 ; submitted 2 0 +0");
    EXPECT_EQ(exchange(sendFrame(3, {7})), "submitted 3 0 +1");
    EXPECT_EQ(readers.at(1).counts.resets, 1U);
}

TEST_F(UsbipConnectionTest, ShortTransferFailsOnlyIfTheClientSaysSo) {
    importStatus(connection);
    SubmitRequest fetch{.sequence = 2, .direction = in, .endpoint = 1, .length = 8};
    exchange(sendFrame(1, {1, 2, 3}));
    EXPECT_EQ(exchange(submit(fetch), {2}), "submitted 2 0 010203");
    exchange(sendFrame(1, {1, 2, 3}));
    fetch.flags = 1;
    EXPECT_EQ(exchange(submit(fetch), {2}), "submitted 2 -121 010203");
    exchange(sendFrame(1, {1, 2, 3}));
    fetch.length = 3;
    EXPECT_EQ(exchange(submit(fetch), {2}), "submitted 2 0 010203");
}

TEST_F(UsbipConnectionTest, LongAnswerOverflows) {
    importStatus(connection);
    exchange(sendFrame(1, {1, 2, 3}));
    EXPECT_EQ(exchange(fetchFrame(2, 2), {2}), "submitted 2 -75 0102");
}

TEST_F(UsbipConnectionTest, FrameIsSentByControlTransferToo) {
    importStatus(connection);
    EXPECT_EQ(exchange(submit(
                  {.sequence = 1, .length = 3, .setup = {0x40, 0, 0, 0, 0, 0, 3, 0}, .data = {4, 5, 6}})),
              "submitted 1 0 +3");
    EXPECT_EQ(exchange(control(2, {0xC0, 0, 0, 0, 0, 0, 64, 0}), {2}), "submitted 2 0 040506");
}

TEST_F(UsbipConnectionTest, ControlTransferWithoutDataWorksInEitherDirection) {
    importStatus(connection);
    EXPECT_EQ(exchange(submit({.sequence = 1, .direction = in, .setup = {0x00, 9, 1, 0, 0, 0, 0, 0}}), {1}),
              "submitted 1 0 ");
    EXPECT_EQ(exchange(submit({.sequence = 2, .direction = out, .setup = {0x80, 6, 0, 1, 0, 0, 0, 0}})),
              "submitted 2 0 +0");
}

TEST_F(UsbipConnectionTest, StopsReadingFromAClientThatDoesNotRead) {
    importStatus(connection);
    model().setReply(ReplyRule::parse("pattern:65536"));
    std::uint32_t sequence = 0;
    while (connection.wantsInput() && sequence < 1000) {
        connection.receive(join({sendFrame(sequence, {1}), fetchFrame(sequence + 1, 65536)}), now);
        sequence += 2;
    }
    EXPECT_FALSE(connection.wantsInput());
    EXPECT_LT(connection.unsent().size(), std::size_t{2} << 20);
    EXPECT_FALSE(connection.hasPartialMessage()) << "the client has to read first";
    // Input that is left is processed when the client has read.
    const Bytes more = join({sendFrame(sequence, {1}), fetchFrame(sequence + 1, 65536)});
    connection.receive(more, now);
    EXPECT_FALSE(connection.mayProceed());
    EXPECT_EQ(model().frameCount(), sequence / 2);
    take(connection);
    EXPECT_TRUE(connection.mayProceed());
    connection.proceed(now);
    EXPECT_TRUE(connection.wantsInput());
    EXPECT_EQ(model().frameCount(), sequence / 2 + 1);
}

// Other clients are served after so many messages.
TEST_F(UsbipConnectionTest, ProcessesSomeMessagesAtATime) {
    importStatus(connection);
    Bytes all;
    constexpr std::uint32_t count = 5 * Connection::mostMessages;
    for (std::uint32_t sequence = 0; sequence < count; ++sequence) {
        all = join({all, sendFrame(sequence, {1})});
    }
    connection.receive(join({all, Bytes{0, 0}}), now);
    for (std::uint32_t done = Connection::mostMessages; done < count; done += Connection::mostMessages) {
        EXPECT_EQ(model().frameCount(), done);
        EXPECT_TRUE(connection.mayProceed());
        EXPECT_FALSE(connection.wantsInput());
        EXPECT_FALSE(connection.hasPartialMessage());
        connection.proceed(now);
    }
    EXPECT_EQ(model().frameCount(), count);
    connection.proceed(now);
    EXPECT_FALSE(connection.mayProceed());
    EXPECT_TRUE(connection.hasPartialMessage());
}

// ---- hostile clients

struct Mistake {
    const char* name;
    Bytes message;
    const char* complaint;
};

void PrintTo(const Mistake& mistake, std::ostream* stream) {
    *stream << mistake.name;
}

class UsbipMistakeTest : public UsbipConnectionTest, public testing::WithParamInterface<Mistake> {
protected:
    UsbipMistakeTest()
        : UsbipConnectionTest("copies=2") {}
};

class UsbipOperationMistakeTest : public UsbipMistakeTest {};
class UsbipUrbMistakeTest : public UsbipMistakeTest {};

TEST_P(UsbipOperationMistakeTest, EndsTheConnection) {
    connection.receive(GetParam().message, now);
    EXPECT_TRUE(connection.closing());
    EXPECT_STREQ(connection.complaint(), GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(
    , UsbipOperationMistakeTest,
    testing::Values(
        Mistake{"older version", {0x01, 0x06, 0x80, 0x05, 0, 0, 0, 0}, "unsupported protocol version"},
        Mistake{"newer version", {0x02, 0x11, 0x80, 0x05, 0, 0, 0, 0}, "unsupported protocol version"},
        Mistake{"a reply", {0x01, 0x11, 0x00, 0x05, 0, 0, 0, 0}, "unknown operation"},
        Mistake{"the reply to an import", {0x01, 0x11, 0x00, 0x03, 0, 0, 0, 0}, "unknown operation"},
        Mistake{"no operation", {0x01, 0x11, 0x80, 0x09, 0, 0, 0, 0}, "unknown operation"}));

TEST_P(UsbipUrbMistakeTest, EndsTheConnectionAndNoOther) {
    Connection other(readers);
    ASSERT_EQ(importStatus(other, "1-2"), 0U);
    ASSERT_EQ(importStatus(connection), 0U);
    EXPECT_EQ(exchange(fetchFrame(1), {1}), "");
    connection.receive(GetParam().message, now);
    EXPECT_TRUE(connection.closing());
    EXPECT_STREQ(connection.complaint(), GetParam().complaint);
    connection.receive(fetchFrame(2), now);
    EXPECT_TRUE(connection.output().empty());

    other.receive(submit({.endpoint = 2, .length = 1, .data = {1}, .device = 0x00010002}), now);
    EXPECT_EQ(Replies(take(other)).text(), "submitted 1 0 +1");
    Connection next(readers);
    EXPECT_EQ(importStatus(next), 0U);
}

constexpr auto length = "transfer too long";
constexpr auto endpoint = "no such endpoint";

INSTANTIATE_TEST_SUITE_P(
    , UsbipUrbMistakeTest,
    testing::Values(
        Mistake{"negative length", submit({.sequence = 2, .endpoint = 2, .length = 0xFFFFFFFF}), length},
        Mistake{"least length", submit({.sequence = 2, .endpoint = 2, .length = 0x80000000}), length},
        Mistake{"16 MiB and a byte", submit({.sequence = 2, .endpoint = 2, .length = (16 << 20) + 1}),
                length},
        Mistake{"isochronous", submit({.sequence = 2, .endpoint = 2, .packets = 1}), "isochronous transfer"},
        Mistake{"negative packets", submit({.sequence = 2, .endpoint = 2, .packets = 0x80000000}),
                "isochronous transfer"},
        Mistake{"no such endpoint", submit({.sequence = 2, .endpoint = 5}), endpoint},
        Mistake{"high endpoint", submit({.sequence = 2, .endpoint = 16}), endpoint},
        Mistake{"endpoint with direction", submit({.sequence = 2, .direction = in, .endpoint = 0x81}),
                endpoint},
        Mistake{"endpoint of the other way", submit({.sequence = 2, .direction = in, .endpoint = 2}),
                endpoint},
        Mistake{"no direction", submit({.sequence = 2, .direction = Direction{2}, .endpoint = 2}),
                "unknown direction"},
        Mistake{"unconfigured endpoint", join({control(2, {0x00, 9, 0, 0, 0, 0, 0, 0}), fetchFrame(3)}),
                endpoint},
        Mistake{"control transfer the other way",
                submit({.sequence = 2, .length = 18, .setup = {0x80, 6, 0, 1, 0, 0, 18, 0}}),
                "control transfer against the direction in its setup packet"},
        Mistake{"control transfer without its data",
                submit({.sequence = 2, .setup = {0x40, 0, 0, 0, 0, 0, 3, 0}}),
                "control transfer shorter than its setup packet says"},
        Mistake{"sequence number twice", fetchFrame(1), "sequence number in use"},
        Mistake{"another's device", submit({.sequence = 2, .endpoint = 2, .device = 0x00010002}),
                "device not imported"},
        Mistake{"unlink at another's device", unlink(2, 1, 0x00010002), "device not imported"},
        Mistake{"a reply", bareMessage(usbip_reply_submit, 2), "unknown command"},
        Mistake{"no command", bareMessage(0, 2), "unknown command"}));

TEST_F(UsbipConnectionTest, TooManyRequestsEndTheConnection) {
    importStatus(connection);
    for (std::uint32_t sequence = 0; sequence < 4096; ++sequence) {
        connection.receive(fetchFrame(sequence), now);
    }
    EXPECT_FALSE(connection.closing());
    connection.receive(fetchFrame(4096), now);
    EXPECT_TRUE(connection.closing());
    EXPECT_STREQ(connection.complaint(), "too many pending transfers or bytes");
}

TEST_F(UsbipConnectionTest, TooManyBytesEndTheConnection) {
    importStatus(connection);
    for (std::uint32_t sequence = 0; sequence < 4; ++sequence) {
        connection.receive(fetchFrame(sequence, 16 << 20), now);
    }
    EXPECT_EQ(exchange(unlink(10, 0)), "unlinked 10 -104");
    connection.receive(fetchFrame(4, 16 << 20), now);
    EXPECT_FALSE(connection.closing()) << "cancelled transfers do not count";
    connection.receive(fetchFrame(5, 1), now);
    EXPECT_TRUE(connection.closing());
    EXPECT_STREQ(connection.complaint(), "too many pending transfers or bytes");
}

// ---- memory

class UsbipMemoryTest : public testing::Test {
protected:
    static constexpr std::size_t mebibyte = std::size_t{1} << 20;
    static constexpr std::size_t most = 8 * mebibyte;

    UsbipMemoryTest() {
        for (int i = 0; i < 4; ++i) {
            readers.plug(readers.add(parseReaders("").front()), now);
        }
    }

    void import(Connection& connection, std::size_t number) {
        connection.receive(importRequest("1-" + std::to_string(number)), now);
        drop(connection);
        ASSERT_EQ(readers.at(number).importer, &connection);
    }

    static std::size_t drop(Connection& from) {
        const std::size_t size = from.unsent().size();
        from.sent(size);
        return size;
    }

    void mute(std::size_t number, bool on = true) {
        readers.at(number).model.setPipeFaults(pipeOf(0x02), {.mute = on}, now);
        readers.advance(now);
    }

    static Bytes longFrame(std::size_t reader, std::uint32_t sequence, std::size_t size) {
        return submit({.sequence = sequence,
                       .endpoint = 2,
                       .length = static_cast<std::uint32_t>(size),
                       .data = Bytes(size),
                       .device = 0x00010000 + static_cast<std::uint32_t>(reader)});
    }

    static Bytes fetch(std::size_t reader, std::uint32_t sequence, std::uint32_t length) {
        return submit({.sequence = sequence,
                       .direction = in,
                       .endpoint = 1,
                       .length = length,
                       .device = 0x00010000 + static_cast<std::uint32_t>(reader)});
    }

    std::string exchange(Connection& with, std::size_t reader) {
        with.receive(join({longFrame(reader, 1000, 2), fetch(reader, 1001, 64)}), now);
        const Bytes replies(with.output().begin(), with.output().end());
        drop(with);
        return Replies(replies, {1001}).text();
    }
    static constexpr auto exchanged = "submitted 1000 0 +2; submitted 1001 0 0000";

    Time now{};
    Readers readers{most};
    Connection first{readers};
    Connection second{readers};
};

TEST_F(UsbipMemoryTest, IsAllReleasedAtTheEnd) {
    const std::size_t before = readers.memory();
    import(first, 1);
    import(second, 2);
    mute(2);
    first.receive(longFrame(1, 1, mebibyte), now);
    first.receive(fetch(1, 2, mebibyte), now);
    second.receive(longFrame(2, 1, mebibyte), now);
    Bytes begun = longFrame(2, 2, mebibyte);
    begun.resize(1000);
    second.receive(begun, now);
    EXPECT_GE(readers.memory(), 5 * mebibyte)
        << "a reply and a frame that are kept, one pending, and one that "
           "arrives, with its answer";
    first.abort();
    second.abort();
    EXPECT_EQ(readers.memory(), before + mebibyte) << "the last frame of the first reader";
}

TEST_F(UsbipMemoryTest, MessageWaitsUntilItsOwnClientReleasesMemory) {
    import(first, 1);
    mute(1);
    std::uint32_t sequence = 0;
    while (!first.lacksMemory() && sequence < 100) {
        first.receive(longFrame(1, ++sequence, mebibyte / 2), now);
    }
    EXPECT_TRUE(first.lacksMemory());
    EXPECT_FALSE(first.wantsInput());
    EXPECT_FALSE(first.mayProceed()) << "nothing has been released";
    EXPECT_FALSE(first.closing());
    EXPECT_LE(readers.memory(), most);
    EXPECT_GE(sequence, 10U);
    mute(1, false);
    readers.at(1).model.forgetAnswers();
    drop(first);
    EXPECT_TRUE(first.mayProceed());
    first.proceed(now);
    EXPECT_FALSE(first.lacksMemory());
    EXPECT_EQ(readers.at(1).model.frameCount(), sequence);
}

TEST_F(UsbipMemoryTest, OthersStillExchangeFramesWhenOneHasUsedItUp) {
    import(first, 1);
    import(second, 2);
    mute(1);
    for (std::uint32_t sequence = 0; !first.lacksMemory() && sequence < 100; ++sequence) {
        first.receive(longFrame(1, sequence, mebibyte), now);
    }
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(exchange(second, 2), exchanged);
    }
    EXPECT_FALSE(first.closing());
}

TEST_F(UsbipMemoryTest, WhoOccupiesMostIsDisconnectedWhenAnotherNeedsMuch) {
    import(first, 1);
    import(second, 2);
    mute(1);
    mute(2);
    for (std::uint32_t sequence = 0; !first.lacksMemory() && sequence < 100; ++sequence) {
        first.receive(longFrame(1, sequence, mebibyte), now);
    }
    second.receive(longFrame(2, 1, mebibyte), now);
    EXPECT_TRUE(first.closing());
    EXPECT_STREQ(first.complaint(), "occupies most of the memory, which others need");
    EXPECT_FALSE(second.lacksMemory());
    EXPECT_EQ(readers.at(1).importer, nullptr);
    EXPECT_LE(readers.memory(), most);
}

TEST_F(UsbipMemoryTest, BegunMessagesCount) {
    import(first, 1);
    import(second, 2);
    Bytes begun = longFrame(1, 1, 3 * mebibyte);
    begun.resize(100);
    first.receive(begun, now);
    EXPECT_GE(readers.memory(), 6 * mebibyte) << "its data and its answer";
    EXPECT_EQ(exchange(second, 2), exchanged);
    second.receive(longFrame(2, 1, mebibyte), now);
    EXPECT_TRUE(first.closing());
    EXPECT_FALSE(second.closing());
}

TEST_F(UsbipMemoryTest, ManyShortRequestsCount) {
    Readers few(mebibyte);
    std::vector<std::unique_ptr<Connection>> connections;
    for (std::size_t number = 1; number <= 4; ++number) {
        few.plug(few.add(parseReaders("").front()), now);
        connections.push_back(std::make_unique<Connection>(few));
        connections.back()->receive(importRequest("1-" + std::to_string(number)), now);
        drop(*connections.back());
        for (std::uint32_t sequence = 0; sequence < mostRequests && connections.back()->wantsInput();
             ++sequence) {
            connections.back()->receive(fetch(number, sequence, 64), now);
        }
        EXPECT_LE(few.memory(), mebibyte);
    }
    EXPECT_TRUE(connections.front()->closing());
    EXPECT_FALSE(connections.back()->closing());
}

TEST_F(UsbipMemoryTest, LastFramesAreForgottenFirst) {
    for (std::size_t number = 1; number <= 2; ++number) {
        Connection passing(readers);
        import(passing, number);
        passing.receive(longFrame(number, 1, 3 * mebibyte), now);
        EXPECT_EQ(readers.at(number).model.frameCount(), 1U);
    }
    import(first, 3);
    first.receive(longFrame(3, 1, mebibyte), now);
    EXPECT_EQ(readers.at(3).model.frameCount(), 1U);
    EXPECT_FALSE(readers.at(3).model.lastFrame().forgotten);
    EXPECT_TRUE(readers.at(1).model.lastFrame().forgotten);
    EXPECT_FALSE(readers.at(2).model.lastFrame().forgotten) << "there was enough memory then";
}

TEST_F(UsbipMemoryTest, TransferThatNeverFitsEndsTheConnection) {
    import(first, 1);
    Bytes begun = longFrame(1, 1, 4 * mebibyte);
    begun.resize(1000);
    first.receive(begun, now);
    EXPECT_TRUE(first.closing());
    EXPECT_STREQ(first.complaint(), "transfer exceeds the memory for all clients");
}

TEST_F(UsbipMemoryTest, UnreadListsCount) {
    Readers many(mebibyte);
    for (int i = 0; i < 1000; ++i) {
        many.plug(many.add(parseReaders("").front()), now);
    }
    std::vector<std::unique_ptr<Connection>> clients;
    for (int i = 0; i < 100; ++i) {
        clients.push_back(std::make_unique<Connection>(many));
        clients.back()->receive(listRequest(), now);
        EXPECT_LE(many.memory(), mebibyte);
    }
}

} // namespace
} // namespace emulator::usbip

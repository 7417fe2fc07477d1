#include "capture_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace capture {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string errorOf(const Bytes& file) {
    try {
        readCapture(file, "x.pcapng");
    } catch (const CaptureError& error) {
        return error.what();
    }
    return "no error";
}

template <class Number>
void append(Bytes& file, Number number, bool swapped) {
    Bytes bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    if (swapped) {
        std::reverse(bytes.begin(), bytes.end());
    }
    file.insert(file.end(), bytes.begin(), bytes.end());
}

Bytes pcapHeader(std::uint32_t linkType, bool swapped) {
    Bytes file;
    append<std::uint32_t>(file, 0xA1B2C3D4, swapped);
    append<std::uint16_t>(file, 2, swapped);
    append<std::uint16_t>(file, 4, swapped);
    append<std::uint64_t>(file, 0, swapped);
    append<std::uint32_t>(file, 262144, swapped);
    append<std::uint32_t>(file, linkType, swapped);
    return file;
}

void appendPcapPacket(Bytes& file, std::uint32_t linkType, bool swapped, char kind, std::uint8_t endpoint,
                      const SetupPacket& setup, const Bytes& data, std::uint32_t length) {
    const std::uint32_t header = linkType == 220 ? 64 : 48;
    const auto size = static_cast<std::uint32_t>(header + data.size());
    append<std::uint32_t>(file, 1'700'000'000, swapped);
    append<std::uint32_t>(file, 250'000, swapped);
    append<std::uint32_t>(file, size, swapped);
    append<std::uint32_t>(file, size, swapped);
    append<std::uint64_t>(file, 0xFFFF888012345678, swapped);
    const Bytes middle = {static_cast<std::uint8_t>(kind), 2, endpoint, 9};
    file.insert(file.end(), middle.begin(), middle.end());
    append<std::uint16_t>(file, 2, swapped);
    file.push_back(kind == 'S' ? 0 : '-');
    file.push_back(data.empty() ? '<' : 0);
    append<std::int64_t>(file, 1'700'000'000, swapped);
    append<std::int32_t>(file, 250'000, swapped);
    append<std::int32_t>(file, kind == 'S' ? -115 : 0, swapped);
    append<std::uint32_t>(file, length, swapped);
    append<std::uint32_t>(file, static_cast<std::uint32_t>(data.size()), swapped);
    file.insert(file.end(), setup.begin(), setup.end());
    file.resize(file.size() + header - 48);
    file.insert(file.end(), data.begin(), data.end());
}

TEST(CaptureTest, JoinsSubmissionAndCompletion) {
    Recording recording;
    recording.descriptor(readerDescriptor);
    recording.submit(7, TransferType::bulk, 0x02, {1, 2, 3}, 3);
    recording.submit(8, TransferType::bulk, 0x81, {}, 64);
    recording.complete(7, TransferType::bulk, 0x02, 0, {}, 3);
    recording.complete(8, TransferType::bulk, 0x81, -2, {9, 8}, 2);
    const Capture capture = recording.read();
    ASSERT_EQ(capture.transfers.size(), 3U);
    EXPECT_EQ(capture.packets, 6U);
    const Transfer& out = capture.transfers[1];
    EXPECT_EQ(out.out, (Bytes{1, 2, 3}));
    EXPECT_EQ(out.status, 0);
    EXPECT_EQ(out.actual, 3U);
    EXPECT_EQ(*out.completed - *out.submitted, std::chrono::microseconds(2));
    const Transfer& in = capture.transfers[2];
    EXPECT_TRUE(in.isIn());
    EXPECT_EQ(in.requested, 64U);
    EXPECT_EQ(in.actual, 2U);
    EXPECT_EQ(in.in, (Bytes{9, 8}));
    EXPECT_EQ(in.status, -2);
    EXPECT_LT(in.submittedAt, out.completedAt);
    EXPECT_THAT(capture.notes, IsEmpty());
}

TEST(CaptureTest, LearnsDescriptorsFromTransfers) {
    Recording recording;
    const Bytes configuration = {9, 2, 18, 0, 1, 1, 0, 0x80, 50, 9, 4, 0, 0, 0, 0xFF, 0, 0, 0};
    const Bytes serial = {6, 3, '4', 0, '2', 0};
    recording.descriptor(readerDescriptor);
    recording.submit(2, TransferType::control, 0x80, {}, 9, SetupPacket{0x80, 6, 0, 2, 0, 0, 9, 0});
    recording.complete(2, TransferType::control, 0x80, 0, {configuration.begin(), configuration.begin() + 9},
                       9);
    recording.submit(2, TransferType::control, 0x80, {}, 255, SetupPacket{0x80, 6, 0, 2, 0, 0, 255, 0});
    recording.complete(2, TransferType::control, 0x80, 0, configuration, 18);
    recording.submit(2, TransferType::control, 0x80, {}, 255, SetupPacket{0x80, 6, 3, 3, 9, 4, 255, 0});
    recording.complete(2, TransferType::control, 0x80, 0, serial, 6);
    recording.submit(2, TransferType::control, 0x00, {}, 0, SetupPacket{0, 9, 1, 0, 0, 0, 0, 0});
    recording.complete(2, TransferType::control, 0x00, 0, {}, 0);
    const Capture capture = recording.read();
    ASSERT_EQ(capture.devices.size(), 1U);
    const Device& device = capture.devices[0];
    EXPECT_EQ(device.vendorId(), 0x1209);
    EXPECT_EQ(device.productId(), 1);
    EXPECT_EQ(device.configurations.at(0), configuration);
    EXPECT_EQ(stringOf(device.strings.at({0x0409, 3})), "42");
    EXPECT_EQ(device.configuration, 1U);
}

TEST(CaptureTest, TellsDevicesApartThatReturn) {
    Recording recording;
    recording.descriptor(readerDescriptor);
    recording.remark({{"type", "left"}, {"bus", 1}, {"address", 5}});
    recording.remark({{"type", "came"}, {"bus", 1}, {"address", 6}});
    recording.remark({{"type", "device"}, {"bus", 1}, {"address", 6}, {"name", "1-2.3"}, {"speed", "12"}});
    recording.address = 6;
    recording.descriptor(readerDescriptor, kernelCopyComment);
    recording.remark({{"type", "end"}});
    const Capture capture = recording.read();
    ASSERT_EQ(capture.devices.size(), 2U);
    EXPECT_FALSE(capture.devices[0].came);
    EXPECT_TRUE(capture.devices[0].left);
    EXPECT_TRUE(capture.devices[1].came);
    EXPECT_EQ(capture.devices[1].name, "1-2.3");
    EXPECT_EQ(capture.devices[1].speed, "12");
    EXPECT_FALSE(capture.transfers[0].fromKernelCopy);
    EXPECT_TRUE(capture.transfers[1].fromKernelCopy);
    ASSERT_EQ(capture.events.size(), 3U);
    EXPECT_EQ(capture.events[0].type, EventType::left);
    EXPECT_EQ(capture.events[0].device, 0U);
    EXPECT_EQ(capture.events[1].device, 1U);
    EXPECT_THAT(capture.notes, IsEmpty());
}

TEST(CaptureTest, KnowsDevicesThatHaveLeft) {
    const Json place = {{"bus", 1}, {"address", 5}};
    const auto remarkOf = [&place](const char* type) {
        Json value = place;
        value["type"] = type;
        return value;
    };
    Recording recording;
    recording.descriptor(readerDescriptor);
    recording.submit(1, TransferType::bulk, 0x81, {}, 64);
    recording.remark(remarkOf("left"));
    recording.complete(1, TransferType::bulk, 0x81, -108, {}, 0);
    recording.submit(2, TransferType::bulk, 0x81, {}, 64);
    recording.complete(2, TransferType::bulk, 0x81, -19, {}, 0);
    Json opened = remarkOf("open"); // before it left, and noted after that
    opened["result"] = 0;
    recording.remark(opened);
    recording.remark(remarkOf("close"));
    recording.descriptor(readerDescriptor);
    recording.remark(remarkOf("close"));
    const Capture capture = recording.read();
    ASSERT_EQ(capture.devices.size(), 2U);
    EXPECT_EQ(capture.transfers[2].device, 0U);
    EXPECT_EQ(capture.transfers[3].device, 1U);
    EXPECT_EQ(capture.events[1].device, 0U);
    EXPECT_EQ(capture.events[2].device, 0U);
    EXPECT_EQ(capture.events[3].device, 1U);
    EXPECT_EQ(capture.devices[1].descriptor, readerDescriptor);
}

TEST(CaptureTest, NoticesAnotherDeviceAtTheSameAddress) {
    Recording recording;
    Bytes other = readerDescriptor;
    other[10] = 9;
    recording.descriptor(readerDescriptor).descriptor(other);
    const Capture capture = recording.read();
    ASSERT_EQ(capture.devices.size(), 2U);
    EXPECT_TRUE(capture.devices[0].left);
    EXPECT_EQ(capture.devices[1].productId(), 9);
    EXPECT_EQ(capture.transfers[1].device, 1U);
}

TEST(CaptureTest, JoinsCallsWithTheirReturns) {
    Recording recording;
    recording.remark(
        {{"type", "call"}, {"process", 1}, {"thread", 2}, {"function", "GVUSB_Scan"}, {"arguments", "0"}});
    recording.remark({{"type", "call"}, {"process", 1}, {"thread", 3}, {"function", "GVUSB_OpenDevice"}});
    recording.remark({{"type", "return"}, {"process", 1}, {"thread", 2}, {"result", -1130}});
    recording.remark({{"type", "return"}, {"process", 1}, {"thread", 2}, {"result", 0}});
    const Capture capture = recording.read();
    ASSERT_EQ(capture.events.size(), 2U);
    EXPECT_EQ(capture.events[0].function, "GVUSB_Scan");
    EXPECT_EQ(capture.events[0].arguments, "0");
    EXPECT_EQ(capture.events[0].result, -1130);
    EXPECT_TRUE(capture.events[0].returned);
    EXPECT_FALSE(capture.events[1].result);
    EXPECT_FALSE(capture.events[1].returned);
}

TEST(CaptureTest, SaysWhatIsMissing) {
    Recording recording;
    recording.submit(1, TransferType::bulk, 0x81, {}, 64);
    recording.submit(1, TransferType::bulk, 0x81, {}, 64);
    recording.complete(2, TransferType::bulk, 0x81, 0, {1}, 4);
    recording.remark({{"type", "lost"}, {"count", 3}}).remark({{"type", "limit"}});
    EXPECT_THAT(recording.read().notes,
                ElementsAre("the recorder lost 3 records",
                            "the recording reached its largest size and stopped there",
                            "1 transfer whose submission is not in the capture",
                            "2 transfers whose completion is not in the capture",
                            "1 transfer whose data were not captured whole",
                            "1 device whose descriptors are not in the capture",
                            "the recording has no end: the recorder was killed, or the file is truncated"));
}

TEST(CaptureTest, MarksRefusedAndRedactedTransfers) {
    Recording recording;
    recording.submit(1, TransferType::bulk, 0x02, {1}, 1, {}, redactedComment);
    appendPacket(recording.file, {.id = 1,
                                  .kind = PacketKind::submissionError,
                                  .endpoint = 2,
                                  .address = 5,
                                  .bus = 1,
                                  .setup = {},
                                  .status = -19,
                                  .length = 1,
                                  .data = {}});
    const Transfer transfer = recording.read().transfers.at(0);
    EXPECT_TRUE(transfer.redacted);
    EXPECT_TRUE(transfer.refused);
    EXPECT_EQ(transfer.status, -19);
    EXPECT_EQ(transfer.actual, 0U);
}

TEST(CaptureTest, ReadsTruncatedFilesUpToTheirEnd) {
    Recording recording;
    recording.descriptor(readerDescriptor);
    const std::size_t whole = recording.file.size();
    recording.submit(1, TransferType::bulk, 0x02, Bytes(100, 1), 100);
    for (std::size_t size = whole; size < recording.file.size(); ++size) {
        const Capture capture = readCapture(std::span(recording.file).first(size), "x");
        EXPECT_EQ(capture.transfers.size(), 1U);
        EXPECT_EQ(capture.devices[0].descriptor, readerDescriptor);
        if (size > whole) {
            EXPECT_THAT(capture.notes, Contains(HasSubstr("truncated"))) << size;
        }
    }
}

TEST(CaptureTest, ReadsWhatOthersCaptureInEitherByteOrder) {
    for (const std::uint32_t linkType : {189U, 220U}) {
        for (const bool swapped : {false, true}) {
            Bytes file = pcapHeader(linkType, swapped);
            appendPcapPacket(file, linkType, swapped, 'S', 0x80, readDeviceDescriptor, {}, 18);
            appendPcapPacket(file, linkType, swapped, 'C', 0x80, {}, readerDescriptor, 18);
            const Capture capture = readCapture(file, "x.pcap");
            ASSERT_EQ(capture.transfers.size(), 1U) << linkType << swapped;
            EXPECT_FALSE(capture.isRecording);
            EXPECT_EQ(capture.devices[0].bus, 2U);
            EXPECT_EQ(capture.devices[0].address, 9U);
            EXPECT_EQ(capture.devices[0].vendorId(), 0x1209);
            EXPECT_EQ(capture.transfers[0].id, 0xFFFF888012345678);
            EXPECT_EQ(capture.transfers[0].submitted, Time(1'700'000'000'250'000'000));
            EXPECT_THAT(capture.notes, IsEmpty());
        }
    }
}

TEST(CaptureTest, RefusesWhatIsNoCaptureOfUsb) {
    EXPECT_EQ(errorOf({}), "x.pcapng: is empty, not a capture");
    EXPECT_THAT(errorOf(Bytes(100, 'a')), HasSubstr("x.pcapng: is not a capture (pcap or pcapng)"));
    EXPECT_EQ(errorOf(pcapHeader(1, false)),
              "x.pcapng: holds Ethernet (link type 1), not the USB transfers of Linux (189 or 220)");
    EXPECT_EQ(errorOf(pcapHeader(220, false)), "x.pcapng: no USB transfer in it");
    EXPECT_THROW(readCapture(std::filesystem::path("/")), CaptureError);
    EXPECT_THROW(readCapture(std::filesystem::path("/nothing/here")), CaptureError);
}

TEST(CaptureTest, RequiresAReader) {
    Recording recording;
    recording.descriptor(readerDescriptor);
    const Capture capture = recording.read();
    EXPECT_THAT(requireReaders(capture, 0x1209), ElementsAre(0U));
    try {
        requireReaders(capture, 0xABCD);
        FAIL();
    } catch (const CaptureError& error) {
        EXPECT_STREQ(error.what(),
                     "test: no reader in it: none of its 1 devices is known to have the vendor ID abcd");
    }
}

TEST(CaptureTest, NamesEveryEvent) {
    for (int i = 0; i <= static_cast<int>(EventType::other); ++i) {
        const auto type = static_cast<EventType>(i);
        EXPECT_EQ(eventType(nameOf(type)), type);
    }
    EXPECT_EQ(eventType("new"), EventType::other);
}

TEST(CaptureTest, DecodesStrings) {
    EXPECT_EQ(stringOf({10, 3, 'Z', 0, 0xFC, 0, 0x3D, 0xD8, 0x00, 0xDE}), "Z\xC3\xBC\xF0\x9F\x98\x80");
    EXPECT_EQ(stringOf({6, 3, 0x3D, 0xD8, 'a', 0}), "\xEF\xBF\xBD"
                                                    "a");
    EXPECT_EQ(stringOf({255, 3, 'a', 0, 'b'}), "a");
    EXPECT_EQ(stringOf({}), "");
}

} // namespace
} // namespace capture

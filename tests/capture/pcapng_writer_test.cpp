#include "capture_builder.h"

#include "capture/pcapng_extras.h"

#include <gtest/gtest.h>

namespace capture {
namespace {

std::uint32_t wordAt(const Bytes& file, std::size_t position) {
    std::uint32_t word = 0;
    std::memcpy(&word, file.data() + position, sizeof word);
    return word;
}

// The sizes of the blocks, which the beginning and the end of each of them tell.
std::vector<std::uint32_t> blockSizes(const Bytes& file) {
    std::vector<std::uint32_t> sizes;
    for (std::size_t position = 0; position < file.size();) {
        const std::uint32_t size = wordAt(file, position + 4);
        EXPECT_EQ(size % 4, 0U);
        EXPECT_EQ(wordAt(file, position + size - 4), size);
        sizes.push_back(size);
        position += size;
    }
    return sizes;
}

TEST(PcapngWriterTest, WritesWholeBlocks) {
    Recording recording;
    recording.submit(1, TransferType::bulk, 0x02, {1, 2, 3}, 3).remark({{"type", "open"}});
    EXPECT_EQ(blockSizes(recording.file).size(), 4U);
}

TEST(PcapngWriterTest, WritesTheHeaderOfUsbmon) {
    Bytes file;
    const Bytes data = {0xAA, 0xBB};
    appendPacket(file, {.id = 0x0102030405060708,
                        .kind = PacketKind::submission,
                        .type = TransferType::control,
                        .endpoint = 0x00,
                        .address = 7,
                        .bus = 3,
                        .setup = SetupPacket{0x40, 1, 2, 3, 4, 5, 2, 0},
                        .time = Time(1'700'000'000'123'456'789),
                        .status = inProgress,
                        .length = 2,
                        .data = data,
                        .interval = 4,
                        .flags = 0x200});
    const Bytes expected = {8,    7,    6,    5,    4, 3, 2, 1, // id
                            'S',  2,    0x00, 7,    3, 0, 0, 0, // kind, type, endpoint, address, bus, flags
                            0x00, 0xF1, 0x53, 0x65, 0, 0, 0, 0, // seconds
                            0x40, 0xE2, 0x01, 0x00,             // microseconds
                            0x8D, 0xFF, 0xFF, 0xFF,             // status
                            2,    0,    0,    0,    2, 0, 0, 0, // length, captured
                            0x40, 1,    2,    3,    4, 5, 2, 0, // setup
                            4,    0,    0,    0,    0, 0, 0, 0, // interval, start frame
                            0x00, 0x02, 0,    0,    0, 0, 0, 0, // flags, isochronous descriptors
                            0xAA, 0xBB};
    ASSERT_GE(file.size(), 28 + expected.size());
    EXPECT_EQ(Bytes(file.begin() + 28, file.begin() + 28 + static_cast<std::ptrdiff_t>(expected.size())),
              expected);
}

TEST(PcapngWriterTest, SaysWhyThereAreNoData) {
    const auto flags = [](PacketKind kind, std::uint8_t endpoint) {
        Bytes file;
        appendPacket(file, {.kind = kind, .endpoint = endpoint, .setup = {}, .data = {}});
        return std::string{static_cast<char>(file[28 + 14]), static_cast<char>(file[28 + 15])};
    };
    EXPECT_EQ(flags(PacketKind::submission, 0x81), "-<");
    EXPECT_EQ(flags(PacketKind::completion, 0x02), "->");
    EXPECT_EQ(flags(PacketKind::submissionError, 0x02), "-E");
    EXPECT_EQ(flags(PacketKind::completion, 0x81), std::string("-\0", 2));
}

TEST(PcapngWriterTest, CutsDataThatOthersWouldNotRead) {
    Recording recording;
    const Bytes data(mostData + 1, 0x5A);
    recording.descriptor(readerDescriptor);
    recording.submit(1, TransferType::bulk, 0x02, data, static_cast<std::uint32_t>(data.size()));
    recording.complete(1, TransferType::bulk, 0x02, 0, {}, static_cast<std::uint32_t>(data.size()));
    const Capture capture = recording.read();
    EXPECT_EQ(capture.transfers[1].out.size(), mostData);
    EXPECT_EQ(capture.transfers[1].requested, mostData + 1);
    EXPECT_EQ(capture.notes.front(), "1 transfer whose data were not captured whole");
}

TEST(PcapngWriterTest, ReplacesTextThatIsNotUtf8) {
    Recording recording;
    recording.remark({{"type", "start"}, {"program", "a\xFF"}});
    EXPECT_EQ(readExtras(recording.file).remarks.at(0).value["program"], "a\xEF\xBF\xBD");
}

} // namespace
} // namespace capture

#include "model/description.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace emulator {
namespace {

ReaderDescription one(std::string_view line) {
    const std::vector<ReaderDescription> readers = parseReaders(line);
    EXPECT_EQ(readers.size(), 1U);
    return readers.front();
}

std::string complaint(std::string_view line) {
    try {
        parseReaders(line);
    } catch (const TextError& error) {
        return error.what();
    }
    return "none";
}

TEST(ReaderDescriptionTest, DescribesABulkReaderByDefault) {
    const ReaderDescription reader = one("");
    EXPECT_EQ(reader.vendor, GVUSB_VENDOR_ID);
    EXPECT_EQ(reader.product, 1);
    ASSERT_EQ(reader.endpoints.size(), 2U);
    EXPECT_EQ(reader.endpoints[0].address, 0x81);
    EXPECT_EQ(reader.endpoints[1].address, 0x02);
    EXPECT_EQ(reader.configurations, std::vector<std::uint8_t>{1});
    EXPECT_TRUE(reader.plugged);
    EXPECT_EQ(reader.descriptors, std::nullopt);
}

TEST(ReaderDescriptionTest, LogicIsTheRestOfTheLine) {
    const ReaderDescription reader = one("id=1, logic = ./reader --modes a\\,b,c 'x=1, y' \\\\ , ");
    EXPECT_EQ(reader.strings.at(1), "1");
    EXPECT_EQ(reader.logic, "./reader --modes a\\,b,c 'x=1, y' \\\\ ,");
    EXPECT_EQ(one("name=logic=A").strings.at(5), "logic=A");
    EXPECT_EQ(one("name=A\\,logic=B,id=2").logic, "");
    EXPECT_EQ(complaint("logic= "), "logic needs a command");
    EXPECT_EQ(complaint("logic,id=1"), "expected KEY=VALUE, not 'logic'");
}

TEST(ReaderDescriptionTest, LogicRepliesByNoRuleUnlessAskedTo) {
    EXPECT_EQ(one("logic=cat").reply.text(), "none");
    EXPECT_EQ(one("reply=echo,logic=cat").reply.text(), "echo");
    EXPECT_EQ(one("id=1").reply.text(), "echo");
}

TEST(ReaderDescriptionTest, CopiesAreCounted) {
    const auto readers = parseReaders("id=A,copies=3,logic=cat");
    ASSERT_EQ(readers.size(), 3U);
    EXPECT_EQ(readers[0].copy, 1U);
    EXPECT_EQ(readers[2].copy, 3U);
    EXPECT_EQ(readers[2].logic, "cat");
}

TEST(ReaderDescriptionTest, ParsesEveryKey) {
    const ReaderDescription reader = one(
        "id=xyz,family=F,name=A\\,B,interface=TESK RCI2,type=7,string20=more,product=0x2,vendor=0x1234,"
        "release=0x0203,endpoints=control,configuration=2+1,interfaces=3,first-interface=1,speed=high,bus=4,"
        "address=9,driver=usbhid,reply=none,plugged=no,frames=short-packet,descriptors=1201");
    EXPECT_EQ(reader.strings.at(1), "xyz");
    EXPECT_EQ(reader.strings.at(3), "F");
    EXPECT_EQ(reader.strings.at(5), "A,B");
    EXPECT_EQ(reader.strings.at(6), "TESK RCI2");
    EXPECT_EQ(reader.strings.at(10), "7");
    EXPECT_EQ(reader.strings.at(20), "more");
    EXPECT_EQ(reader.product, 2);
    EXPECT_EQ(reader.vendor, 0x1234);
    EXPECT_EQ(reader.release, 0x0203);
    EXPECT_TRUE(reader.endpoints.empty());
    EXPECT_EQ(reader.configurations, (std::vector<std::uint8_t>{2, 1}));
    EXPECT_EQ(reader.interfaces, 3);
    EXPECT_EQ(reader.firstInterface, 1);
    EXPECT_EQ(reader.speed, Speed::high);
    EXPECT_EQ(reader.bus, 4);
    EXPECT_EQ(reader.address, 9);
    EXPECT_EQ(reader.kernelDriver, "usbhid");
    EXPECT_EQ(reader.reply.text(), "none");
    EXPECT_FALSE(reader.plugged);
    EXPECT_EQ(reader.frames, FrameEnd::shortPacket);
    EXPECT_EQ(reader.descriptors, (Bytes{0x12, 0x01}));
}

TEST(ReaderDescriptionTest, OmitsStrings) {
    const ReaderDescription reader = one("missing=3+10");
    EXPECT_FALSE(reader.strings.contains(3));
    EXPECT_FALSE(reader.strings.contains(10));
    EXPECT_TRUE(reader.strings.contains(1));
}

TEST(ReaderDescriptionTest, TakesEndpointsByNameAndAsAList) {
    EXPECT_EQ(one("endpoints=in-only").endpoints.at(0).address, 0x81);
    EXPECT_EQ(one("endpoints=out-only").endpoints.at(0).address, 0x02);
    EXPECT_EQ(one("endpoints=interrupt").endpoints.at(0).type, TransferType::interrupt);
    const std::vector<Endpoint> list = one("endpoints=0x81+0x02:bulk:32+0x83:interrupt+0x84:iso").endpoints;
    ASSERT_EQ(list.size(), 4U);
    EXPECT_EQ(list[0].type, TransferType::bulk);
    EXPECT_EQ(list[1].packetSize, 32);
    EXPECT_EQ(list[2].type, TransferType::interrupt);
    EXPECT_EQ(list[3].type, TransferType::isochronous);
}

TEST(ReaderDescriptionTest, MayHaveNoConfiguration) {
    EXPECT_TRUE(one("configuration=none").configurations.empty());
}

TEST(ReaderDescriptionTest, IncrementsDeviceIdsOfCopies) {
    const std::vector<ReaderDescription> readers = parseReaders("id=9F,copies=3");
    ASSERT_EQ(readers.size(), 3U);
    EXPECT_EQ(readers[0].strings.at(1), "9F");
    EXPECT_EQ(readers[1].strings.at(1), "A0");
    EXPECT_EQ(readers[2].strings.at(1), "A1");
}

TEST(ReaderDescriptionTest, NamesTheMistake) {
    EXPECT_EQ(complaint("colour=red"), "unknown key 'colour'");
    EXPECT_EQ(complaint("product"), "expected KEY=VALUE, not 'product'");
    EXPECT_EQ(complaint("product=70000"), "product must be a number from 0 to 65535, not '70000'");
    EXPECT_EQ(complaint("speed=low"), "speed=low cannot be used with bulk or isochronous endpoints, which "
                                      "low-speed devices do not have; add "
                                      "endpoints=control or endpoints=interrupt");
    EXPECT_EQ(complaint("endpoints=0x81:interrupt+0x02:iso,speed=low"), complaint("speed=low"));
    EXPECT_EQ(parseReaders("speed=low,endpoints=interrupt").front().speed, Speed::low);
    EXPECT_EQ(complaint("speed=warp"), "speed must be low, full or high, not 'warp'");
    EXPECT_EQ(complaint("frames=long"), "frames must be transfer or short-packet, not 'long'");
    EXPECT_EQ(complaint("descriptors=12 0"), "descriptors must have two digits for each byte, not '12 0'");
    EXPECT_EQ(complaint("descriptors=0x12"), "descriptors must be pairs of hexadecimal digits, not '0x12'");
    EXPECT_EQ(complaint("configuration=1+1"), "duplicate configuration value 1");
    EXPECT_EQ(complaint("endpoints=0x80"),
              "endpoint address must be 0x01 to 0x0F or 0x81 to 0x8F, not '0x80'");
    EXPECT_EQ(complaint("endpoints=0x81+0x81"), "duplicate endpoint 0x81");
    EXPECT_EQ(complaint("endpoints=0x81:warp"), "endpoint type must be bulk, interrupt or iso, not 'warp'");
    EXPECT_EQ(complaint("name=" + std::string(127, 'x')), "string 5 is longer than 126 characters");
    EXPECT_EQ(complaint("name=" + std::string(126, 'x')), "none");
    EXPECT_EQ(complaint("id=xyz,copies=2"), "id must be hexadecimal if there are copies, not 'xyz'");
    EXPECT_EQ(complaint("address=1"), "address must be a number from 2 to 127, not '1'");
    EXPECT_EQ(complaint("address=2,copies=2"),
              "copies cannot be used with address: two readers cannot share an address");
}

TEST(ReaderDescriptionTest, ReadsAFileAndNamesTheLine) {
    const std::filesystem::path file = std::filesystem::path(testing::TempDir()) / "gvusb-readers-test";
    std::ofstream(file) << "# two readers\n\nid=1\n  id=2,product=2  \n";
    EXPECT_EQ(readReaders(file).size(), 2U);
    std::ofstream(file) << "\xEF\xBB\xBF"
                        << "id=1\r\nid=2\r\n";
    EXPECT_EQ(readReaders(file).at(1).strings.at(1), "2") << "of a Windows editor";
    std::ofstream(file) << "id=1\nid=2,\nbus=0\n";
    try {
        readReaders(file);
        ADD_FAILURE();
    } catch (const TextError& error) {
        EXPECT_EQ(error.what(), file.string() + ":3: bus must be a number from 1 to 255, not '0'");
    }
    std::filesystem::remove(file);
    EXPECT_THROW(readReaders(file), TextError);
}

TEST(ReaderDescriptionTest, OffersTwoReadersByDefault) {
    const std::vector<ReaderDescription> readers = defaultReaders();
    ASSERT_EQ(readers.size(), 2U);
    EXPECT_EQ(readers[0].product, 1);
    EXPECT_EQ(readers[0].endpoints.size(), 2U);
    EXPECT_EQ(readers[1].product, 2);
    EXPECT_TRUE(readers[1].endpoints.empty());
    EXPECT_NE(readers[0].strings.at(1), readers[1].strings.at(1));
}

} // namespace
} // namespace emulator

#include "usbip/connection.h"

#include <gtest/gtest.h>

// The messages are written out byte by byte, independently of usbip/wire.h.
namespace emulator::usbip {
namespace {

class UsbipMessagesTest : public testing::Test {
protected:
    void plug(const std::string& description) {
        readers.plug(readers.add(parseReaders(description).front()), now);
    }

    // Send a message and take the output.
    std::string answer(const std::string& bytes) {
        connection.receive(hexBytes("message", bytes), now);
        const Bytes output(connection.output().begin(), connection.output().end());
        connection.sent(output.size());
        return hexText(output);
    }

    static std::string zeros(std::size_t count) {
        std::string text;
        text.insert(0, count * 2, '0');
        return text;
    }

    static std::string text(std::string_view text, std::size_t size) {
        return hexText(Bytes(text.begin(), text.end())) + zeros(size - text.size());
    }

    Time now{};
    Readers readers;
    Connection connection{readers};
};

TEST_F(UsbipMessagesTest, ListsDevicesWithTheirInterfaces) {
    plug("bus=2,address=9,vendor=0x1234,product=0xabcd,release=0x0203,speed=high,configuration=2+1,"
         "interfaces=2");
    plug("vendor=0x5678,product=2,speed=low,endpoints=none");
    EXPECT_EQ(answer("0111 8005 00000000"), "0111000500000000"
                                            "00000002" +
                                                text("/sys/devices/gvusb/usb2/2-1", 256) + text("2-1", 32) +
                                                "00000002"     // bus
                                                "00000009"     // device
                                                "00000003"     // high speed
                                                "1234abcd0203" // vendor, product, release
                                                "000000"       // class, subclass, protocol
                                                "02"           // active configuration
                                                "02"           // configurations
                                                "02"           // interfaces
                                                "ff000000"
                                                "ff000000" +
                                                text("/sys/devices/gvusb/usb1/1-2", 256) + text("1-2", 32) +
                                                "000000010000000200000001"
                                                "567800020100"
                                                "000000010101"
                                                "ff000000");
    EXPECT_TRUE(connection.closing());
}

TEST_F(UsbipMessagesTest, ListsNoInterfacesOfAnUnconfiguredDevice) {
    plug("configuration=none,vendor=0x5678");
    const std::string list = answer("0111 8005 00000000");
    EXPECT_EQ(list.size(), 2 * (8 + 4 + 312));
    EXPECT_EQ(list.substr(list.size() - 12), "000000000000");
}

TEST_F(UsbipMessagesTest, AnswersAnImportWithTheDevice) {
    plug("vendor=0x5678");
    EXPECT_EQ(answer("0111 8003 00000000" + text("1-1", 32)),
              "0111000300000000" + text("/sys/devices/gvusb/usb1/1-1", 256) + text("1-1", 32) +
                  "000000010000000100000002"
                  "567800010100"
                  "000000010101");
    EXPECT_FALSE(connection.closing());
}

TEST_F(UsbipMessagesTest, RefusesAnImportWithItsReason) {
    plug("");
    EXPECT_EQ(answer("0111 8003 00000000" + text("1-2", 32)), "0111000300000004");
    EXPECT_TRUE(connection.closing());
}

TEST_F(UsbipMessagesTest, CarriesUrbs) {
    plug("");
    answer("0111 8003 00000000" + text("1-1", 32));
    // Read the device descriptor by a control transfer of at most 18 bytes.
    EXPECT_EQ(answer("00000001 00000a0b 00010001 00000001 00000000"
                     "00000200 00000012 00000000 00000000 00000000"
                     "8006000100001200"),
              "00000003"
              "00000a0b"
              "00000000"
              "00000000"
              "00000000"
              "00000000"
              "00000012"
              "00000000"
              "00000000"
              "00000000"
              "0000000000000000"
              "120110010000004009120100000103050101");
    // Send a frame to endpoint 2, fetch the answer from endpoint 1, and cancel another fetch.
    EXPECT_EQ(answer("00000001 00000a0c 00010001 00000000 00000002"
                     "00000000 00000003 00000000 ffffffff 00000000"
                     "0000000000000000 aabbcc"),
              "00000003"
              "00000a0c"
              "00000000"
              "00000000"
              "00000000"
              "00000000"
              "00000003"
              "00000000"
              "00000000"
              "00000000"
              "0000000000000000");
    EXPECT_EQ(answer("00000001 00000a0d 00010001 00000001 00000001"
                     "00000001 00000003 00000000 00000000 00000000"
                     "0000000000000000"),
              "00000003"
              "00000a0d"
              "00000000"
              "00000000"
              "00000000"
              "00000000"
              "00000003"
              "00000000"
              "00000000"
              "00000000"
              "0000000000000000"
              "aabbcc");
    EXPECT_EQ(answer("00000001 00000a0e 00010001 00000001 00000001"
                     "00000000 00000040 00000000 00000000 00000000"
                     "0000000000000000"),
              "");
    EXPECT_EQ(answer("00000002 00000a0f 00010001 00000000 00000000"
                     "00000a0e 00000000 00000000 00000000 00000000"
                     "0000000000000000"),
              "00000004"
              "00000a0f"
              "00000000"
              "00000000"
              "00000000"
              "ffffff98"
              "00000000"
              "00000000"
              "00000000"
              "00000000" // -104, connection reset
              "0000000000000000");
}

} // namespace
} // namespace emulator::usbip

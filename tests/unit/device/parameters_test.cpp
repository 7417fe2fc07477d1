#include "device_test.h"

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ParametersTest : public DeviceTest {
protected:
    ParametersTest() {
        device.devId = 0x12AB0;
        std::strcpy(device.famName, "DESKTOP");
        std::strcpy(device.devName, "READER ONE");
        std::strcpy(device.intType, "TESK-RCI2");
        device.lastError = GVUSB_ERR_OUT_OF_RANGE;
        fake::takeCalls();
    }

    // The value, or the code if reading it fails.
    std::string read(const std::string& key) {
        char value[GVUSB_PARAMETER_SIZE];
        std::memset(value, '~', sizeof value);
        const int code = device.GetDevicePara(key.c_str(), value);
        EXPECT_EQ(device.lastError, code);
        if (code != GVUSB_OK && key != "TYPENUMBER") {
            EXPECT_EQ(value[0], '~') << "written despite the failure";
        }
        return code == GVUSB_OK ? value : std::to_string(code);
    }

    int write(const std::string& key, const char* value = "") {
        const int code = device.SetDevicePara(key.c_str(), value);
        EXPECT_EQ(device.lastError, code);
        return code;
    }

    ~ParametersTest() noexcept override = default;

    GVDevice device{0x10000001, fake::plug("dev1", fake::bulkReader())};
};

TEST_F(ParametersTest, ValuesOfAClosedReader) {
    EXPECT_EQ(read("TIMEOUT"), "1000");
    EXPECT_EQ(read("DEVICEHND"), "0");
    EXPECT_EQ(read("DEVICE-ID"), "12AB0");
    EXPECT_EQ(read("DEVICENAME"), "READER ONE");
    EXPECT_EQ(read("FAMILYNAME"), "DESKTOP");
    EXPECT_EQ(read("INTERFACE"), "TESK-RCI2");
    EXPECT_EQ(read("TYPENUMBER"), "-1144");
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ParametersTest, ValuesOfAnOpenReader) {
    open(device);
    EXPECT_EQ(read("TIMEOUT"), "1000");
    EXPECT_EQ(read("DEVICEHND"), "268435457");
    EXPECT_EQ(read("DEVICE-ID"), "12AB0");
    EXPECT_EQ(read("DEVICENAME"), "READER ONE");
    EXPECT_EQ(read("FAMILYNAME"), "DESKTOP");
    EXPECT_EQ(read("INTERFACE"), "TESK-RCI2");
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(read("TYPENUMBER"), "17");
    EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_get_string_descriptor_ascii(hnd1, 10, 256) = 2"));
}

TEST_F(ParametersTest, HandleIsReadInDecimalWithItsSign) {
    open(device);
    const std::pair<int, const char*> handles[] = {
        {1, "1"}, {0, "0"}, {-1, "-1"}, {INT32_MAX, "2147483647"}, {INT32_MIN, "-2147483648"}};
    for (const auto& [handle, text] : handles) {
        device.devHnd = handle;
        EXPECT_EQ(read("DEVICEHND"), text);
    }
}

TEST_F(ParametersTest, HandleReadsZeroAgainAfterClosing) {
    open(device);
    device.CloseDevice();
    EXPECT_EQ(read("DEVICEHND"), "0");
}

TEST_F(ParametersTest, DeviceIdIsReadInUpperCaseHexadecimal) {
    const std::pair<std::uint32_t, const char*> ids[] = {
        {0, "0"}, {0xA, "A"}, {0x00ABCDEF, "ABCDEF"}, {0x80000000, "80000000"}, {0xFFFFFFFF, "FFFFFFFF"}};
    for (const auto& [id, text] : ids) {
        device.devId = id;
        EXPECT_EQ(read("DEVICE-ID"), text);
    }
}

TEST_F(ParametersTest, TextsOf255BytesAreReadCompletely) {
    std::memset(device.famName, 'f', 255);
    std::memset(device.devName, 'd', 255);
    std::memset(device.intType, 'i', 255);
    EXPECT_EQ(read("FAMILYNAME"), std::string(255, 'f'));
    EXPECT_EQ(read("DEVICENAME"), std::string(255, 'd'));
    EXPECT_EQ(read("INTERFACE"), std::string(255, 'i'));
    fake::setString("dev1", 10, std::string(300, 't'));
    open(device);
    EXPECT_EQ(read("TYPENUMBER"), std::string(255, 't'));
}

TEST_F(ParametersTest, UnidentifiedReaderHasEmptyTexts) {
    GVDevice fresh(2, fake::plug("dev2", fake::bulkReader()));
    for (const char* key : {"FAMILYNAME", "DEVICENAME", "INTERFACE"}) {
        char value[GVUSB_PARAMETER_SIZE] = "old";
        EXPECT_EQ(fresh.GetDevicePara(key, value), GVUSB_OK);
        EXPECT_STREQ(value, "") << key;
    }
}

TEST_F(ParametersTest, ValuesMayContainAnyByte) {
    std::strcpy(device.famName, "100%s \xFF");
    EXPECT_EQ(read("FAMILYNAME"), "100%s \xFF");
}

TEST_F(ParametersTest, UnreadableTypeNumber) {
    open(device);
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        fake::setString("dev1", 10, code);
        EXPECT_EQ(read("TYPENUMBER"), "-1168");
    }
    fake::setString("dev1", 10, "");
    EXPECT_EQ(read("TYPENUMBER"), "");
}

TEST_F(ParametersTest, KeysMayBeInAnyLetterCase) {
    open(device);
    for (const char* key : {"timeout", "Timeout", "tIMEOUT"}) {
        EXPECT_EQ(read(key), "1000");
    }
    EXPECT_EQ(read("device-id"), "12AB0");
    EXPECT_EQ(read("deviceHnd"), "268435457");
    EXPECT_EQ(read("deviceName"), "READER ONE");
    EXPECT_EQ(read("familyName"), "DESKTOP");
    EXPECT_EQ(read("interface"), "TESK-RCI2");
    EXPECT_EQ(read("typenumber"), "17");
    EXPECT_EQ(write("timeOut", "5"), GVUSB_OK);
    EXPECT_EQ(write("resetPipe"), GVUSB_OK);
    EXPECT_EQ(write("ResetDevice"), GVUSB_OK);
}

std::vector<std::string> unknownKeys() {
    return {"",
            "TIME-OUT",
            "TIMEOUT ",
            " TIMEOUT",
            "TIMEOU",
            "TIMEOUTS",
            "DEVICEID",
            "DEVICE-HND",
            "DEVICE-NAME",
            "FAMILY-NAME",
            "TYPE-NUMBER",
            "HOTPLUG-MODE",
            "OWNER",
            std::string(127, 'K'),
            std::string(128, 'K'),
            std::string(129, 'K'),
            std::string(100000, 'K'),
            "TIMEOUT" + std::string(121, ' '),
            "T\xC4\xB0MEOUT"};
}

TEST_F(ParametersTest, UnknownKeysCannotBeRead) {
    open(device);
    auto keys = unknownKeys();
    keys.insert(keys.end(), {"RESETPIPE", "RESETDEVICE"});
    for (const std::string& key : keys) {
        SCOPED_TRACE(key.substr(0, 20) + ", length " + std::to_string(key.size()));
        EXPECT_EQ(read(key), "-1150");
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ParametersTest, UnknownKeysCannotBeWritten) {
    open(device);
    auto keys = unknownKeys();
    keys.insert(keys.end(),
                {"DEVICEHND", "DEVICE-ID", "DEVICENAME", "FAMILYNAME", "INTERFACE", "TYPENUMBER", "PRESENT"});
    for (const std::string& key : keys) {
        SCOPED_TRACE(key.substr(0, 20) + ", length " + std::to_string(key.size()));
        EXPECT_EQ(write(key, "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(read("DEVICE-ID"), "12AB0");
    EXPECT_EQ(read("TIMEOUT"), "1000");
}

TEST_F(ParametersTest, TimeoutIsTheNumberAtTheStartOfTheText) {
    const std::pair<const char*, const char*> texts[] = {
        {"1", "1"},
        {"250", "250"},
        {"250ms", "250"},
        {"  250", "250"},
        {"\t250", "250"},
        {"+250", "250"},
        {"00250", "250"},
        {"250.9", "250"},
        {"25 0", "25"},
        {"010", "10"},
        {"2147483647", "2147483647"},
        {"2147483648", "2147483648"},
        {"4294967295", "4294967295"},
    };
    for (const auto& [text, expected] : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(write("TIMEOUT", text), GVUSB_OK);
        EXPECT_EQ(read("TIMEOUT"), expected);
    }
}

TEST_F(ParametersTest, TimeoutThatDoesNotFitSaturates) {
    for (const char* text : {"4294967296", "4294967297", "9223372036854775807", "9223372036854775808",
                             "99999999999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(write("TIMEOUT", "5"), GVUSB_OK);
        EXPECT_EQ(write("TIMEOUT", text), GVUSB_OK);
        EXPECT_EQ(read("TIMEOUT"), "4294967295");
    }
}

TEST_F(ParametersTest, TimeoutBelowOneIsRefusedAndChangesNothing) {
    EXPECT_EQ(write("TIMEOUT", "77"), GVUSB_OK);
    for (const char* text : {"0", "-1", "-250", "", "   ", "ms", "x250", "0x10", "0.5", "-4294967295", "+",
                             "-", "-9223372036854775808", "-99999999999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(write("TIMEOUT", text), GVUSB_ERR_OUT_OF_RANGE);
        EXPECT_EQ(read("TIMEOUT"), "77");
    }
}

TEST_F(ParametersTest, ResettingNeedsAnOpenReader) {
    EXPECT_EQ(write("RESETPIPE"), GVUSB_ERR_NOT_OPENED);
    EXPECT_EQ(write("RESETDEVICE"), GVUSB_ERR_NOT_OPENED);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ParametersTest, ResettingPipesClearsOutThenInDespiteFailures) {
    makeReady(device);
    for (const char* value : {"", "0", "anything"}) {
        EXPECT_EQ(write("RESETPIPE", value), GVUSB_OK);
        EXPECT_EQ(fake::takeCallText(), "libusb_clear_halt(hnd1, 0x02) = 0\n"
                                        "libusb_clear_halt(hnd1, 0x81) = 0\n");
    }
    fake::failAlways("libusb_clear_halt", LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(write("RESETPIPE"), GVUSB_OK);
    EXPECT_EQ(fake::takeCalls().size(), 2u);
}

TEST_F(ParametersTest, ResettingPipesDoesNothingOutsideBulkMode) {
    open(device);
    EXPECT_EQ(write("RESETPIPE"), GVUSB_OK);
    GVDevice control(2, fake::plug("dev2", fake::controlReader()));
    makeReady(control);
    EXPECT_EQ(control.SetDevicePara("RESETPIPE", ""), GVUSB_OK);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(ParametersTest, ResettingTheDeviceKeepsTheRecordUnchanged) {
    makeReady(device);
    EXPECT_EQ(write("RESETDEVICE", "anything"), GVUSB_OK);
    EXPECT_EQ(fake::takeCallText(), "libusb_reset_device(hnd1) = 0\n");
    EXPECT_EQ(stateOf(device), bulkState);
}

TEST_F(ParametersTest, FailedResetOfTheDeviceIsNotAvailable) {
    makeReady(device);
    for (const int code : {-1, -4, -5, -12, -99, 1}) {
        SCOPED_TRACE(code);
        fake::failNext("libusb_reset_device", code);
        EXPECT_EQ(write("RESETDEVICE"), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
        EXPECT_EQ(stateOf(device), bulkState);
    }
}

TEST_F(ParametersTest, LastErrorIsZeroDuringTheRequest) {
    open(device);
    std::vector<int> seen;
    const ScopedHook hook([&](std::string_view, std::string_view) { seen.push_back(device.lastError); });
    device.lastError = GVUSB_ERR_TIMEOUT;
    EXPECT_EQ(read("TYPENUMBER"), "17");
    device.lastError = GVUSB_ERR_TIMEOUT;
    EXPECT_EQ(write("RESETDEVICE"), GVUSB_OK);
    EXPECT_THAT(seen, ElementsAre(0, 0));
}

TEST_F(ParametersTest, NothingIsLogged) {
    EXPECT_THAT(logOf(3,
                      [&] {
                          const auto readAndWriteAll = [&] {
                              for (const char* key : {"TIMEOUT", "DEVICEHND", "DEVICE-ID", "DEVICENAME",
                                                      "FAMILYNAME", "INTERFACE", "TYPENUMBER", "unknown"}) {
                                  read(key);
                              }
                              for (const char* key : {"TIMEOUT", "RESETPIPE", "RESETDEVICE", "unknown"}) {
                                  write(key, "0");
                              }
                          };
                          readAndWriteAll();
                          const int level = GVLOG_Level();
                          GVLOG_SetLevel(0);
                          open(device);
                          GVLOG_SetLevel(level);
                          readAndWriteAll();
                      }),
                IsEmpty());
}

} // namespace

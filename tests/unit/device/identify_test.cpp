#include "device_test.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string readCall(int index, int result) {
    return "libusb_get_string_descriptor_ascii(hnd1, " + std::to_string(index) +
           ", 256) = " + std::to_string(result);
}

class IdentifyTest : public DeviceTest {
protected:
    explicit IdentifyTest(fake::FakeReader reader = fake::bulkReader())
        : device(0x10000001, fake::plug("dev1", std::move(reader))) {
        fake::takeCalls();
    }

    ~IdentifyTest() noexcept override = default;

    GVDevice device;
};

TEST_F(IdentifyTest, ReadsTheFourTextsAndLeavesTheReaderClosed) {
    device.lastError = GVUSB_ERR_NOT_PRESENT;

    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);

    EXPECT_THAT(fake::takeCalls(),
                ElementsAre("libusb_open(dev1) = 0", readCall(1, 6), readCall(3, 7), readCall(5, 10),
                            readCall(6, 9), "libusb_release_interface(hnd1, 0) = -5", "libusb_close(hnd1)"));
    EXPECT_EQ(device.devId, 0x1A2B3Cu);
    EXPECT_STREQ(device.famName, "DESKTOP");
    EXPECT_STREQ(device.devName, "READER ONE");
    EXPECT_STREQ(device.intType, "TESK-RCI2");
    EXPECT_EQ(device.lastError, GVUSB_OK);
    EXPECT_EQ(stateOf(device), closedState);
}

TEST_F(IdentifyTest, OpenReadersHandleIsClosed) {
    makeReady(device);
    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
    EXPECT_EQ(fake::openHandles("dev1"), 0);
    EXPECT_EQ(stateOf(device), closedState);
}

TEST_F(IdentifyTest, LogsEachTextWhenTheLevelIsAboveOne) {
    const auto identify = [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK); };
    EXPECT_THAT(logOf(2, identify),
                ElementsAre("[ident] devIdStr=1A2B3C", "[ident] devId=0x1a2b3c", "[ident] famName=DESKTOP",
                            "[ident] devName=READER ONE", "[ident] intType=TESK-RCI2", "[ident] ok"));
    for (const int level : {-1, 0, 1}) {
        EXPECT_THAT(logOf(level, identify), IsEmpty()) << level;
    }
    EXPECT_THAT(logOf(3, identify), testing::SizeIs(6));
}

TEST_F(IdentifyTest, LogsOkAfterClosing) {
    Lines before;
    {
        support::CapturedStdout output;
        const ScopedHook hook([&](std::string_view function, std::string_view) {
            if (function == "libusb_close") {
                before = output.takeLogLines();
            }
        });
        GVLOG_SetLevel(2);
        EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
        EXPECT_THAT(output.takeLogLines(), ElementsAre("[ident] ok"));
    }
    EXPECT_EQ(before.back(), "[ident] intType=TESK-RCI2");
}

TEST_F(IdentifyTest, FailedOpeningIsNotLogged) {
    for (const int code : {-1, -3, -4, -6, -11, -99, 1}) {
        SCOPED_TRACE(code);
        fake::failNext("libusb_open", code);
        EXPECT_THAT(logOf(3, [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_ERR_CANNOT_OPEN); }), IsEmpty());
        EXPECT_EQ(device.lastError, GVUSB_ERR_CANNOT_OPEN);
        EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_open(dev1) = " + std::to_string(code)));
        EXPECT_EQ(stateOf(device), closedState);
    }
}

struct FailingText {
    std::uint8_t index;
    const char* nameInLog;
    int code;
    std::size_t linesBefore;
};

void PrintTo(const FailingText& text, std::ostream* stream) {
    *stream << "descriptor " << unsigned{text.index};
}

class FailingTextTest : public IdentifyTest, public testing::WithParamInterface<FailingText> {};

TEST_P(FailingTextTest, ClosesLogsAndKeepsTheTextsReadBefore) {
    const auto [index, nameInLog, code, linesBefore] = GetParam();
    for (const int result : libusbErrors) {
        SCOPED_TRACE(result);
        fake::setString("dev1", index, result);
        fake::takeCalls();

        const Lines lines = logOf(2, [&, expected = code] { EXPECT_EQ(device.IdentifyDevice(), expected); });

        EXPECT_EQ(lines.size(), linesBefore + 1);
        EXPECT_EQ(lines.back(), std::string("[ident] libusb_get_string_descriptor_ascii(") + nameInLog +
                                    ") returned " + std::to_string(result));
        const auto calls = fake::takeCalls();
        ASSERT_GE(calls.size(), 3u);
        EXPECT_THAT(Lines(calls.end() - 3, calls.end()),
                    ElementsAre(readCall(index, result), "libusb_release_interface(hnd1, 0) = -5",
                                "libusb_close(hnd1)"));
        EXPECT_EQ(device.lastError, code);
        EXPECT_EQ(stateOf(device), closedState);
    }
    EXPECT_EQ(device.devId, index > 1 ? 0x1A2B3Cu : 0u);
    EXPECT_STREQ(device.famName, index > 3 ? "DESKTOP" : "");
    EXPECT_STREQ(device.devName, index > 5 ? "READER ONE" : "");
    EXPECT_STREQ(device.intType, "");
}

TEST_P(FailingTextTest, IsNotLoggedUpToLevelOne) {
    fake::setString("dev1", GetParam().index, LIBUSB_ERROR_PIPE);
    EXPECT_THAT(logOf(1, [&] { EXPECT_EQ(device.IdentifyDevice(), GetParam().code); }), IsEmpty());
}

TEST_P(FailingTextTest, ClosesBeforeItLogs) {
    fake::setString("dev1", GetParam().index, LIBUSB_ERROR_PIPE);
    support::CapturedStdout output;
    const ScopedHook hook([&](std::string_view function, std::string_view) {
        if (function == "libusb_close") {
            output.takeText();
        }
    });
    GVLOG_SetLevel(2);
    device.IdentifyDevice();
    EXPECT_THAT(output.takeLogLines(), ElementsAre(HasSubstr(" returned -9")));
}

// The log names the interface type devName.
INSTANTIATE_TEST_SUITE_P(EachDescriptor, FailingTextTest,
                         testing::Values(FailingText{1, "devId", GVUSB_ERR_DEVICE_DESCRIPTOR_READ, 0},
                                         FailingText{3, "famName", GVUSB_ERR_STRING_DESCRIPTOR_READ, 2},
                                         FailingText{5, "devName", GVUSB_ERR_STRING_DESCRIPTOR_READ, 3},
                                         FailingText{6, "devName", GVUSB_ERR_STRING_DESCRIPTOR_READ, 4}),
                         [](const auto& each) { return "Descriptor" + std::to_string(each.param.index); });

TEST_F(IdentifyTest, DeviceIdTextIsReadAsHexadecimal) {
    const std::pair<const char*, std::uint32_t> texts[] = {
        {"1A2B3C", 0x1A2B3C},          {"1a2b3c", 0x1A2B3C}, {"0", 0},
        {"0x12AB0", 0x12AB0},          {"0X12aB0", 0x12AB0}, {"   12AB0", 0x12AB0},
        {"\t\n 0x12AB0", 0x12AB0},     {"0012AB0", 0x12AB0}, {"12AB0 SN", 0x12AB0},
        {"12AB0-1", 0x12AB0},          {"12AB0x1", 0x12AB0}, {"1G", 1},
        {"FFFFFFFF", 0xFFFFFFFF},      {"+1F", 0x1F},        {"00000000000000000000001A2B3C", 0x1A2B3C},
        {"1A2B3C \xC3\xA4", 0x1A2B3C},
    };
    for (const auto& [text, expected] : texts) {
        SCOPED_TRACE(text);
        fake::setString("dev1", 1, text);
        EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
        EXPECT_EQ(device.devId, expected);
    }
}

TEST_F(IdentifyTest, DeviceIdThatDoesNotFitIsConvertedLikeByScanf) {
    for (const char* text : {"100000000", "123456789", "1FFFFFFFF", "FFFFFFFFFFFFFFFF", "123456789ABCDEF0123",
                             "-1", "-1A", "-FFFFFFFFFFFFFFFFFF"}) {
        SCOPED_TRACE(text);
        unsigned int expected = 0;
        ASSERT_EQ(std::sscanf(text, "%x", &expected), 1);
        fake::setString("dev1", 1, text);
        EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
        EXPECT_EQ(device.devId, expected);
    }
}

TEST_F(IdentifyTest, DeviceIdTextWithoutANumberFailsWithoutAnotherLine) {
    for (const char* text : {"", " ", "   \t", "G1A2B", "-", "+", "x1", "no id"}) {
        SCOPED_TRACE(text);
        fake::setString("dev1", 1, text);
        fake::takeCalls();
        const Lines lines =
            logOf(2, [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_ERR_DEVICE_DESCRIPTOR_READ); });
        // A tab is logged unchanged.
        EXPECT_THAT(lines, ElementsAre("[ident] devIdStr=" + std::string(text)));
        EXPECT_EQ(device.lastError, GVUSB_ERR_DEVICE_DESCRIPTOR_READ);
        EXPECT_EQ(stateOf(device), closedState);
        EXPECT_THAT(fake::takeCalls(),
                    ElementsAre("libusb_open(dev1) = 0", readCall(1, static_cast<int>(std::strlen(text))),
                                "libusb_release_interface(hnd1, 0) = -5", "libusb_close(hnd1)"));
    }
    EXPECT_EQ(device.devId, 0u);
}

TEST_F(IdentifyTest, TextsOf255BytesAreNotTruncated) {
    const std::string longest(255, 'x');
    for (const std::uint8_t index : {std::uint8_t{3}, std::uint8_t{5}, std::uint8_t{6}}) {
        fake::setString("dev1", index, longest);
    }
    fake::setString("dev1", 1, "1A" + std::string(253, ' '));
    const Lines lines = logOf(2, [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK); });
    EXPECT_EQ(device.famName, longest);
    EXPECT_EQ(device.devName, longest);
    EXPECT_EQ(device.intType, longest);
    EXPECT_EQ(device.devId, 0x1Au);
    EXPECT_THAT(lines, ElementsAre("[ident] devIdStr=1A" + std::string(253, ' '), "[ident] devId=0x1a",
                                   "[ident] famName=" + longest, "[ident] devName=" + longest,
                                   "[ident] intType=" + longest, "[ident] ok"));
}

TEST_F(IdentifyTest, EveryBlankOfTheInterfaceTypeBecomesAHyphen) {
    const std::pair<const char*, const char*> texts[] = {
        {"A B C", "A-B-C"},         {" A  B ", "-A--B-"}, {"   ", "---"},
        {"TESK-RCI2", "TESK-RCI2"}, {"A\tB", "A\tB"},     {"", ""},
    };
    for (const auto& [text, expected] : texts) {
        SCOPED_TRACE(text);
        fake::setString("dev1", 6, text);
        const Lines lines = logOf(2, [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK); });
        EXPECT_STREQ(device.intType, expected);
        EXPECT_EQ(lines[4], std::string("[ident] intType=") + expected);
    }
}

TEST_F(IdentifyTest, BlanksInTheNamesStay) {
    fake::setString("dev1", 3, " A B ");
    fake::setString("dev1", 5, " C D ");
    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
    EXPECT_STREQ(device.famName, " A B ");
    EXPECT_STREQ(device.devName, " C D ");
}

TEST_F(IdentifyTest, TextsWithPercentSignsAreLoggedUnchanged) {
    fake::setString("dev1", 3, "100%s%n%d");
    const Lines lines = logOf(2, [&] { EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK); });
    EXPECT_EQ(lines[2], "[ident] famName=100%s%n%d");
}

TEST_F(IdentifyTest, ShorterTextsReplaceLongerOnes) {
    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
    fake::setString("dev1", 1, "7");
    fake::setString("dev1", 3, "F");
    fake::setString("dev1", 5, "");
    fake::setString("dev1", 6, "I");
    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
    EXPECT_EQ(device.devId, 7u);
    EXPECT_STREQ(device.famName, "F");
    EXPECT_STREQ(device.devName, "");
    EXPECT_STREQ(device.intType, "I");
}

TEST_F(IdentifyTest, OpenWrapperIgnoresItsOption) {
    for (const int option : {0, 1, -1, INT32_MAX, INT32_MIN}) {
        libusb_device_handle* handle = nullptr;
        EXPECT_EQ(g_libusb_open(fake::device("dev1"), &handle, option), 0);
        EXPECT_NE(handle, nullptr);
        libusb_close(handle);
        EXPECT_THAT(fake::takeCalls(), ElementsAre("libusb_open(dev1) = 0", "libusb_close(hnd1)"));
    }
    for (const int code : libusbErrors) {
        libusb_device_handle* handle = nullptr;
        fake::failNext("libusb_open", code);
        EXPECT_EQ(g_libusb_open(fake::device("dev1"), &handle, 1), code);
        EXPECT_EQ(handle, nullptr);
    }
}

TEST_F(IdentifyTest, ClosedReaderIsNotPresent) {
    const auto ask = [&] { EXPECT_FALSE(device.IsPresent()); };
    EXPECT_THAT(logOf(2, ask), ElementsAre("[is present] device not open error"));
    EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_OPENED);
    EXPECT_THAT(logOf(1, ask), IsEmpty());
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(IdentifyTest, IdentifiedReaderIsClosedAndThereforeNotPresent) {
    EXPECT_EQ(device.IdentifyDevice(), GVUSB_OK);
    EXPECT_FALSE(device.IsPresent());
    EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_OPENED);
}

TEST_F(IdentifyTest, OpenReaderThatReturnsAnyAnswerIsPresent) {
    open(device);
    const auto ask = [&] { EXPECT_TRUE(device.IsPresent()); };
    for (const char* text : {"1A2B3C", "", "no number"}) {
        SCOPED_TRACE(text);
        fake::setString("dev1", 1, text);
        device.lastError = GVUSB_ERR_TIMEOUT;
        EXPECT_THAT(logOf(2, ask), ElementsAre("[is present] ok"));
        EXPECT_EQ(device.lastError, GVUSB_OK);
        EXPECT_THAT(fake::takeCalls(), ElementsAre(readCall(1, static_cast<int>(std::strlen(text)))));
    }
    EXPECT_THAT(logOf(1, ask), IsEmpty());
    EXPECT_EQ(device.devId, 0u);
    EXPECT_EQ(stateOf(device), openState);
}

TEST_F(IdentifyTest, OpenReaderThatDoesNotAnswerIsNotPresent) {
    open(device);
    const auto ask = [&] { EXPECT_FALSE(device.IsPresent()); };
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        fake::setString("dev1", 1, code);
        EXPECT_THAT(logOf(2, ask),
                    ElementsAre("[is present] libusb_get_string_descriptor_ascii(devId) returned " +
                                std::to_string(code)));
        EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_PRESENT);
        EXPECT_THAT(logOf(1, ask), IsEmpty());
        EXPECT_EQ(stateOf(device), openState);
    }
    fake::takeCalls();
}

TEST_F(IdentifyTest, UnpluggedReaderIsNotPresent) {
    open(device);
    fake::unplug("dev1");
    EXPECT_FALSE(device.IsPresent());
    EXPECT_EQ(device.lastError, GVUSB_ERR_NOT_PRESENT);
}

} // namespace

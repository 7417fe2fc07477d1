#include "api/error_text.h"

#include "gvusb.h"
#include "manager_test.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

struct Entry {
    int code;
    const char* text;
};

// The published texts, verbatim.
constexpr Entry published[] = {
    {0, "GVUSB: OK"},
    {-1100, "GVUSB: (-1100) empty device list"},
    {-1101, "GVUSB: (-1101) empty scan list"},
    {-1102, "GVUSB: (-1102) pointer is NULL"},
    {-1103, "GVUSB: (-1103) no more memory"},
    {-1104, "GVUSB: (-1104) The USB configuration could not be set"},
    {-1105, "GVUSB: (-1105) Error in Kernel-Function"},
    {-1106, "GVUSB: (-1106) unsupported option"},
    {-1107, "GVUSB: (-1107) unsupported method"},
    {-1108, "GVUSB: (-1108) device has no configuration"},
    {-1109, "GVUSB: (-1109) libUSB-API not available"},
    {-1110, "GVUSB: (-1110) no gavo device"},
    {-1111, "GVUSB: (-1111) search mismatch"},
    {-1112, "GVUSB: (-1112) no device found"},
    {-1113, "GVUSB: (-1113) device is already scanned"},
    {-1114, "GVUSB: (-1114) scanlist overflow"},
    {-1120, "GVUSB: (-1120) unknown device handle"},
    {-1121, "GVUSB: (-1121) device handle is null"},
    {-1122, "GVUSB: (-1122) device handle is negative"},
    {-1123, "GVUSB: (-1123) no device handle found"},
    {-1130, "GVUSB: (-1130) timeout"},
    {-1131, "GVUSB: (-1131) no send data"},
    {-1132, "GVUSB: (-1132) unknown interface"},
    {-1133, "GVUSB: (-1133) unknown direction"},
    {-1134, "GVUSB: (-1134) receive buffer is too small"},
    {-1135, "GVUSB: (-1135) send data length is fault"},
    {-1136, "GVUSB: (-1136) unknown descriptor type"},
    {-1137, "GVUSB: (-1137) device is not present"},
    {-1138, "GVUSB: (-1138) error in transmit process"},
    {-1139, "GVUSB: (-1139) bulk transfer error"},
    {-1140, "GVUSB: (-1140) device not scanned"},
    {-1141, "GVUSB: (-1141) device is not in scanlist"},
    {-1142, "GVUSB: (-1142) device list handle is null"},
    {-1143, "GVUSB: (-1143) device cannot be opened"},
    {-1144, "GVUSB: (-1144) device is not opened"},
    {-1145, "GVUSB: (-1145) interface cannot be claimed"},
    {-1146, "GVUSB: (-1146) wrong device, another device was expected"},
    {-1150, "GVUSB: (-1150) unknown parameter"},
    {-1151, "GVUSB: (-1151) parameter out of range"},
    {-1152, "GVUSB: (-1152) odd parameter string"},
    {-1153, "GVUSB: (-1153) index out of range"},
    {-1154, "GVUSB: (-1154) unknown scan option"},
    {-1155, "GVUSB: (-1155) unknown error code"},
    {-1156, "GVUSB: (-1156) parameter syntax error"},
    {-1157, "GVUSB: (-1157) parameter not available"},
    {-1160, "GVUSB: (-1160) device descriptor length is fault"},
    {-1161, "GVUSB: (-1161) configuration descriptor length is fault"},
    {-1162, "GVUSB: (-1162) interface descriptor length is fault"},
    {-1163, "GVUSB: (-1163) endpoint descriptor length is fault"},
    {-1164, "GVUSB: (-1164) HID descriptor length is fault"},
    {-1165, "GVUSB: (-1165) string descriptor length is fault"},
    {-1166, "GVUSB: (-1166) device descriptor read error"},
    {-1167, "GVUSB: (-1167) configuration descriptor read error"},
    {-1168, "GVUSB: (-1168) string descriptor read error"},
    {-1170, "GVUSB: (-1170) device has to much interfaces"},
    {-1171, "GVUSB: (-1171) device has to much endpoints"},
    {-1172, "GVUSB: (-1172) device has to much strings"},
    {-1180, "GVUSB: (-1180) control transfer error"},
    {-1199, "GVUSB: (-1199) Internal error"},
};
static_assert(std::size(published) == 59);

constexpr Entry unknown[] = {
    {-1115, "GVUSB: Unknown Error: 0xFFFFFBA5 (-1115)"},
    {-1124, "GVUSB: Unknown Error: 0xFFFFFB9C (-1124)"},
    {-1, "GVUSB: Unknown Error: 0xFFFFFFFF (-1)"},
    {-1099, "GVUSB: Unknown Error: 0xFFFFFBB5 (-1099)"},
    {-1200, "GVUSB: Unknown Error: 0xFFFFFB50 (-1200)"},
    {5, "GVUSB: Unknown Error: 0x5 (5)"},
    {1115, "GVUSB: Unknown Error: 0x45B (1115)"},
    {INT_MAX, "GVUSB: Unknown Error: 0x7FFFFFFF (2147483647)"},
    {INT_MIN, "GVUSB: Unknown Error: 0x80000000 (-2147483648)"},
};

class ErrorText : public ManagerTest {
protected:
    static constexpr int earlier = -1199;
    ErrorText() { g_GvUsbMan.SetLastError(earlier); }
    static int lastError() { return relaxed::load(g_GvUsbMan.m_iLastError); }
};

TEST_F(ErrorText, EveryPublishedCodeHasItsText) {
    for (const auto& [code, text] : published) {
        EXPECT_STREQ(GvUsbErrorText::getErrorText(code), text) << code;
        EXPECT_STREQ(GvusbGetErrorText(code), text) << code;
    }
    EXPECT_EQ(lastError(), earlier);
}

TEST_F(ErrorText, NoOtherCodeHasAText) {
    std::set<int> known;
    for (const auto& entry : published) {
        known.insert(entry.code);
    }
    for (int code = -1300; code <= 1300; ++code) {
        EXPECT_EQ(GvUsbErrorText::getErrorText(code) != nullptr, known.contains(code)) << code;
    }
    EXPECT_EQ(lastError(), earlier);
}

TEST_F(ErrorText, LongestTextFitsThePublishedSize) {
    std::size_t longest = 0;
    for (const auto& entry : published) {
        longest = std::max(longest, std::strlen(GvUsbErrorText::getErrorText(entry.code)) + 1);
    }
    EXPECT_EQ(longest, std::size_t{GVUSB_TEXT_SIZE});
}

TEST_F(ErrorText, UnknownCodeIsShownInHexadecimalAndDecimal) {
    for (const auto& [code, text] : unknown) {
        SCOPED_TRACE(code);
        g_GvUsbMan.SetLastError(earlier);
        EXPECT_EQ(GvUsbErrorText::getErrorText(code), nullptr);
        EXPECT_EQ(lastError(), earlier);
        const char* const made = GvusbGetErrorText(code);
        EXPECT_EQ(made, g_cGvusbErrorText);
        EXPECT_STREQ(made, text);
        EXPECT_EQ(lastError(), -1155);
    }
}

TEST_F(ErrorText, KnownCodeKeepsTheTextOfTheLastUnknownOne) {
    GvusbGetErrorText(5);
    GvusbGetErrorText(-1155);
    EXPECT_STREQ(g_cGvusbErrorText, "GVUSB: Unknown Error: 0x5 (5)");
}

TEST_F(ErrorText, ExportCopiesEveryPublishedTextAndReturnsSuccess) {
    for (const auto& [code, text] : published) {
        SCOPED_TRACE(code);
        g_GvUsbMan.SetLastError(earlier);
        char copy[57];
        std::memset(copy, '#', sizeof copy);
        EXPECT_EQ(GVUSB_GetErrorText(code, copy), 0);
        EXPECT_STREQ(copy, text);
        EXPECT_EQ(lastError(), 0);
    }
}

TEST_F(ErrorText, ExportCopiesTheTextOfAnUnknownCodeAndReportsIt) {
    for (const auto& [code, text] : unknown) {
        SCOPED_TRACE(code);
        char copy[57];
        std::memset(copy, '#', sizeof copy);
        EXPECT_EQ(GVUSB_GetErrorText(code, copy), -1155);
        EXPECT_STREQ(copy, text);
        EXPECT_STREQ(g_cGvusbErrorText, text);
        EXPECT_EQ(lastError(), -1155);
    }
}

TEST_F(ErrorText, ExportWritesNothingAfterTheTerminatingZero) {
    char copy[] = "##########################################";
    GVUSB_GetErrorText(0, copy);
    EXPECT_EQ(std::string(copy, 12), std::string("GVUSB: OK\0##", 12));
}

// Each caller must get its own code's text, although all share the buffer for unknown codes.
TEST_F(ErrorText, ThreadsDoNotGetEachOthersTexts) {
    std::atomic<bool> stop = false;
    const auto disturb = [&] {
        while (!stop) {
            GvusbGetErrorText(5);
        }
    };
    std::thread one(disturb);
    std::thread another(disturb);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(60);
    while (std::chrono::steady_clock::now() < end) {
        char copy[GVUSB_TEXT_SIZE];
        EXPECT_EQ(GVUSB_GetErrorText(-1115, copy), -1155);
        EXPECT_STREQ(copy, "GVUSB: Unknown Error: 0xFFFFFBA5 (-1115)");
    }
    stop = true;
    one.join();
    another.join();
    EXPECT_THAT(g_cGvusbErrorText, testing::StartsWith("GVUSB: Unknown Error: 0x"));
}

} // namespace

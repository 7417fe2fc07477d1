#include "captured_stdout.h"

#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

using Lines = std::vector<std::string>;

TEST(CapturedStdoutTest, TakesUnflushedOutputPieceByPiece) {
    support::CapturedStdout captured;
    std::printf(" 0.000001 :: gvusb: [scan] one\n");
    EXPECT_EQ(captured.takeText(), " 0.000001 :: gvusb: [scan] one\n");
    std::printf(" 0.000002 :: gvusb: [scan] two\n");
    EXPECT_EQ(captured.takeLogLines(), Lines{"[scan] two"});
    EXPECT_EQ(captured.takeText(), "");
}

TEST(CapturedStdoutTest, RestoresStdoutAndPrintsLinesThatAreNotLogLines) {
    support::CapturedStdout outer;
    {
        const auto inner = std::make_unique<support::CapturedStdout>();
        std::printf(" 0.000001 :: gvusb: [scan] swallowed\nsomebody's complaint\n");
    }
    std::printf("after\n");
    EXPECT_EQ(outer.takeText(), "somebody's complaint\nafter\n");
}

TEST(LogLinesTest, AcceptsTheExactFormOnly) {
    const auto single = [](const std::string& line) { return support::logLines(line + "\n").at(0); };
    for (const char* const good :
         {" 3.500000", " 0.000000", "10.000001", "100.000001", "1700000000.999999"}) {
        EXPECT_EQ(single(std::string(good) + " :: gvusb: [scan] no devices"), "[scan] no devices") << good;
        EXPECT_EQ(support::logTime(std::string(good) + " :: gvusb: [scan] no devices"), good);
    }
    for (const char* const bad :
         {"3.500000 :: gvusb: [scan] x", "  3.500000 :: gvusb: [scan] x", "03.500000 :: gvusb: [scan] x",
          " 3.50000 :: gvusb: [scan] x", " 3.5000000 :: gvusb: [scan] x", "-1.500000 :: gvusb: [scan] x",
          " 3.500000 : gvusb: [scan] x", " 3.500000 :: gvusb: scan] x", " 3.500000 :: gvusb: [scan]x", "",
          "x", " 3.-00001 :: gvusb: [scan] x"}) {
        EXPECT_EQ(single(bad), std::string("malformed: ") + bad);
        EXPECT_EQ(support::logTime(bad), "");
    }
}

TEST(LogLinesTest, KeepsTheTextUnchanged) {
    EXPECT_EQ(support::logLines(" 1.000000 :: gvusb: [bulkReceive ]   5 Bytes << 02 \n"
                                " 1.000000 :: gvusb: [to ... ] \n"),
              (Lines{"[bulkReceive ]   5 Bytes << 02 ", "[to ... ] "}));
}

TEST(LogLinesTest, LineWithoutItsEndIsMalformed) {
    EXPECT_EQ(support::logLines(" 1.000000 :: gvusb: [a] b\n 1.000000 :: gvusb: [a] c"),
              (Lines{"[a] b", "malformed:  1.000000 :: gvusb: [a] c"}));
}

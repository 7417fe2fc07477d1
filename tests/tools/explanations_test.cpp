#include "explanations.h"

#include <fstream>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <gvusb.h>

namespace {

struct PublishedCode {
    std::string name;
    int code;
    bool isReturned;
};

// The codes of enum GVUSB_ErrorCode, in the order of the header.
std::vector<PublishedCode> publishedCodes() {
    std::ifstream stream(GVUSB_HEADER);
    const std::string header(std::istreambuf_iterator<char>(stream), {});
    static const std::regex line(R"((GVUSB_(?:ERR_\w+|OK)) =\s+(-?\d+),?\s+/\*\*< ([^*]*)\*/)");
    std::vector<PublishedCode> codes;
    for (std::sregex_iterator match(header.begin(), header.end(), line), end; match != end; ++match) {
        codes.push_back({.name = (*match)[1],
                         .code = std::stoi((*match)[2]),
                         .isReturned = (*match)[3].str().find("never returned") == std::string::npos});
    }
    return codes;
}

TEST(ExplanationsTest, CoverEveryCodeOfTheHeaderInItsOrder) {
    const std::vector<PublishedCode> codes = publishedCodes();
    ASSERT_GT(codes.size(), 50U);
    ASSERT_EQ(explanations().size(), codes.size());
    for (std::size_t i = 0; i < codes.size(); ++i) {
        EXPECT_EQ(explanations()[i].code, codes[i].code) << codes[i].name;
        EXPECT_EQ(explanations()[i].name, codes[i].name);
    }
}

TEST(ExplanationsTest, SayWhichCodesAreNeverReturned) {
    for (const PublishedCode& published : publishedCodes()) {
        const Explanation* const found = findExplanation(published.code);
        ASSERT_NE(found, nullptr) << published.name;
        const bool isNever = found->cause.find("never returns") != std::string_view::npos;
        EXPECT_EQ(isNever, !published.isReturned) << published.name;
        EXPECT_EQ(found->remedy.empty(), isNever || published.code == 0) << published.name;
    }
}

TEST(ExplanationsTest, AreFoundByName) {
    for (const char* name : {"GVUSB_ERR_TIMEOUT", "gvusb_err_timeout", "TIMEOUT", "timeout"}) {
        ASSERT_NE(findExplanation(std::string_view(name)), nullptr) << name;
        EXPECT_EQ(findExplanation(std::string_view(name))->code, GVUSB_ERR_TIMEOUT) << name;
    }
    ASSERT_NE(findExplanation(std::string_view("GVUSB_OK")), nullptr);
    for (const char* name : {"", "TIME", "ERR_TIMEOUT", "GVUSB_ERR_TIMEOUTS"}) {
        EXPECT_EQ(findExplanation(std::string_view(name)), nullptr) << name;
    }
}

TEST(ExplanationsTest, HaveNoOtherCode) {
    EXPECT_EQ(findExplanation(-1198), nullptr);
    EXPECT_EQ(findExplanation(1), nullptr);
}

} // namespace

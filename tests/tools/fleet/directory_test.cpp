#include "fleet/directory.h"

#include <string>

#include <gtest/gtest.h>

namespace {

constexpr const char* document =
    R"({"name":"A1","id":"A1","family":"Gate","device":"Gate 7","interface":"X","type":"100","path":"usb:1-1",)"
    R"("bus":1,"address":2,"connected":true,"since":"2026-11-23T12:00:00.123Z"})";

// With another value of a member.
std::string with(const std::string& member, const std::string& value) {
    std::string text = document;
    const std::size_t begin = text.find("\"" + member + "\":") + member.size() + 3;
    return text.replace(begin, text.find_first_of(",}", begin) - begin, value);
}

class DirectoryTest : public testing::Test {
protected:
    bool add(const std::string& topic, const std::string& payload) {
        return m_directory.add("site/gvusb", "site/gvusb/" + topic, payload);
    }
    const Directory::Reader* reader() const { return m_directory.find("gate", "A1"); }

    Directory m_directory;
};

TEST_F(DirectoryTest, KnowsReadersByMachineAndName) {
    EXPECT_TRUE(add("gate/readers/A1", document));
    ASSERT_NE(reader(), nullptr);
    EXPECT_TRUE(reader()->isConnected);
    EXPECT_EQ(reader()->since, "2026-11-23T12:00:00.123Z");
    const ListedReader& facts = reader()->facts;
    EXPECT_EQ(facts.machine + facts.reader + facts.id, "gateA1A1");
    EXPECT_EQ(facts.family + facts.name + facts.interfaceType + facts.typeNumber.value(), "GateGate 7X100");
    EXPECT_EQ(facts.location.value().path, "usb:1-1");
    EXPECT_EQ(facts.location->bus, 1U);
    EXPECT_EQ(facts.location->address, 2U);
    EXPECT_EQ(m_directory.find("gate", "A2"), nullptr);
    EXPECT_EQ(m_directory.find("desk", "A1"), nullptr);
}

TEST_F(DirectoryTest, KnowsWhichMachinesAreOnline) {
    EXPECT_TRUE(add("gate/status", "online"));
    EXPECT_TRUE(add("desk/status", "offline"));
    EXPECT_TRUE(m_directory.machines().at("gate").isOnline);
    EXPECT_FALSE(m_directory.machines().at("desk").isOnline);
    add("door/readers/A1", document);
    EXPECT_FALSE(m_directory.machines().at("door").isOnline);
}

TEST_F(DirectoryTest, KeepsTheLastDocument) {
    add("gate/readers/A1", document);
    EXPECT_TRUE(add("gate/readers/A1", with("connected", "false")));
    EXPECT_FALSE(reader()->isConnected);
    EXPECT_TRUE(add("gate/readers/A1", ""));
    EXPECT_EQ(reader(), nullptr);
}

TEST_F(DirectoryTest, LeavesOutWhatIsUnknown) {
    add("gate/readers/A1", with("type", "null"));
    EXPECT_FALSE(reader()->facts.typeNumber);
    for (const char* const wrong : {"null", "-1", "1.5", "\"1\"", "4294967296"}) {
        EXPECT_TRUE(add("gate/readers/A1", with("bus", wrong)));
        EXPECT_FALSE(reader()->facts.location) << wrong;
    }
    EXPECT_TRUE(add("gate/readers/A1", with("path", "null")));
    EXPECT_EQ(reader()->facts.location.value().path, "");
    EXPECT_TRUE(add("gate/readers/A1", with("device", "7")));
    EXPECT_EQ(reader()->facts.name, "");
}

TEST_F(DirectoryTest, IgnoresWhatIsNoDocument) {
    for (const std::string& payload :
         {std::string("x"), std::string("[]"), std::string("1"), std::string("{}"), with("connected", "1"),
          std::string(document).substr(1), std::string(100'000, '[')}) {
        EXPECT_FALSE(add("gate/readers/A1", payload)) << payload.substr(0, 20);
    }
    EXPECT_FALSE(add("gate/events", document));
    EXPECT_FALSE(add("gate/readers/A1/transceive", document));
    EXPECT_FALSE(m_directory.add("site/gvusb", "gvusb/gate/readers/A1", document));
    EXPECT_TRUE(m_directory.machines().empty());
}

TEST(DirectoryFilters, AreForOneMachineOrAll) {
    EXPECT_EQ(statusFilter("gvusb", ""), "gvusb/+/status");
    EXPECT_EQ(readersFilter("gvusb", "gate"), "gvusb/gate/readers/+");
    EXPECT_EQ(eventsFilter("a/b", ""), "a/b/+/events");
}

} // namespace

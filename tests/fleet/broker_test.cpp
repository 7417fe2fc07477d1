#include "fleet/broker.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <stdexcept>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using fleet::BrokerAddress;
using fleet::parseBrokerAddress;

struct AddressCase {
    const char* text;
    bool insecure;
    const char* host;
    int port;
    bool tls;
};

// Part of the test's name.
void PrintTo(const AddressCase& address, std::ostream* stream) {
    *stream << address.text << (address.insecure ? " insecure" : "");
}

class AcceptedAddress : public testing::TestWithParam<AddressCase> {};

TEST_P(AcceptedAddress, HasHostPortAndTls) {
    const AddressCase& expected = GetParam();
    const BrokerAddress address = parseBrokerAddress(expected.text, expected.insecure);
    EXPECT_EQ(address.host, expected.host);
    EXPECT_EQ(address.port, expected.port);
    EXPECT_EQ(address.tls, expected.tls);
}

INSTANTIATE_TEST_SUITE_P(BrokerTest, AcceptedAddress,
                         testing::Values(AddressCase{"mqtts://broker.example", false, "broker.example", 8883,
                                                     true},
                                         AddressCase{"mqtts://broker:1", false, "broker", 1, true},
                                         AddressCase{"mqtts://localhost/", false, "localhost", 8883, true},
                                         AddressCase{"broker", false, "broker", 8883, true},
                                         AddressCase{"broker", true, "broker", 1883, false},
                                         AddressCase{"broker:65535", false, "broker", 65535, true},
                                         AddressCase{"localhost", false, "localhost", 1883, false},
                                         AddressCase{"127.0.0.1:2000", false, "127.0.0.1", 2000, false},
                                         AddressCase{"127.9.8.7", false, "127.9.8.7", 1883, false},
                                         AddressCase{"128.0.0.1", false, "128.0.0.1", 8883, true},
                                         AddressCase{"[::1]:7", false, "::1", 7, false},
                                         AddressCase{"[2001:db8::1]", false, "2001:db8::1", 8883, true},
                                         AddressCase{"mqtt://localhost", false, "localhost", 1883, false},
                                         AddressCase{"mqtt://broker", true, "broker", 1883, false}));

TEST(BrokerTest, AnAddressIsWrittenAsHostAndPort) {
    EXPECT_EQ(fleet::hostAndPort(parseBrokerAddress("broker", false)), "broker:8883");
    EXPECT_EQ(fleet::hostAndPort(parseBrokerAddress("[2001:db8::1]:7", false)), "[2001:db8::1]:7");
}

struct RejectedCase {
    const char* text;
    const char* why;
};

void PrintTo(const RejectedCase& address, std::ostream* stream) {
    *stream << address.text;
}

class RejectedAddress : public testing::TestWithParam<RejectedCase> {};

TEST_P(RejectedAddress, SaysWhy) {
    try {
        parseBrokerAddress(GetParam().text, false);
        FAIL() << "accepted";
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(std::string(error.what()),
                  std::string("broker address '") + GetParam().text + "': " + GetParam().why);
    }
}

INSTANTIATE_TEST_SUITE_P(
    BrokerTest, RejectedAddress,
    testing::Values(RejectedCase{"", "the host is missing"}, RejectedCase{"mqtts://", "the host is missing"},
                    RejectedCase{":1883", "the host is missing"},
                    RejectedCase{"http://broker", "the scheme is 'http', not mqtt or mqtts"},
                    RejectedCase{"mqtt://broker",
                                 "a connection without TLS to another machine needs --insecure"},
                    RejectedCase{"broker:0", "'0' is not a port (1 to 65535)"},
                    RejectedCase{"broker:65536", "'65536' is not a port (1 to 65535)"},
                    RejectedCase{"broker:", "'' is not a port (1 to 65535)"},
                    RejectedCase{"broker:1x", "'1x' is not a port (1 to 65535)"},
                    RejectedCase{"::1", "put an IPv6 address into brackets"},
                    RejectedCase{"[::1", "']' is missing"},
                    RejectedCase{"[::1]1", "only ':' and a port may follow ']'"},
                    RejectedCase{"user@broker", "'user@broker' is not a host name"},
                    RejectedCase{"broker/topic", "'broker/topic' is not a host name"}));

TEST(BrokerTest, LoopbackIsNoNameThatOnlyLooksLikeIt) {
    EXPECT_TRUE(fleet::isLoopback("localhost"));
    EXPECT_TRUE(fleet::isLoopback("127.0.0.1"));
    EXPECT_TRUE(fleet::isLoopback("::1"));
    EXPECT_FALSE(fleet::isLoopback("127.0.0.1.example"));
    EXPECT_FALSE(fleet::isLoopback("localhost.example"));
    EXPECT_FALSE(fleet::isLoopback("::2"));
}

class SecretTest : public testing::Test {
protected:
    SecretTest() {
        char name[] = "/tmp/gvusb-secret-XXXXXX";
        m_folder = ::mkdtemp(name);
    }
    ~SecretTest() override {
        ::unsetenv("CREDENTIALS_DIRECTORY");
        std::filesystem::remove_all(m_folder);
    }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(m_folder + '/' + name) << content;
        return m_folder + '/' + name;
    }
    std::string m_folder;
};

TEST_F(SecretTest, IsTheFirstLineOfItsFile) {
    EXPECT_EQ(fleet::readSecret(write("a", "secret word\nmore\n")), "secret word");
    EXPECT_EQ(fleet::readSecret(write("b", "secret\r\n")), "secret");
    EXPECT_EQ(fleet::readSecret(write("c", "no line break")), "no line break");
    EXPECT_EQ(fleet::readSecret(write("d", "")), "");
}

TEST_F(SecretTest, CanBeACredential) {
    write("password", "of systemd\n");
    ::setenv("CREDENTIALS_DIRECTORY", m_folder.c_str(), 1);
    EXPECT_EQ(fleet::readSecret("credential:password"), "of systemd");
}

TEST_F(SecretTest, OfAMissingFileThrows) {
    EXPECT_THROW(fleet::readSecret(m_folder + "/none"), std::runtime_error);
    EXPECT_THROW(fleet::readSecret("credential:password"), std::runtime_error);
}

} // namespace

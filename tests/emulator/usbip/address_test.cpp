#include "usbip/address.h"

#include "model/text.h"

#include <gtest/gtest.h>

namespace emulator {
namespace {

TEST(SocketAddressTest, IsReadAndWritten) {
    for (const char* text : {"127.0.0.1:3240", "0.0.0.0:1", "[::1]:65535", "[::]:0", "[fe80::1]:3240"}) {
        EXPECT_EQ(socketAddressText(parseSocketAddress(text)), text);
    }
}

TEST(SocketAddressTest, MustHaveAnAddressAndAPort) {
    for (const char* text : {"", ":", ":3240", "127.0.0.1", "127.0.0.1:", "127.0.0.1:x", "127.0.0.1:65536",
                             "::1:3240", "[::1]", "[::1:3240", "[]:3240", "localhost:3240", "1.2.3:3240"}) {
        EXPECT_THROW(parseSocketAddress(text), TextError) << text;
    }
}

TEST(SocketAddressTest, KnowsAddressesThatOnlyThisMachineReaches) {
    for (const char* own : {"127.0.0.1:1", "127.255.0.9:1", "[::1]:1", "[::ffff:127.0.0.1]:1"}) {
        EXPECT_TRUE(isLoopback(parseSocketAddress(own))) << own;
    }
    for (const char* other : {"0.0.0.0:1", "128.0.0.1:1", "126.0.0.1:1", "[::]:1", "[::2]:1",
                              "[::127.0.0.1]:1", "[fe80::1]:1", "[::ffff:10.0.0.1]:1"}) {
        EXPECT_FALSE(isLoopback(parseSocketAddress(other))) << other;
    }
}

} // namespace
} // namespace emulator

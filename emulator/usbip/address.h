// Where the USB/IP server listens: an address of this machine and a port, as people write them.
//
// Plain values; any thread may use them.
#pragma once

#include <string>
#include <string_view>

#include <sys/socket.h>

namespace emulator {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t size = 0;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

// The port that USB/IP has from IANA, on this machine only: the protocol has neither passwords nor encryption.
constexpr std::string_view defaultUsbipAddress = "127.0.0.1:3240";

// "127.0.0.1:3240" or "[::1]:3240". Names are not looked up. Throws TextError.
SocketAddress parseSocketAddress(std::string_view text);

std::string socketAddressText(const SocketAddress& address);

} // namespace emulator

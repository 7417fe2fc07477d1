// The address and port of the USB/IP server, to and from text.
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

// The port that IANA has assigned. Only this machine can connect, because USB/IP has no authentication and no
// encryption.
constexpr std::string_view defaultUsbipAddress = "127.0.0.1:3240";

// Parse "127.0.0.1:3240" or "[::1]:3240". Host names are not resolved. Throws TextError.
SocketAddress parseSocketAddress(std::string_view text);

// Whether only this machine can connect.
bool isLoopback(const SocketAddress& address);

std::string socketAddressText(const SocketAddress& address);

} // namespace emulator

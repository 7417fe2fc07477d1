#include "usbip/address.h"

#include "model/text.h"

#include <array>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace emulator {

namespace {

constexpr std::uint64_t highestPort = 65535;

template <typename Address>
SocketAddress stored(const Address& address) {
    SocketAddress result;
    std::memcpy(&result.storage, &address, sizeof address);
    result.size = sizeof address;
    return result;
}

} // namespace

SocketAddress parseSocketAddress(std::string_view text) {
    const auto colon = text.rfind(':');
    const std::string host(text.substr(0, colon));
    if (colon != std::string_view::npos) {
        const auto port =
            htons(static_cast<std::uint16_t>(number("port", text.substr(colon + 1), 0, highestPort)));
        sockaddr_in version4{};
        version4.sin_family = AF_INET;
        version4.sin_port = port;
        if (::inet_pton(AF_INET, host.c_str(), &version4.sin_addr) == 1) {
            return stored(version4);
        }
        sockaddr_in6 version6{};
        version6.sin6_family = AF_INET6;
        version6.sin6_port = port;
        if (host.size() > 2 && host.front() == '[' && host.back() == ']' &&
            ::inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &version6.sin6_addr) == 1) {
            return stored(version6);
        }
    }
    throw TextError("expected ADDRESS:PORT such as 127.0.0.1:3240 or [::1]:3240, not '" + std::string(text) +
                    "'");
}

bool isLoopback(const SocketAddress& address) {
    constexpr std::uint8_t network = 127;
    if (address.storage.ss_family == AF_INET) {
        sockaddr_in version4{};
        std::memcpy(&version4, &address.storage, sizeof version4);
        return ntohl(version4.sin_addr.s_addr) >> 24 == network;
    }
    sockaddr_in6 version6{};
    std::memcpy(&version6, &address.storage, sizeof version6);
    const in6_addr& host = version6.sin6_addr;
    constexpr std::size_t mappedVersion4 = 12; // where it begins
    return IN6_IS_ADDR_LOOPBACK(&host) ||
           (IN6_IS_ADDR_V4MAPPED(&host) && host.s6_addr[mappedVersion4] == network);
}

std::string socketAddressText(const SocketAddress& address) {
    std::array<char, INET6_ADDRSTRLEN> host{};
    if (address.storage.ss_family == AF_INET) {
        sockaddr_in version4{};
        std::memcpy(&version4, &address.storage, sizeof version4);
        ::inet_ntop(AF_INET, &version4.sin_addr, host.data(), host.size());
        return std::string(host.data()) + ":" + std::to_string(ntohs(version4.sin_port));
    }
    sockaddr_in6 version6{};
    std::memcpy(&version6, &address.storage, sizeof version6);
    ::inet_ntop(AF_INET6, &version6.sin6_addr, host.data(), host.size());
    return "[" + std::string(host.data()) + "]:" + std::to_string(ntohs(version6.sin6_port));
}

} // namespace emulator

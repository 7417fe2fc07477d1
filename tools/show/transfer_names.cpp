#include "show/transfer_names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

constexpr std::uint8_t typeMask = 0x60;
constexpr std::uint8_t vendorType = 0x40;
constexpr std::uint8_t recipientMask = 0x1F;

constexpr std::array<std::pair<int, std::string_view>, 28> errorNames = {{
    {EPERM, "EPERM"},
    {ENOENT, "ENOENT"},
    {EINTR, "EINTR"},
    {EIO, "EIO"},
    {ENXIO, "ENXIO"},
    {E2BIG, "E2BIG"},
    {EBADF, "EBADF"},
    {EAGAIN, "EAGAIN"},
    {ENOMEM, "ENOMEM"},
    {EACCES, "EACCES"},
    {EFAULT, "EFAULT"},
    {EBUSY, "EBUSY"},
    {EXDEV, "EXDEV"},
    {ENODEV, "ENODEV"},
    {EINVAL, "EINVAL"},
    {ENOTTY, "ENOTTY"},
    {ENOSPC, "ENOSPC"},
    {EPIPE, "EPIPE"},
    {ENODATA, "ENODATA"},
    {ETIME, "ETIME"},
    {EPROTO, "EPROTO"},
    {EOVERFLOW, "EOVERFLOW"},
    {EILSEQ, "EILSEQ"},
    {ECONNRESET, "ECONNRESET"},
    {ESHUTDOWN, "ESHUTDOWN"},
    {ETIMEDOUT, "ETIMEDOUT"},
    {EHOSTUNREACH, "EHOSTUNREACH"},
    {EREMOTEIO, "EREMOTEIO"},
}};

// The standard requests, by number.
constexpr std::array<std::string_view, 13> requestNames = {"get status",
                                                           "clear feature",
                                                           "",
                                                           "set feature",
                                                           "",
                                                           "set address",
                                                           "get descriptor",
                                                           "set descriptor",
                                                           "get configuration",
                                                           "set configuration",
                                                           "get interface",
                                                           "set interface",
                                                           "synch frame"};

constexpr std::array<std::string_view, 16> descriptorNames = {"",
                                                              "device descriptor",
                                                              "configuration descriptor",
                                                              "string",
                                                              "interface descriptor",
                                                              "endpoint descriptor",
                                                              "device qualifier",
                                                              "other-speed configuration",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "",
                                                              "BOS descriptor"};

unsigned valueOf(const capture::SetupPacket& setup) {
    return setup[2] | unsigned{setup[3]} << 8;
}

unsigned indexOf(const capture::SetupPacket& setup) {
    return setup[4] | unsigned{setup[5]} << 8;
}

std::string hexadecimal(unsigned number) {
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "%02X", number);
    return text.data();
}

std::string standardRequestName(const capture::SetupPacket& setup) {
    constexpr unsigned clearFeature = 1;
    constexpr unsigned setAddress = 5;
    constexpr unsigned getDescriptor = 6;
    constexpr unsigned setConfiguration = 9;
    constexpr unsigned setInterface = 11;
    constexpr unsigned endpointHalt = 0;
    constexpr unsigned endpointRecipient = 2;
    constexpr unsigned stringType = 3;
    const unsigned request = setup[1];
    const std::string name(requestNames[request]);
    switch (request) {
    case getDescriptor: {
        const unsigned type = setup[3];
        if (type == stringType) {
            return setup[2] == 0 ? "languages of strings" : "string " + std::to_string(setup[2]);
        }
        return type < descriptorNames.size() && !descriptorNames[type].empty()
                   ? std::string(descriptorNames[type])
                   : "descriptor of type " + hexadecimal(type);
    }
    case clearFeature:
        return (setup[0] & recipientMask) == endpointRecipient && valueOf(setup) == endpointHalt
                   ? "clear halt of " + hexadecimal(indexOf(setup))
                   : name;
    case setAddress:
    case setConfiguration:
        return name + " " + std::to_string(valueOf(setup));
    case setInterface:
        return name + " " + std::to_string(indexOf(setup)) + ", setting " + std::to_string(valueOf(setup));
    default:
        return name;
    }
}

} // namespace

std::string errorName(std::int64_t number) {
    const std::int64_t positive = number < 0 ? -number : number;
    const auto found =
        std::ranges::find(errorNames, positive, [](const auto& each) { return std::int64_t{each.first}; });
    return found != errorNames.end() ? std::string(found->second) : "error " + std::to_string(positive);
}

std::string requestName(const capture::SetupPacket& setup) {
    if (isStandardRequest(setup) && setup[1] < requestNames.size() && !requestNames[setup[1]].empty()) {
        return standardRequestName(setup);
    }
    const char* const kind = isStandardRequest(setup)              ? "standard request "
                             : (setup[0] & typeMask) == vendorType ? "vendor request "
                                                                   : "class request ";
    return kind + hexadecimal(setup[1]);
}

std::string setupText(const capture::SetupPacket& setup) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%02X %02X %04X %04X %04X", setup[0], setup[1], valueOf(setup),
                  indexOf(setup), setup[6] | unsigned{setup[7]} << 8);
    return text.data();
}

std::string pipeText(capture::TransferType type, std::uint8_t endpoint) {
    constexpr std::array<std::string_view, 4> names = {"isochronous", "interrupt", "control", "bulk"};
    const std::string name(names[static_cast<std::size_t>(type)]);
    return type == capture::TransferType::control ? name : name + " " + hexadecimal(endpoint);
}

bool isStandardRequest(const capture::SetupPacket& setup) {
    return (setup[0] & typeMask) == 0;
}

bool isFrameRequest(const capture::SetupPacket& setup) {
    return (setup[0] & (typeMask | recipientMask)) == vendorType && setup[1] == 0 && valueOf(setup) == 0 &&
           indexOf(setup) == 0;
}

// Exchanging frames.

#include "call_sequences_attempt.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace call_sequences {
namespace {

constexpr std::array<const char*, 6> protocols = {GVUSB_PROTOCOL, GVUSB_PROTOCOL, GVUSB_PROTOCOL,
                                                  "tesk-rci2",    "TESK-RCI",     nullptr};
constexpr std::array<unsigned, 9> sizes = {16, 1, 64, 3, 300, 4096, 4097, 0, 65536};

struct Arguments {
    explicit Arguments(Session& session)
        : devHnd(chooseHandle(session))
        , protocol(session.input.oneOf(protocols))
        , size(session.input.oneOf(sizes)) {}

    int devHnd;
    const char* protocol;
    unsigned size;
};

std::unique_ptr<unsigned char[]> chooseBuffer(Input& input, unsigned size) {
    if (input.number(16) == 15) {
        return nullptr;
    }
    auto buffer = std::make_unique<unsigned char[]>(size);
    std::fill_n(buffer.get(), size, static_cast<unsigned char>(0xA5));
    return buffer;
}

// The code for invalid arguments, 0 if the library looks for the reader.
int argumentError(const Arguments& arguments, bool nullPointer, int zeroSize) {
    if (const int code = invalidHandleCode(arguments.devHnd); code != 0) {
        return code;
    }
    if (nullPointer || arguments.protocol == nullptr) {
        return GVUSB_ERR_NULL_POINTER;
    }
    return zeroSize;
}

// Return whether the frame may have been exchanged.
bool checkResult(Session& session, const Arguments& arguments, int error, int result, int maxReceived) {
    const OpenReader* const reader = session.model.findHandle(arguments.devHnd);
    if (error != 0) {
        expectEqual(result, error, "the result for wrong arguments");
        return false;
    }
    if (reader == nullptr) {
        expectEqual(result, int{GVUSB_ERR_HANDLE_NOT_FOUND}, "the result for an unknown handle");
        return false;
    }
    if (!reader->open) {
        expectEqual(result, int{GVUSB_ERR_NOT_OPENED}, "the result for a closed reader");
        return false;
    }
    if (std::strcmp(arguments.protocol, "TESK-RCI") == 0) {
        expectEqual(result, int{GVUSB_ERR_UNKNOWN_INTERFACE}, "the result for an unknown protocol");
        return false;
    }
    static constexpr std::array codes = {
        int{GVUSB_ERR_NO_CONFIGURATION}, int{GVUSB_ERR_CONFIG_DESCRIPTOR_READ},
        int{GVUSB_ERR_CANNOT_CLAIM},     int{GVUSB_ERR_SEND_LENGTH},
        int{GVUSB_ERR_TIMEOUT},          int{GVUSB_ERR_NOT_PRESENT},
        int{GVUSB_ERR_BULK_TRANSFER},    int{GVUSB_ERR_CONTROL_TRANSFER}};
    expect(result >= 0 || std::ranges::find(codes, result) != codes.end(), "the result is an unknown code");
    expect(result <= maxReceived, "more was received than there is room for");
    const Device* const device = session.bus.find(reader->usbDevice);
    expect(result < 0 || session.mayFail() || device->plugged, "an unplugged reader exchanges frames");
    return true;
}

// The library clears the rest of the buffer, up to 4096 bytes.
void checkRest(const unsigned char* buffer, unsigned size, int received) {
    const unsigned cleared = std::min(size, 4096U);
    for (auto i = static_cast<unsigned>(received); i < cleared; ++i) {
        expect(buffer[i] == 0, "the buffer is not cleared");
    }
}

} // namespace

void transceive(Session& session) {
    const Arguments arguments(session);
    const unsigned length = session.input.oneOf(sizes);
    const auto data = chooseBuffer(session.input, length);
    const auto buffer = chooseBuffer(session.input, arguments.size);
    const auto result = attempt(session, [&] {
        return GVUSB_Transceive(arguments.devHnd, arguments.protocol, 0, data.get(), length, buffer.get(),
                                arguments.size);
    });
    if (!result) {
        return;
    }
    expectLastError(std::min(*result, 0));
    int zeroSize = arguments.size == 0 ? int{GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL} : 0;
    zeroSize = length == 0 ? int{GVUSB_ERR_NO_SEND_DATA} : zeroSize;
    const int error = argumentError(arguments, data == nullptr || buffer == nullptr, zeroSize);
    if (checkResult(session, arguments, error, *result, static_cast<int>(arguments.size)) && *result >= 0) {
        checkRest(buffer.get(), arguments.size, *result);
    }
}

void transmit(Session& session) {
    const Arguments arguments(session);
    const auto data = chooseBuffer(session.input, arguments.size);
    // Such a length is too long for any transfer. Only the log reads the data, up to 4096 bytes.
    const unsigned length =
        session.input.number(8) == 7 && arguments.size >= 4096 ? 0x80000000U : arguments.size;
    const auto result = attempt(
        session, [&] { return GVUSB_Transmit(arguments.devHnd, arguments.protocol, data.get(), length); });
    if (result) {
        expectLastError(*result);
        const int error =
            argumentError(arguments, data == nullptr, length == 0 ? int{GVUSB_ERR_NO_SEND_DATA} : 0);
        checkResult(session, arguments, error, *result, 0);
    }
}

void receive(Session& session) {
    const Arguments arguments(session);
    const auto buffer = chooseBuffer(session.input, arguments.size);
    const auto result = attempt(session, [&] {
        return GVUSB_Receive(arguments.devHnd, arguments.protocol, buffer.get(), arguments.size);
    });
    if (!result) {
        return;
    }
    expectLastError(*result);
    const int error = argumentError(arguments, buffer == nullptr,
                                    arguments.size == 0 ? int{GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL} : 0);
    if (checkResult(session, arguments, error, *result, static_cast<int>(arguments.size)) && *result >= 0) {
        checkRest(buffer.get(), arguments.size, *result);
    }
}

} // namespace call_sequences

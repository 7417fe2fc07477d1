// The messages of USB/IP, protocol version 1.1.1, and their bytes on the wire, every number in network order.
//
// A connection begins with operations, which list or import devices. Once a device is imported, the same connection
// carries URBs: each message has a header of 48 bytes, some of them bytes of a transfer behind it.
// Plain functions on plain values; any thread may call them.
#pragma once

#include "model/description.h"
#include "model/transfer.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace emulator::usbip {

using Input = std::span<const std::uint8_t>;

// ------------------------------------------------------------------------------------------------- operations
constexpr std::uint16_t protocolVersion = 0x0111;
constexpr std::size_t operationSize = 8;
constexpr std::size_t busIdSize = 32;

enum class Operation : std::uint16_t {
    requestImport = 0x8003,
    replyImport = 0x0003,
    requestList = 0x8005,
    replyList = 0x0005,
};

enum class OperationStatus : std::uint32_t { ok = 0, busy = 2, noDevice = 4 };

struct OperationHeader {
    std::uint16_t version = 0;
    std::uint16_t code = 0;
};

// `bytes` has at least operationSize.
OperationHeader readOperation(Input bytes);
void appendOperation(Bytes& bytes, Operation code, OperationStatus status);

// What a request to import names. `bytes` has at least busIdSize.
std::string readBusId(Input bytes);

struct Device {
    std::string busId;
    std::uint32_t bus = 0;
    std::uint32_t number = 0;
    std::uint8_t configuration = 0; // the present one

    // By which the URBs of an imported device name it.
    std::uint32_t id() const { return bus << 16 | number; }
};

// As in the reply to an import; and, with its interfaces, as in a list.
void appendDevice(Bytes& bytes, const Device& device, const ReaderDescription& reader);
void appendInterfaces(Bytes& bytes, const Device& device, const ReaderDescription& reader);

void append32(Bytes& bytes, std::uint32_t value);

// ------------------------------------------------------------------------------------------------------- URBs
constexpr std::size_t headerSize = 48;

enum class Command : std::uint32_t { submit = 1, unlink = 2, submitted = 3, unlinked = 4 };

constexpr std::uint32_t shortNotOk = 0x0001; // of a submit's flags: an answer that is too short is a mistake

struct UrbHeader {
    std::uint32_t command = 0;
    std::uint32_t sequence = 0;
    std::uint32_t device = 0;
    std::uint32_t direction = 0; // 0 to the device, 1 from it
    std::uint32_t endpoint = 0;  // its number, without the direction
};

struct Submit {
    std::uint32_t flags = 0;
    std::int32_t length = 0; // of what goes either way
    std::int32_t packets = 0;
    ControlSetup setup;
};

// `bytes` has at least headerSize.
UrbHeader readUrbHeader(Input bytes);
Submit readSubmit(Input bytes);
std::uint32_t readUnlinked(Input bytes); // the sequence number of the submit that is taken back

// `data` goes behind the header.
void appendSubmitted(Bytes& bytes, std::uint32_t sequence, int status, std::size_t actual, Input data);
void appendUnlinked(Bytes& bytes, std::uint32_t sequence, int status);

} // namespace emulator::usbip

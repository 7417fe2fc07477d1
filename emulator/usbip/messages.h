// The messages of usbip/wire.h, read and written as values in this machine's byte order.
//
// Plain functions on plain values; any thread may call them.
#pragma once

#include "model/description.h"
#include "model/transfer.h"
#include "usbip/wire.h"

#include <span>
#include <string>

namespace emulator::usbip {

using Input = std::span<const std::uint8_t>;

// ---- operations
constexpr std::size_t operationSize = sizeof(usbip_operation);

struct OperationHeader {
    std::uint16_t version = 0;
    std::uint16_t code = 0;
};

// `bytes` has at least operationSize.
OperationHeader readOperation(Input bytes);
void appendOperation(Bytes& bytes, usbip_operation_code code, usbip_operation_status status);

// The bus ID in a request to import. `bytes` has at least usbip_bus_id_size.
std::string readBusId(Input bytes);

struct Device {
    std::string busId;
    std::uint32_t bus = 0;
    std::uint32_t number = 0;
    std::uint8_t configuration = 0; // the active one

    // Identifies an imported device in URBs.
    std::uint32_t id() const { return bus << 16 | number; }
};

// The parts of replies: the count in a list, a device, and the interfaces that follow it in a list.
void appendCount(Bytes& bytes, std::size_t count);
void appendDevice(Bytes& bytes, const Device& device, const ReaderDescription& reader);
void appendInterfaces(Bytes& bytes, const Device& device, const ReaderDescription& reader);

// ---- URBs
constexpr std::size_t headerSize = sizeof(usbip_submit); // of every message

struct UrbHeader {
    std::uint32_t command = 0;
    std::uint32_t sequence = 0;
    std::uint32_t device = 0;
    std::uint32_t direction = 0;
    std::uint32_t endpoint = 0; // without the direction bit
};

struct Submit {
    std::uint32_t flags = 0;
    std::int32_t length = 0; // of the data, in either direction
    std::int32_t packets = 0;
    ControlSetup setup;
};

// `bytes` has at least headerSize.
UrbHeader readUrbHeader(Input bytes);
Submit readSubmit(Input bytes);
std::uint32_t readUnlinked(Input bytes); // the sequence number of the submit to cancel

// `data` follows the header.
void appendSubmitReply(Bytes& bytes, std::uint32_t sequence, int status, std::size_t actual, Input data);
void appendUnlinkReply(Bytes& bytes, std::uint32_t sequence, int status);

} // namespace emulator::usbip

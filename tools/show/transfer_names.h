// Names for what a capture has as numbers: errors, requests and ways of a transfer.
#pragma once

#include "capture/packet.h"

#include <cstdint>
#include <string>

// "EPIPE" for 32 and -32; "error 999" for a number without a known name.
std::string errorName(std::int64_t number);

// Of a control transfer: "device descriptor", "string 3", "set configuration 1".
std::string requestName(const capture::SetupPacket& setup);

// The fields of a setup packet: "80 06 0300 0000 00FF", in the order request type, request, value, index, length.
std::string setupText(const capture::SetupPacket& setup);

// "bulk 81", or "control".
std::string pipeText(capture::TransferType type, std::uint8_t endpoint);

bool isStandardRequest(const capture::SetupPacket& setup);

// The readers' own request, which carries frames.
bool isFrameRequest(const capture::SetupPacket& setup);

// Writes capture files in the pcapng format with usbmon's packets, which Wireshark and tcpdump read.
//
// Each function appends whole blocks to a buffer, so a file that ends after any of them can be read. What the format has
// no packet for (a "remark": openings, claims, arrivals, calls of the library) is a JSON object in a custom option of an
// interface statistics block. Wireshark shows a custom block as a packet of its own, but no statistics.
//
// Any thread.
#pragma once

#include "capture/packet.h"

#include <string_view>

#include <nlohmann/json.hpp>

namespace capture {

using Json = nlohmann::ordered_json;

// Comments of packets that the reader of captures understands.
inline constexpr std::string_view kernelCopyComment = "gvusb: from the kernel's copy, not transferred";
inline constexpr std::string_view redactedComment = "gvusb: data redacted";
inline constexpr std::string_view cutComment = "gvusb: data cut";

// The beginning of a file.
void appendHeader(Bytes& file, std::string_view application);

// Data beyond `mostData` is cut.
void appendPacket(Bytes& file, const Packet& packet, std::string_view comment = {});

// An object with the member "type", which fits 60,000 bytes. Bytes that are not UTF-8 are replaced.
void appendRemark(Bytes& file, Time time, const Json& remark);

} // namespace capture

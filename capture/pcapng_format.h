// Numbers of the pcapng format, and the mark of our options in it.
//
// Any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace capture::pcapng {

inline constexpr std::uint32_t sectionHeader = 0x0A0D0D0A;
inline constexpr std::uint32_t interfaceDescription = 1;
inline constexpr std::uint32_t obsoletePacket = 2;
inline constexpr std::uint32_t simplePacket = 3;
inline constexpr std::uint32_t interfaceStatistics = 5;
inline constexpr std::uint32_t enhancedPacket = 6;

inline constexpr std::uint32_t byteOrderMagic = 0x1A2B3C4D;

inline constexpr std::uint16_t endOption = 0;
inline constexpr std::uint16_t commentOption = 1;
inline constexpr std::uint16_t systemOption = 3;      // of a section
inline constexpr std::uint16_t applicationOption = 4; // of a section
inline constexpr std::uint16_t nameOption = 2;        // of an interface
inline constexpr std::uint16_t resolutionOption = 9;  // of an interface
inline constexpr std::uint16_t customTextOption = 2988;

// The number reserved for examples. The text tells our options from those of others who use it.
inline constexpr std::uint32_t enterpriseNumber = 32473;
inline constexpr std::string_view remarkMark = "gvusb/1 ";

inline constexpr std::uint16_t usbmonLinkType = 220;

} // namespace capture::pcapng

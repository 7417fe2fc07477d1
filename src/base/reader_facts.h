// Facts about the readers that the library shares with the tool, the virtual readers and the benchmarks.
#pragma once

#include <cstdint>

// A device with the vendor ID GVUSB_VENDOR_ID is a reader if its product ID is in this range, both ends included.
inline constexpr std::uint16_t lowestReaderProduct = 1;
inline constexpr std::uint16_t highestReaderProduct = 4;

inline bool isReaderProduct(std::uint16_t product) {
    return product >= lowestReaderProduct && product <= highestReaderProduct;
}

// The string descriptors by which a reader identifies itself.
enum class StringIndex : std::uint8_t {
    deviceId = 1, // in hexadecimal
    familyName = 3,
    deviceName = 5,
    interfaceType = 6,
    typeNumber = 10
};

// In milliseconds, until an application sets another time-out.
inline constexpr std::uint32_t defaultTransferTimeout = 1000;

// The readers of a capture. One that left and came back is one reader, although it is several devices.
#pragma once

#include "capture/capture.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct RecordedReader {
    std::string id;    // the device ID as the library writes it; empty if unknown
    std::string path;  // as in "usb:1-2.3"; empty if unknown
    std::string label; // for output: what tells it from the others, shortest first
    std::string family;
    std::string name;
    unsigned bus = 0;
    unsigned address = 0; // when it was seen first
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::vector<std::size_t> devices; // indices, in the order in which they were seen
    // From when to when it was away; without the end, until the capture ended.
    std::vector<std::pair<capture::Time, std::optional<capture::Time>>> absences;
};

struct RecordedReaders {
    std::vector<RecordedReader> readers;
    std::vector<std::optional<std::size_t>> ofDevice; // the reader that a device is
};

// Of the devices with the vendor ID of the readers, or of all. Throws capture::CaptureError if there is none with it.
RecordedReaders recordedReaders(const capture::Capture& capture, capture::Time begin, bool all);

// Whether a device ID or a USB path names the reader.
bool isNamed(const RecordedReader& reader, const std::string& idOrPath);

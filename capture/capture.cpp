#include "capture/capture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

namespace capture {

namespace {

constexpr std::array<std::pair<EventType, std::string_view>, 20> names = {{
    {EventType::start, "start"},
    {EventType::end, "end"},
    {EventType::came, "came"},
    {EventType::left, "left"},
    {EventType::opened, "open"},
    {EventType::closed, "close"},
    {EventType::claimed, "claim"},
    {EventType::released, "release"},
    {EventType::driverDetached, "detach"},
    {EventType::driverAttached, "attach"},
    {EventType::configurationSet, "set-configuration"},
    {EventType::interfaceSet, "set-interface"},
    {EventType::reset, "reset"},
    {EventType::haltCleared, "clear-halt"},
    {EventType::endpointReset, "reset-endpoint"},
    {EventType::discarded, "discard"},
    {EventType::call, "call"},
    {EventType::lost, "lost"},
    {EventType::limitReached, "limit"},
    {EventType::other, "other"},
}};

Bytes readAll(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

EventType eventType(std::string_view name) {
    const auto found = std::ranges::find(names, name, [](const auto& each) { return each.second; });
    return found == names.end() ? EventType::other : found->first;
}

std::string_view nameOf(EventType type) {
    return std::ranges::find(names, type, [](const auto& each) { return each.first; })->second;
}

Capture readCapture(const std::filesystem::path& path) {
    if (path == "-") {
        const Bytes bytes = readAll(std::cin);
        return readCapture(bytes, "standard input");
    }
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        throw CaptureError(path.string() + ": is a folder, not a capture");
    }
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw CaptureError(path.string() + ": " + std::generic_category().message(errno));
    }
    const Bytes bytes = readAll(stream);
    if (stream.bad()) {
        throw CaptureError(path.string() + ": cannot be read");
    }
    return readCapture(bytes, path.string());
}

std::vector<std::size_t> requireReaders(const Capture& capture, std::uint16_t vendorId) {
    std::vector<std::size_t> readers;
    for (std::size_t i = 0; i < capture.devices.size(); ++i) {
        if (capture.devices[i].vendorId() == vendorId) {
            readers.push_back(i);
        }
    }
    if (readers.empty()) {
        std::array<char, 160> text{};
        std::snprintf(text.data(), text.size(),
                      "no reader in it: none of its %zu devices is known to have the vendor ID %04x",
                      capture.devices.size(), vendorId);
        std::string message = capture.path + ": " + text.data();
        for (const std::string& note : capture.notes) { // which may be the reason
            message += "; " + note;
        }
        throw CaptureError(message);
    }
    return readers;
}

} // namespace capture

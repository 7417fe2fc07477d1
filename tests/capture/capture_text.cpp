// Prints what a capture holds, without times, for tests: capture_text FILE.
#include "capture/capture.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string hexadecimal(const capture::Bytes& bytes) {
    std::string text;
    char digits[4];
    for (const std::uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text.empty() ? "-" : text;
}

std::string placeOf(const capture::Capture& read, std::optional<std::size_t> device) {
    return device ? " " + (read.devices[*device].name.empty() ? "?" : read.devices[*device].name) : "";
}

void print(const capture::Capture& read) {
    for (const capture::Device& device : read.devices) {
        std::printf("device %s %u/%u %04x:%04x%s%s %s\n", device.name.c_str(), device.bus, device.address,
                    device.vendorId(), device.productId(), device.came ? " came" : "",
                    device.left ? " left" : "", device.serial.c_str());
    }
    for (const capture::Transfer& transfer : read.transfers) {
        std::printf("transfer%s type %d endpoint %02x status %d actual %u out %s in %s%s%s%s\n",
                    placeOf(read, transfer.device).c_str(), static_cast<int>(transfer.type),
                    transfer.endpoint, transfer.status, transfer.actual, hexadecimal(transfer.out).c_str(),
                    hexadecimal(transfer.in).c_str(), transfer.redacted ? " redacted" : "",
                    transfer.fromKernelCopy ? " kernel" : "", transfer.refused ? " refused" : "");
    }
    for (const capture::Event& event : read.events) {
        std::printf("event %s%s", std::string(nameOf(event.type)).c_str(),
                    placeOf(read, event.device).c_str());
        if (!event.function.empty()) {
            std::printf(" %s(%s)", event.function.c_str(), event.arguments.c_str());
        }
        if (event.result) {
            std::printf(" = %lld", static_cast<long long>(*event.result));
        }
        std::puts("");
    }
    for (const std::string& note : read.notes) {
        std::printf("note: %s\n", note.c_str());
    }
    std::printf("%zu packets\n", read.packets);
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        return EXIT_FAILURE;
    }
    try {
        print(capture::readCapture(std::filesystem::path(arguments[1])));
    } catch (const capture::CaptureError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
    return EXIT_SUCCESS;
}

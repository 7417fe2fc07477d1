// Checks that a recording and a capture that usbmon made at the same time agree transfer by transfer:
//   compare_captures RECORDING USBMON_CAPTURE
#include "capture/capture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using namespace capture;

// The kernel makes requests such as CLEAR_FEATURE for a program that asked for them in other words.
bool isOfTheKernel(const Transfer& transfer) {
    constexpr std::uint8_t kindMask = 0x60;
    return transfer.fromKernelCopy ||
           (transfer.setup && ((*transfer.setup)[0] & (kindMask | directionIn)) == 0);
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
    std::string text;
    char digits[4];
    for (const std::uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text;
}

std::string described(const Transfer& transfer) {
    char text[160];
    std::snprintf(text, sizeof text, "type %d endpoint %02x of %u bytes, status %d, %u bytes",
                  static_cast<int>(transfer.type), transfer.endpoint, transfer.requested, transfer.status,
                  transfer.actual);
    return text + std::string(transfer.setup ? " setup " + hexadecimal(*transfer.setup) : "") + " out " +
           hexadecimal(transfer.out) + " in " + hexadecimal(transfer.in);
}

// In the order of their submission, of the readers at one address.
std::vector<const Transfer*> transfersOf(const Capture& read, unsigned bus, unsigned address, Time since,
                                         Time until) {
    std::vector<const Transfer*> found;
    for (const Transfer& each : read.transfers) {
        const Device& device = read.devices[each.device];
        if (device.bus == bus && device.address == address && each.submitted && *each.submitted >= since &&
            *each.submitted <= until && !isOfTheKernel(each)) {
            found.push_back(&each);
        }
    }
    return found;
}

// The program submits before the kernel does, and learns of the completion after it. Usbmon counts microseconds.
bool areInOrder(const Transfer& recorded, const Transfer& captured) {
    constexpr std::chrono::microseconds resolution(1);
    return *recorded.submitted <= *captured.submitted + resolution &&
           (!recorded.completed || !captured.completed || *recorded.completed >= *captured.completed);
}

bool agree(const Capture& recording, const Capture& captured, const Device& reader) {
    const Time since = recording.events.front().time;
    const Time until = recording.events.back().time;
    const auto ours = transfersOf(recording, reader.bus, reader.address, since, until);
    const auto theirs = transfersOf(captured, reader.bus, reader.address, since, until);
    bool agree = !ours.empty() && ours.size() == theirs.size();
    for (std::size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i) {
        if (described(*ours[i]) != described(*theirs[i]) || !areInOrder(*ours[i], *theirs[i])) {
            std::printf("transfer %zu\n  recorded: %s\n  usbmon:   %s\n", i, described(*ours[i]).c_str(),
                        described(*theirs[i]).c_str());
            agree = false;
        }
    }
    std::printf("%s: %zu transfers, usbmon %zu\n", reader.name.c_str(), ours.size(), theirs.size());
    return agree;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        return EXIT_FAILURE;
    }
    try {
        const Capture recording = readCapture(std::filesystem::path(arguments[1]));
        const Capture captured = readCapture(std::filesystem::path(arguments[2]));
        bool all = true;
        for (const std::size_t index : requireReaders(recording, GVUSB_VENDOR_ID)) {
            all &= agree(recording, captured, recording.devices[index]);
        }
        return all ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const CaptureError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}

// The input is a capture file of any kind: read it, check that what was read is consistent, and play it.
#include "captures_played.h"
#include "expect.h"

#include "capture/capture.h"

#include <cstdint>
#include <span>

namespace {

using namespace capture;

void checkTransfer(const Capture& read, const Transfer& transfer) {
    fuzz::expect(transfer.device < read.devices.size(), "a transfer has a device");
    fuzz::expect(transfer.submitted || transfer.completed, "a transfer was submitted or completed");
    fuzz::expect(!transfer.submitted || !transfer.completed || transfer.submittedAt < transfer.completedAt,
                 "a transfer is completed after its submission");
    fuzz::expect(transfer.isIn() ? transfer.out.empty() : transfer.in.empty(), "data go one way");
}

void check(const Capture& read, std::size_t size) {
    std::size_t data = 0;
    std::size_t submittedAt = 0;
    for (const Transfer& transfer : read.transfers) {
        checkTransfer(read, transfer);
        data += transfer.in.size() + transfer.out.size();
        if (transfer.submitted) {
            fuzz::expect(transfer.submittedAt >= submittedAt, "transfers are in the order of submission");
            submittedAt = transfer.submittedAt;
        }
    }
    fuzz::expect(data <= size, "no data are made up");
    for (const Event& event : read.events) {
        fuzz::expect(!event.device || *event.device < read.devices.size(), "the device of an event exists");
        fuzz::expect(!event.returned || event.at < event.returnedAt, "a call returns after it began");
        static_cast<void>(nameOf(event.type));
    }
    for (const Device& device : read.devices) {
        static_cast<void>(device.vendorId());
        static_cast<void>(device.isHub());
        for (const auto& each : device.strings) {
            static_cast<void>(stringOf(each.second));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const Capture read = readCapture(std::span(data, size), "input");
        check(read, size);
        requireReaders(read, GVUSB_VENDOR_ID);
        emulator::replay::playCapture(read);
    } catch (const CaptureError& error) {
        fuzz::expect(std::string_view(error.what()).starts_with("input: "), "a mistake names the file");
    }
    return 0;
}

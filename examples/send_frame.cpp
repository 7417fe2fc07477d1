// Scan, open a reader, send a frame to it and print the answer, in C++.
//
// usage: send_frame [FAMILY]     the family of the reader; by default the first reader of any family
#include <gvusb.hpp>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace {

// Two transfers at most, each limited by the reader's time-out.
constexpr std::chrono::milliseconds longest{250};

void print(const std::byte* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        std::printf("%s%02X", i > 0 ? " " : "", std::to_integer<unsigned int>(bytes[i]));
    }
    std::printf("\n");
}

int sendTo(const gvusb::scan_entry& entry) {
    gvusb::reader reader = entry.open(); // closes itself
    reader.set_timeout(longest);
    std::printf("%X %s, type %s\n", reader.id(), reader.name().c_str(), reader.type_number().c_str());

    constexpr std::array<unsigned char, 5> frame{0x02, 0x00, 0x07, 0xFF, 0x01};
    std::array<std::byte, 512> answer{}; // a multiple of the packet size
    std::error_code ec;
    const std::size_t count = reader.transceive(frame, answer, ec);
    if (ec == gvusb::errc::timeout) {
        std::cerr << "The reader does not answer within " << longest.count() << " ms.\n";
        return EXIT_FAILURE;
    }
    if (ec) {
        throw gvusb::error(ec, "sending a frame");
    }
    print(answer.data(), count);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) try {
    const auto entries = gvusb::scan(argc > 1 ? gvusb::by_family(argv[1]) : gvusb::search());
    if (entries.empty()) {
        std::cerr << "There is no such reader on the bus.\n";
        return EXIT_FAILURE;
    }
    return sendTo(entries.front());
} catch (const gvusb::error& error) {
    std::cerr << error.what() << '\n';
    return EXIT_FAILURE;
}

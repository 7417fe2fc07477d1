// An event loop that waits for readers and for other things, in C++: gvusb::event_source has a file descriptor for
// poll(). Here the other thing is standard input, which ends the program.
//
// usage: event_loop
//
// The library must poll the bus (hot-plug mode 1, the default).
#include <gvusb.hpp>

#include <array>
#include <cstdlib>
#include <iostream>

#include <poll.h>
#include <unistd.h>

namespace {

void greet(gvusb::device_id id) {
    gvusb::reader reader = gvusb::open(id);
    const auto answer = reader.transceive(std::string_view("hello"));
    std::cout << "  " << reader.name() << " answers " << answer.size() << " bytes" << std::endl;
}

void handle(const gvusb::event& event) {
    // The library reports a reader only once between two scans, and a disconnect only of readers that the last scan
    // found.
    static_cast<void>(gvusb::scan());
    std::cout << event << std::endl;
    if (event.kind == gvusb::event_kind::connect) {
        try {
            greet(event.id);
        } catch (const gvusb::error& error) {
            // It may be gone again, or in use. That must not end the loop.
            std::cout << "  " << error.what() << std::endl;
        }
    }
}

} // namespace

int main() try {
    gvusb::event_source readers;
    for (const gvusb::scan_entry& entry : gvusb::scan()) {
        std::cout << "present " << entry.name() << std::endl;
    }
    std::array<pollfd, 2> waiting{{{readers.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    while (::poll(waiting.data(), waiting.size(), -1) > 0 && waiting[1].revents == 0) {
        if (waiting[0].revents != 0) {
            handle(readers.read());
        }
    }
    return EXIT_SUCCESS;
} catch (const gvusb::error& error) {
    std::cerr << error.what() << '\n';
    return EXIT_FAILURE;
}

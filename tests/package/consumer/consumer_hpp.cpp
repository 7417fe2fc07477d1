// The same by the C++ interface, in each standard that it supports.
#include <gvusb.hpp>

#include <array>
#include <iostream>

int main() try {
    const std::array<unsigned char, 5> request{0x02, 0x00, 0x07, 0xFF, 0x01};
    gvusb::reader reader = gvusb::open_first();
    const auto answer = reader.transceive(request);
    std::cout << "version " << gvusb::version() << ", mode " << static_cast<int>(gvusb::driver::mode())
              << ", " << answer.size() << " bytes\n";
    return 0;
} catch (const gvusb::error& error) {
    std::cerr << error.what() << '\n';
    return 1;
}

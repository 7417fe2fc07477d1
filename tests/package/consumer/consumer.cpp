// The same in C++: the header's functions must have C linkage.
#include <gvusb.h>

#include <array>
#include <iostream>

int main() {
    const std::array<unsigned char, 5> request{0x02, 0x00, 0x07, 0xFF, 0x01};
    std::array<unsigned char, 256> answer{};
    std::array<char, GVUSB_PARAMETER_SIZE> mode{};
    GVUSB_GetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", mode.data());
    const int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    int count = handle;
    if (handle > 0)
        count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request.data(), request.size(), answer.data(),
                                 answer.size());
    std::cout << "version " << GVUSB_GetDLLVersion() << ", mode " << mode.data() << ", " << count
              << " bytes\n";
    return count > 0 ? 0 : 1;
}

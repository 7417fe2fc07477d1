#include "bare_reader.h"

#include "base/reader_facts.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

namespace {

constexpr unsigned char endpointIn = 0x81;
constexpr unsigned char endpointOut = 0x02;
constexpr std::array identifyingStrings = {StringIndex::deviceId, StringIndex::familyName,
                                           StringIndex::deviceName, StringIndex::interfaceType};

void check(int code, const char* function) {
    if (code < 0) {
        throw std::runtime_error(std::string(function) + " returned " + std::to_string(code));
    }
}

struct Start {
    Start() { check(libusb_init(nullptr), "libusb_init"); }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;
    ~Start() { libusb_exit(nullptr); }
};

// libusb's default context is shared, also with the library.
void startLibUsb() {
    static const Start start;
}

template <class Visit>
void visitDevices(Visit visit) {
    startLibUsb();
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    check(static_cast<int>(count), "libusb_get_device_list");
    for (libusb_device* const device : std::span(list, static_cast<std::size_t>(count))) {
        libusb_device_descriptor descriptor = {};
        libusb_get_device_descriptor(device, &descriptor);
        visit(device, descriptor);
    }
    libusb_free_device_list(list, 1);
}

bool isReader(const libusb_device_descriptor& descriptor) {
    return descriptor.idVendor == GVUSB_VENDOR_ID && isReaderProduct(descriptor.idProduct);
}

void identify(libusb_device* device) {
    libusb_ref_device(device);
    libusb_get_bus_number(device);
    libusb_get_device_address(device);
    libusb_device_handle* handle = nullptr;
    check(libusb_open(device, &handle), "libusb_open");
    for (const StringIndex index : identifyingStrings) {
        std::array<unsigned char, 256> text = {};
        check(libusb_get_string_descriptor_ascii(handle, static_cast<std::uint8_t>(index), text.data(),
                                                 text.size()),
              "libusb_get_string_descriptor_ascii");
    }
    libusb_release_interface(handle, 0);
    libusb_close(handle);
}

} // namespace

void listDevices() {
    visitDevices([](libusb_device*, const libusb_device_descriptor&) {});
}

void zeroFill(unsigned char* buffer, std::size_t size) {
    std::memset(buffer, 0, size);
}

BareReader::BareReader() {
    visitDevices([this](libusb_device* device, const libusb_device_descriptor& descriptor) {
        if (m_handle == nullptr && isReader(descriptor)) {
            check(libusb_open(device, &m_handle), "libusb_open");
        }
    });
    if (m_handle == nullptr) {
        throw std::runtime_error("there is no reader on the bus");
    }
    check(libusb_claim_interface(m_handle, 0), "libusb_claim_interface");
}

BareReader::~BareReader() {
    libusb_release_interface(m_handle, 0);
    libusb_close(m_handle);
}

int BareReader::exchange(unsigned char* data, int length, unsigned char* buffer, int size) {
    int transferred = 0;
    check(libusb_bulk_transfer(m_handle, endpointOut, data, length, &transferred, defaultTransferTimeout),
          "libusb_bulk_transfer");
    check(libusb_bulk_transfer(m_handle, endpointIn, buffer, size, &transferred, defaultTransferTimeout),
          "libusb_bulk_transfer");
    return transferred;
}

BareBus::~BareBus() {
    forget();
}

void BareBus::scan() {
    forget();
    visitDevices([this](libusb_device* device, const libusb_device_descriptor& descriptor) {
        if (isReader(descriptor)) {
            identify(device);
            m_readers.push_back(device);
        }
    });
}

void BareBus::forget() {
    for (libusb_device* const device : m_readers) {
        libusb_unref_device(device);
    }
    m_readers.clear();
}

// GVDevice: one attached reader, with its libusb device, its identity and, while open, its libusb handle.
//
// Every operation on the reader takes the device's own mutex for its whole run, transfers included.
// Construction, destruction, the IsDevice tests and GetUsbDevPtr take none: the manager serialises them with
// its list mutexes. No member calls the manager.
#pragma once

#include "base/mutex.h"
#include "base/relaxed.h"

#include <cstdint>

#include <libusb.h>

struct _GVUSB_SCANSEARCH;

// How frames travel; settled by the first transfer after opening.
enum class TransferMode : std::uint32_t { control = 0, bulk = 1, unknown = 255 };

inline constexpr std::uint8_t noEndpoint = 0xFF;

class GVDevice {
public:
    // Takes a reference to the libusb device for the lifetime of the record.
    GVDevice(int handle, libusb_device* dev);
    // Closes the reader when it is open.
    virtual ~GVDevice();
    GVDevice(const GVDevice&) = delete;
    GVDevice& operator=(const GVDevice&) = delete;

    // Identity.
    bool IsDevice(unsigned char bus, unsigned char address);
    bool IsDevice(_GVUSB_SCANSEARCH* search);
    int IdentifyDevice();
    bool IsPresent();
    const char* GetUsbDevPtr();

    // Opening and closing. A failed OpenDevice may leave the libusb handle open; CloseDevice releases it.
    int OpenDevice();
    int CloseDevice();
    void CloseDev() GVUSB_REQUIRES(mutex);
    int SetConfiguration() GVUSB_REQUIRES(mutex);

    // Bulk endpoints.
    int GetBulkEndPoints() GVUSB_REQUIRES(mutex);
    void ResetBulkEndPoints() GVUSB_REQUIRES(mutex);

    // Transfers: a count of received bytes, 0 for a frame sent, or a negative code.
    int Transmit(const char* interfaceName, const unsigned char* data, unsigned int len);
    int Receive(const char* interfaceName, unsigned char* buf, unsigned int size);
    int Transceive(const char* interfaceName, const unsigned char* data, unsigned int len, unsigned char* buf,
                   unsigned int size);
    int Transmit_Bulk(const unsigned char* data, unsigned int len) GVUSB_REQUIRES(mutex);
    int Transmit_Ctrl(const unsigned char* data, unsigned int len) GVUSB_REQUIRES(mutex);
    int Receive_Bulk(unsigned char* buf, unsigned int size) GVUSB_REQUIRES(mutex);
    int Receive_Ctrl(unsigned char* buf, unsigned int size) GVUSB_REQUIRES(mutex);
    int Transceive_Bulk(const unsigned char* data, unsigned int len, unsigned char* buf, unsigned int size)
        GVUSB_REQUIRES(mutex);
    int Transceive_Ctrl(const unsigned char* data, unsigned int len, unsigned char* buf, unsigned int size)
        GVUSB_REQUIRES(mutex);
    void logBuffer(const char* tag, const char* prefix, const unsigned char* data, unsigned int len);

    // Parameters. value has room for 256 bytes.
    int GetDevicePara(const char* key, char* value);
    int SetDevicePara(const char* key, const char* value);

    // Stores and returns a code, which may be read without the mutex.
    int SetLastError(int code) noexcept {
        relaxed::store(lastError, code);
        return code;
    }

    Mutex mutex;
    libusb_device* const usbdev;
    libusb_device_handle* usbdev_hnd GVUSB_GUARDED_BY(mutex) = nullptr; // null while closed
    std::int32_t openOption = 0;
    bool owner = true; // whether the scan list destroys the record, else the device list; the manager's
    std::int32_t lastError = 0;                           // of the last operation on this reader
    std::uint32_t timeout GVUSB_GUARDED_BY(mutex) = 1000; // milliseconds, for each transfer
    std::uint8_t spareByte = 0xFF;
    const std::uint8_t busNumber;
    const std::uint8_t devAddress;
    std::int32_t devHnd; // the manager's
    // The identity is written once, before the manager puts the record into a list.
    std::uint32_t devId = 0;
    char famName[256] = {};
    char devName[256] = {};
    char intType[256] = {};
    TransferMode transferMode GVUSB_GUARDED_BY(mutex) = TransferMode::unknown;
    std::uint8_t addrIn GVUSB_GUARDED_BY(mutex) = noEndpoint;
    std::uint8_t addrOut GVUSB_GUARDED_BY(mutex) = noEndpoint;
    std::uint32_t updateMark = 0; // 1 when the poll that is running has seen the reader; the manager's

private:
    int IdentificationFailed(const char* text, int usbResult, int code) GVUSB_REQUIRES(mutex);
    void ForgetBulkEndPoints() GVUSB_REQUIRES(mutex);
    int BeginTransfer(const char* tag, bool knownProtocol) GVUSB_REQUIRES(mutex);
    int EndTransfer(const char* tag, int result);
    [[gnu::cold]] void LogSent(const char* tag, const unsigned char* data, unsigned int len);
    [[gnu::cold]] void LogReceived(const char* tag, const unsigned char* data, int count);
};

// Opens a libusb device; the option has no effect.
int g_libusb_open(libusb_device* dev, libusb_device_handle** hnd, int option);

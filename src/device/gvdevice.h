// GVDevice: the record of one attached reader, with its libusb device, its identity and, while open, its libusb handle.
//
// Every operation on the reader holds the record's mutex from start to end, transfers included. Construction,
// destruction, the IsDevice tests and GetUsbDevPtr do not take it. References are counted: a record exists until its last
// user has released it. No member calls the manager.
#pragma once

#include "base/mutex.h"
#include "base/owner.h"
#include "base/reader_facts.h"
#include "base/relaxed.h"
#include "device/endable_transfer.h"

#include <atomic>
#include <cstdint>

#include <libusb.h>

struct _GVUSB_SCANSEARCH;

// How frames are transferred. The first transfer after opening decides.
enum class TransferMode : std::uint32_t { control = 0, bulk = 1, unknown = 255 };

inline constexpr std::uint8_t noEndpoint = 0xFF;

class GVDevice {
public:
    // ---- gvdevice.cpp
    // Holds a reference to the libusb device during its lifetime.
    GVDevice(int handle, libusb_device* dev);
    // Closes the reader if it is open.
    virtual ~GVDevice() noexcept(false);
    GVDevice(const GVDevice&) = delete;
    GVDevice& operator=(const GVDevice&) = delete;
    // Add a reference. A new record has one.
    GVDevice* Retain() noexcept {
        std::atomic_ref(references).fetch_add(1, std::memory_order_relaxed);
        return this;
    }
    // Release a reference. The last one destroys the record.
    static void Release(GVDevice* device) {
        if (std::atomic_ref(device->references).fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete device;
        }
    }

    // ---- identify.cpp
    // Whether the reader has this place on the bus, or matches the search record.
    bool IsDevice(unsigned char bus, unsigned char address);
    bool IsDevice(_GVUSB_SCANSEARCH* search);
    // Open the reader, read its identity and close it again.
    int IdentifyDevice();
    // Whether an open reader still answers. Its last error says why not.
    bool IsPresent();
    // gvdevice.cpp: the address of the libusb device as text, for the log. All records share one buffer.
    const char* GetUsbDevPtr();

    // ---- open.cpp
    // A failed OpenDevice may leave the libusb handle open; CloseDevice releases it.
    int OpenDevice();
    int CloseDevice();
    // Close the reader under the caller's lock, without a log line.
    void CloseDev() GVUSB_REQUIRES(mutex);
    // Set configuration 1 unless it is the reader's first one.
    int SetConfiguration() GVUSB_REQUIRES(mutex);

    // ---- endpoints.cpp
    // Find the bulk endpoints, choose the transfer mode and claim interface 0.
    [[gnu::noinline]] int GetBulkEndPoints() GVUSB_REQUIRES(mutex);
    // Clear the halts of both bulk endpoints.
    [[gnu::noinline]] void ResetBulkEndPoints() GVUSB_REQUIRES(mutex);

    // ---- transfer.cpp, bulk_transfer.cpp, control_transfer.cpp
    // Return the number of received bytes, 0 for a frame that was sent, or a negative code.
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

    // ---- endable_calls.cpp
    // Like the functions without "Endable", with libusb's asynchronous functions. These calls can be ended. `ends` is
    // EndsBefore() when the call began.
    [[gnu::visibility("hidden")]] int TransmitEndable(EndCount ends, const char* interfaceName,
                                                      const unsigned char* data, unsigned int len);
    [[gnu::visibility("hidden")]] int ReceiveEndable(EndCount ends, const char* interfaceName,
                                                     unsigned char* buf, unsigned int size);
    [[gnu::visibility("hidden")]] int TransceiveEndable(EndCount ends, const char* interfaceName,
                                                        const unsigned char* data, unsigned int len,
                                                        unsigned char* buf, unsigned int size);
    [[nodiscard]] EndCount EndsBefore() const noexcept { return m_ends.load(); }
    // End the endable calls that have begun, before the reader is closed. CancelTransfer then ends the wait for the transfer
    // that is under way. Neither takes the record's mutex.
    void BeginClosing() noexcept { m_ends.fetch_add(closedOnce); }
    [[gnu::visibility("hidden")]] void CancelTransfer();
    // End the endable calls that have begun.
    [[gnu::visibility("hidden")]] int Cancel();

    // ---- log_buffer.cpp
    // Log a frame as a hexadecimal dump after a prefix.
    void logBuffer(const char* tag, const char* prefix, const unsigned char* data, unsigned int len);

    // ---- parameters.cpp
    // value has 256 bytes.
    int GetDevicePara(const char* key, char* value);
    int SetDevicePara(const char* key, const char* value);

    // Store and return a code. lastError may be read without the mutex.
    int SetLastError(int code) noexcept {
        relaxed::store(lastError, code);
        return code;
    }

    Mutex mutex;
    libusb_device* const usbdev;
    libusb_device_handle* usbdev_hnd GVUSB_GUARDED_BY(mutex) = nullptr; // null while closed
    // Passed to g_libusb_open, without effect.
    std::int32_t openOption = 0;
    // Whether the scan list destroys the record; otherwise the device list does. Used by the manager.
    bool owner = true;
    std::int32_t lastError = 0; // of the last operation on this reader
    std::uint32_t timeout GVUSB_GUARDED_BY(mutex) = defaultTransferTimeout; // milliseconds, for each transfer
    // Unused.
    std::uint8_t spareByte = 0xFF;
    const std::uint8_t busNumber;
    const std::uint8_t devAddress;
    // Written under the manager's device-list mutex.
    std::int32_t devHnd;
    // The identity is written once, before the manager puts the record into a list.
    std::uint32_t devId = 0;
    char famName[256] = {};
    char devName[256] = {};
    char intType[256] = {};
    TransferMode transferMode GVUSB_GUARDED_BY(mutex) = TransferMode::unknown;
    std::uint8_t addrIn GVUSB_GUARDED_BY(mutex) = noEndpoint;
    std::uint8_t addrOut GVUSB_GUARDED_BY(mutex) = noEndpoint;
    // 1 if the current poll has found the reader on the bus. Used by the manager.
    std::uint32_t updateMark = 0;
    std::int32_t references = 1;
    // The next reader that is being opened or closed. Guarded by the manager's device-list mutex.
    GVDevice* nextChanging = nullptr;

private:
    // endable_calls.cpp
    template <class Exchange, class SynchronousExchange>
    int ExchangeEndable(EndCount ends, const char* tag, const char* interfaceName, Exchange exchange,
                        SynchronousExchange synchronousExchange);
    [[gnu::visibility("hidden"), gnu::cold, gnu::noinline]] EndableTransfer* CreateEndableTransfer()
        GVUSB_REQUIRES(mutex);
    [[gnu::visibility("hidden"), gnu::cold, gnu::noinline]] void AbandonEndableTransfer()
        GVUSB_REQUIRES(mutex);
    [[gnu::visibility("hidden"), gnu::cold, gnu::noinline]] int
    EndEnded(const char* tag, const char* interfaceName, EndCount ends) GVUSB_REQUIRES(mutex);

    // exchange.h
    template <class Usb>
    int TransmitBulk(Usb& usb, const unsigned char* data, unsigned int len) GVUSB_REQUIRES(mutex);
    template <class Usb>
    int ReceiveBulk(Usb& usb, unsigned char* buf, unsigned int size) GVUSB_REQUIRES(mutex);
    template <class Usb>
    int TransceiveBulk(Usb& usb, const unsigned char* data, unsigned int len, unsigned char* buf,
                       unsigned int size) GVUSB_REQUIRES(mutex);
    template <class Usb>
    int TransmitControl(Usb& usb, const unsigned char* data, unsigned int len) GVUSB_REQUIRES(mutex);
    template <class Usb>
    int ReceiveControl(Usb& usb, unsigned char* buf, unsigned int size) GVUSB_REQUIRES(mutex);
    template <class Usb>
    int TransceiveControl(Usb& usb, const unsigned char* data, unsigned int len, unsigned char* buf,
                          unsigned int size) GVUSB_REQUIRES(mutex);

    // bulk_transfer.cpp
    [[gnu::visibility("hidden"), gnu::cold, gnu::noinline]] int BulkTransmitFailed(const char* tag,
                                                                                   int usbResult)
        GVUSB_REQUIRES(mutex);

    // identify.cpp
    int IdentificationFailed(const char* text, int usbResult, int code) GVUSB_REQUIRES(mutex);

    // endpoints.cpp
    void ForgetBulkEndPoints() GVUSB_REQUIRES(mutex);

    // transfer.cpp
    int BeginTransfer(const char* tag, bool knownProtocol) GVUSB_REQUIRES(mutex);
    [[gnu::visibility("hidden"), gnu::noinline]] int TransmitSynchronously(const unsigned char* data,
                                                                           unsigned int len)
        GVUSB_REQUIRES(mutex);
    [[gnu::visibility("hidden"), gnu::noinline]] int ReceiveSynchronously(unsigned char* buf,
                                                                          unsigned int size)
        GVUSB_REQUIRES(mutex);
    [[gnu::visibility("hidden"), gnu::noinline]] int
    TransceiveSynchronously(const unsigned char* data, unsigned int len, unsigned char* buf,
                            unsigned int size) GVUSB_REQUIRES(mutex);
    int EndTransfer(const char* tag, int result);
    [[gnu::visibility("hidden"), gnu::cold, gnu::noinline]] int RefuseClosed(const char* tag);

    // log_buffer.cpp
    [[gnu::cold, gnu::noinline]] void LogSent(const char* tag, const unsigned char* data, unsigned int len);
    [[gnu::cold, gnu::noinline]] void LogReceived(const char* tag, const unsigned char* data, int count);

    std::atomic<EndCount> m_ends = 0;
    // Null until the first endable call. Written under the mutex. A thread with a reference to the record may use it.
    std::atomic<EndableTransfer*> m_endableTransfer = nullptr;
};

using OwnedDevice = Owner<GVDevice, &GVDevice::Release>;

// open.cpp: open a libusb device. The option has no effect.
int g_libusb_open(libusb_device* dev, libusb_device_handle** hnd, int option);

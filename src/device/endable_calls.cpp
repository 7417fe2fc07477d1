// Calls whose wait for a reader can be ended.
#include "device/exchange.h"
#include "device/known_protocol.h"

// EndableTransfer tests whether libusb has this function.
#pragma weak libusb_event_handler_active

namespace {

// libusb refuses to wait for transfers inside of its callbacks, and only its synchronous functions say so. Try a control transfer
// that is longer than libusb permits: it never reaches the reader.
[[gnu::cold, gnu::noinline]] bool isRefused(libusb_device_handle* handle) {
    constexpr std::uint8_t requestType = LIBUSB_ENDPOINT_IN | std::uint8_t{LIBUSB_REQUEST_TYPE_STANDARD} |
                                         std::uint8_t{LIBUSB_RECIPIENT_DEVICE};
    constexpr unsigned int timeout = 1;
    unsigned char data[EndableTransfer::longestControlTransfer + 1];
    return libusb_control_transfer(handle, requestType, LIBUSB_REQUEST_GET_STATUS, 0, 0, data, sizeof data,
                                   timeout) == LIBUSB_ERROR_BUSY;
}

// If no thread handles events, this thread is in no callback.
bool isInLibUsbCallback(libusb_device_handle* handle) {
    return libusb_event_handler_active(nullptr) != 0 && isRefused(handle);
}

} // namespace

// If the call cannot be endable, libusb's synchronous functions make the exchange: in a callback of libusb, too, they return
// the right code.
template <class Exchange, class SynchronousExchange>
int GVDevice::ExchangeEndable(EndCount ends, const char* tag, const char* interfaceName, Exchange exchange,
                              SynchronousExchange synchronousExchange) {
    const MutexLock lock(mutex);
    if (m_ends.load() != ends) {
        return EndEnded(tag, interfaceName, ends);
    }
    if (const int code = BeginTransfer(tag, isKnownProtocol(interfaceName)); code < 0) {
        return code;
    }
    EndableTransfer* transfer = m_endableTransfer.load(std::memory_order_relaxed);
    if (transfer == nullptr) {
        transfer = CreateEndableTransfer();
        if (transfer == nullptr) {
            return EndTransfer(tag, synchronousExchange());
        }
    }
    transfer->begin(usbdev_hnd, timeout, ends);
    if (isInLibUsbCallback(usbdev_hnd)) {
        return EndTransfer(tag, synchronousExchange());
    }
    int result;
    try {
        result = exchange(*transfer);
    } catch (...) {
        AbandonEndableTransfer();
        throw;
    }
    if (result < 0 && isClosedBetween(ends, m_ends.load())) {
        result = GVUSB_ERR_NOT_OPENED;
    }
    return EndTransfer(tag, result);
}

int GVDevice::TransmitEndable(EndCount ends, const char* interfaceName, const unsigned char* data,
                              unsigned int len) {
    return ExchangeEndable(
        ends, "transmit", interfaceName,
        [&](EndableTransfer& usb) GVUSB_REQUIRES(mutex) {
            return transferMode == TransferMode::bulk ? TransmitBulk(usb, data, len)
                                                      : TransmitControl(usb, data, len);
        },
        [&]() GVUSB_REQUIRES(mutex) { return TransmitSynchronously(data, len); });
}

int GVDevice::ReceiveEndable(EndCount ends, const char* interfaceName, unsigned char* buf,
                             unsigned int size) {
    return ExchangeEndable(
        ends, "receive", interfaceName,
        [&](EndableTransfer& usb) GVUSB_REQUIRES(mutex) {
            return transferMode == TransferMode::bulk ? ReceiveBulk(usb, buf, size)
                                                      : ReceiveControl(usb, buf, size);
        },
        [&]() GVUSB_REQUIRES(mutex) { return ReceiveSynchronously(buf, size); });
}

int GVDevice::TransceiveEndable(EndCount ends, const char* interfaceName, const unsigned char* data,
                                unsigned int len, unsigned char* buf, unsigned int size) {
    return ExchangeEndable(
        ends, "transceive", interfaceName,
        [&](EndableTransfer& usb) GVUSB_REQUIRES(mutex) {
            return transferMode == TransferMode::bulk ? TransceiveBulk(usb, data, len, buf, size)
                                                      : TransceiveControl(usb, data, len, buf, size);
        },
        [&]() GVUSB_REQUIRES(mutex) { return TransceiveSynchronously(data, len, buf, size); });
}

EndableTransfer* GVDevice::CreateEndableTransfer() {
    EndableTransfer* const transfer = EndableTransfer::create(m_ends);
    m_endableTransfer.store(transfer);
    return transfer;
}

// The thread was canceled while it waited. libusb still uses the transfer, so it must not be used again or freed.
void GVDevice::AbandonEndableTransfer() {
    if (m_endableTransfer.load()->isPending()) {
        m_endableTransfer.store(nullptr);
    }
}

// The call was ended while it waited for the mutex. The reader may have been opened again since it was closed.
int GVDevice::EndEnded(const char* tag, const char* interfaceName, EndCount ends) {
    if (isClosedBetween(ends, m_ends.load())) {
        return RefuseClosed(tag);
    }
    if (const int code = BeginTransfer(tag, isKnownProtocol(interfaceName)); code < 0) {
        return code;
    }
    return EndTransfer(tag, transferMode == TransferMode::bulk ? GVUSB_ERR_BULK_TRANSFER
                                                               : GVUSB_ERR_CONTROL_TRANSFER);
}

void GVDevice::CancelTransfer() {
    if (EndableTransfer* const transfer = m_endableTransfer.load()) {
        transfer->cancel();
    }
}

// Without a call to end, as on a closed reader, this has no effect. Otherwise the call stores its own code later.
int GVDevice::Cancel() {
    SetLastError(GVUSB_OK);
    m_ends.fetch_add(canceledOnce);
    CancelTransfer();
    return GVUSB_OK;
}

#include "device/endable_transfer.h"

#include <cstring>
#include <new>

// Some implementations of libusb lack this function.
#pragma weak libusb_event_handler_active

namespace {

constexpr std::uint16_t longestControlTransfer = 4096; // libusb's limit

} // namespace

EndableTransfer* EndableTransfer::create(const EndCount& ends) noexcept {
    if (&libusb_event_handler_active == nullptr) {
        return nullptr;
    }
    std::unique_ptr<EndableTransfer> created(new (std::nothrow) EndableTransfer(ends));
    if (created == nullptr) {
        return nullptr;
    }
    return created->allocate() ? created.release() : nullptr;
}

bool EndableTransfer::allocate() noexcept {
    libusb_transfer* const allocated = libusb_alloc_transfer(0);
    if (allocated == nullptr) {
        return false;
    }
    allocated->type = LIBUSB_TRANSFER_TYPE_BULK;
    allocated->callback = &complete;
    allocated->user_data = &m_completed;
    m_transfer = allocated;
    return true;
}

EndableTransfer::~EndableTransfer() {
    libusb_free_transfer(m_transfer);
}

int EndableTransfer::vendorControl(std::uint8_t requestType, unsigned char* data, std::uint16_t length) {
    if (m_controlBuffer == nullptr) {
        m_controlBuffer.reset(
            new (std::nothrow) unsigned char[LIBUSB_CONTROL_SETUP_SIZE + longestControlTransfer]);
    }
    if (m_spent && m_controlBuffer != nullptr) {
        m_spent = !replace();
    }
    // libusb decides about longer transfers.
    if (m_controlBuffer == nullptr || m_spent || length > longestControlTransfer) {
        return libusb_control_transfer(m_transfer->dev_handle, requestType, 0, 0, 0, data, length,
                                       m_transfer->timeout);
    }
    unsigned char* const payload = m_controlBuffer.get() + LIBUSB_CONTROL_SETUP_SIZE;
    const bool in = (requestType & LIBUSB_ENDPOINT_IN) != 0;
    libusb_fill_control_setup(m_controlBuffer.get(), requestType, 0, 0, 0, length);
    if (!in) {
        std::memcpy(payload, data, length);
    }
    m_transfer->type = LIBUSB_TRANSFER_TYPE_CONTROL;
    m_transfer->endpoint = 0;
    m_transfer->buffer = m_controlBuffer.get();
    m_transfer->length = LIBUSB_CONTROL_SETUP_SIZE + length;
    const int result = perform();
    m_transfer->type = LIBUSB_TRANSFER_TYPE_BULK;
    m_spent = result < 0;
    if (in && result > 0) {
        std::memcpy(data, payload, static_cast<std::size_t>(result));
    }
    return result;
}

bool EndableTransfer::replace() noexcept {
    libusb_transfer* const old = m_transfer;
    if (!allocate()) {
        return false;
    }
    m_transfer->dev_handle = old->dev_handle;
    m_transfer->timeout = old->timeout;
    libusb_free_transfer(old);
    return true;
}

// Called by libusb in the thread that handles events. Afterwards the waiting thread may use the transfer again at once.
void EndableTransfer::complete(libusb_transfer* transfer) {
    std::atomic_ref(*static_cast<int*>(transfer->user_data)).store(1, std::memory_order_release);
}

// A thread that ends the call changes the count and then looks at the state. This thread does both in the opposite order, so
// at least one of them cancels the transfer.
int EndableTransfer::perform() {
    libusb_transfer* const transfer = m_transfer;
    std::atomic_ref(m_completed).store(0, std::memory_order_relaxed);
    if (const int code = libusb_submit_transfer(transfer); code < 0) {
        return code;
    }
    m_state.store(State::pending);
    if (isEnded()) {
        cancelOwn();
    }
    const int code = libusb_handle_events_completed(nullptr, &m_completed);
    if (!isCompleted()) {
        keepWaiting(code);
    }
    State pending = State::pending;
    if (!m_state.compare_exchange_strong(pending, State::idle)) {
        awaitCancel();
    }
    return transfer->status == LIBUSB_TRANSFER_COMPLETED ? transfer->actual_length : failed();
}

// The code is that of the last round of event handling. libusb's synchronous functions wait like this.
void EndableTransfer::keepWaiting(int code) {
    do {
        if (code < 0 && code != LIBUSB_ERROR_INTERRUPTED) {
            cancelOwn();
        }
        code = libusb_handle_events_completed(nullptr, &m_completed);
    } while (!isCompleted());
}

void EndableTransfer::cancelOwn() {
    libusb_cancel_transfer(m_transfer);
}

void EndableTransfer::awaitCancel() {
    const MutexLock lock(m_mutex);
}

int EndableTransfer::failed() {
    switch (m_transfer->status) {
    case LIBUSB_TRANSFER_TIMED_OUT:
        return LIBUSB_ERROR_TIMEOUT;
    case LIBUSB_TRANSFER_STALL:
        return LIBUSB_ERROR_PIPE;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return LIBUSB_ERROR_NO_DEVICE;
    case LIBUSB_TRANSFER_OVERFLOW:
        return LIBUSB_ERROR_OVERFLOW;
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_CANCELLED:
        return LIBUSB_ERROR_IO;
    default:
        return LIBUSB_ERROR_OTHER;
    }
}

void EndableTransfer::cancel() {
    const MutexLock lock(m_mutex);
    State pending = State::pending;
    if (m_state.compare_exchange_strong(pending, State::canceling)) {
        libusb_cancel_transfer(m_transfer);
        m_state.store(State::idle);
    }
}

#include "device/endable_transfer.h"

#include <cstring>
#include <new>

// Some implementations of libusb lack this function.
#pragma weak libusb_event_handler_active

EndableTransfer* EndableTransfer::create(const std::atomic<EndCount>& ends) noexcept {
    if (&libusb_event_handler_active == nullptr) {
        return nullptr;
    }
    libusb_transfer* const transfer = libusb_alloc_transfer(0);
    if (transfer == nullptr) {
        return nullptr;
    }
    auto* const created = new (std::nothrow) EndableTransfer(ends);
    if (created == nullptr) {
        libusb_free_transfer(transfer);
        return nullptr;
    }
    transfer->type = LIBUSB_TRANSFER_TYPE_BULK;
    transfer->callback = &complete;
    transfer->user_data = &created->m_completed;
    created->m_transfer = transfer;
    return created;
}

EndableTransfer::~EndableTransfer() {
    libusb_free_transfer(m_transfer);
}

int EndableTransfer::vendorControl(std::uint8_t requestType, unsigned char* data, std::uint16_t length) {
    if (m_controlBuffer == nullptr) {
        m_controlBuffer.reset(
            new (std::nothrow) unsigned char[LIBUSB_CONTROL_SETUP_SIZE + longestControlTransfer]);
    }
    // libusb decides about longer transfers.
    if (m_controlBuffer == nullptr || length > longestControlTransfer) {
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
    m_transfer->actual_length = 0;
    const int result = perform();
    m_transfer->type = LIBUSB_TRANSFER_TYPE_BULK;
    // A failed transfer may have received something, too.
    if (in && m_transfer->actual_length > 0) {
        std::memcpy(data, payload, static_cast<std::size_t>(m_transfer->actual_length));
    }
    return result;
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

// Another thread may cancel the transfer at the same time: libusb has a lock for each.
void EndableTransfer::cancelOwn() {
    libusb_cancel_transfer(m_transfer);
}

void EndableTransfer::awaitCancel() {
    const MutexLock lock(m_mutex);
    m_state.store(State::idle);
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

// While the state is canceling, the call cannot end. It may be a later one than those that this thread is to end.
void EndableTransfer::cancel() {
    const MutexLock lock(m_mutex);
    State state = State::pending;
    if (m_state.compare_exchange_strong(state, State::canceling)) {
        if (isEnded()) {
            libusb_cancel_transfer(m_transfer);
        }
        m_state.store(State::pending);
    }
}

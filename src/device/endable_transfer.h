// A transfer of one reader whose wait another thread can end.
//
// It does what libusb's synchronous functions do, with the same results, by means of the asynchronous ones. The libusb
// transfer and the buffer of control transfers are reused, so a transfer allocates nothing.
#pragma once

#include "base/mutex.h"

#include <atomic>
#include <cstdint>
#include <memory>

#include <libusb.h>

// How often calls on a reader have been ended. It changes before the transfer that is under way is canceled.
using EndCount = std::atomic<std::uint32_t>;

class EndableTransfer {
public:
    // Null if calls cannot be endable: there is no memory, or libusb lacks a function.
    [[gnu::cold]] static EndableTransfer* create(const EndCount& ends) noexcept;
    ~EndableTransfer();
    EndableTransfer(const EndableTransfer&) = delete;
    EndableTransfer& operator=(const EndableTransfer&) = delete;

    // Begin a call; `ends` is the count when it began. One thread at a time.
    void begin(libusb_device_handle* handle, unsigned int timeout, std::uint32_t ends) noexcept {
        m_transfer->dev_handle = handle;
        m_transfer->timeout = timeout;
        m_endsAtBegin = ends;
    }
    [[nodiscard]] bool isEnded() const noexcept { return m_ends.load() != m_endsAtBegin; }
    // Return the number of transferred bytes or libusb's code: LIBUSB_ERROR_IO if the call is ended, as for every canceled
    // transfer.
    int bulk(std::uint8_t endpoint, unsigned char* data, int length) {
        libusb_transfer& transfer = *m_transfer;
        transfer.endpoint = endpoint;
        transfer.buffer = data;
        transfer.length = length;
        return perform();
    }
    [[gnu::noinline]] int vendorControl(std::uint8_t requestType, unsigned char* data, std::uint16_t length);

    // Whether libusb uses the transfer.
    [[nodiscard]] bool isPending() const noexcept { return m_state.load() != State::idle; }

    // Cancel the transfer that is under way, if any. Any thread.
    void cancel();

private:
    explicit EndableTransfer(const EndCount& ends) noexcept
        : m_ends(ends) {}
    static void LIBUSB_CALL complete(libusb_transfer* transfer);
    [[nodiscard]] bool isCompleted() noexcept {
        return std::atomic_ref(m_completed).load(std::memory_order_acquire) != 0;
    }
    bool allocate() noexcept;
    bool replace() noexcept;
    int perform();
    [[gnu::cold, gnu::noinline]] int failed();
    [[gnu::cold, gnu::noinline]] void cancelOwn();
    [[gnu::cold, gnu::noinline]] void awaitCancel();
    [[gnu::cold, gnu::noinline]] void keepWaiting(int code);

    // Other threads cancel the transfer only while it is pending, and hold the mutex meanwhile.
    enum class State : std::uint32_t { idle, pending, canceling };

    const EndCount& m_ends;
    libusb_transfer* m_transfer = nullptr;
    std::uint32_t m_endsAtBegin = 0;
    int m_completed = 0; // libusb reads it too
    std::atomic<State> m_state = State::idle;
    // Whether a control transfer has failed. libusb 1.0.26 reports every later one that uses the same libusb_transfer as
    // canceled, once it has canceled one.
    bool m_spent = false;
    std::unique_ptr<unsigned char[]> m_controlBuffer;
    Mutex m_mutex;
};

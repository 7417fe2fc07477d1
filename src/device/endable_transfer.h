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

// Counts how often the calls on a reader were ended. It changes before the transfer in progress is canceled. A call is ended if
// the count has changed since the call began. A closing changes the upper half.
using EndCount = std::uint64_t;
inline constexpr EndCount canceledOnce = 1;
inline constexpr EndCount closedOnce = EndCount{1} << 32;

inline bool isClosedBetween(EndCount begin, EndCount now) noexcept {
    return now - begin >= closedOnce;
}

class EndableTransfer {
public:
    static constexpr std::uint16_t longestControlTransfer = 4096; // libusb's limit

    // Null if calls cannot be endable: there is no memory, or libusb lacks a function.
    [[gnu::cold]] static EndableTransfer* create(const std::atomic<EndCount>& ends) noexcept;
    ~EndableTransfer();
    EndableTransfer(const EndableTransfer&) = delete;
    EndableTransfer& operator=(const EndableTransfer&) = delete;

    // Begin a call; `ends` is the count when it began. One thread at a time.
    void begin(libusb_device_handle* handle, unsigned int timeout, EndCount ends) noexcept {
        m_transfer->dev_handle = handle;
        m_transfer->timeout = timeout;
        m_endsAtBegin = ends;
    }
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

    // Cancel the transfer in progress, if any and if its call is ended. Any thread.
    void cancel();

private:
    explicit EndableTransfer(const std::atomic<EndCount>& ends) noexcept
        : m_ends(ends) {}
    static void LIBUSB_CALL complete(libusb_transfer* transfer);
    [[nodiscard]] bool isCompleted() noexcept {
        return std::atomic_ref(m_completed).load(std::memory_order_acquire) != 0;
    }
    [[nodiscard]] bool isEnded() const noexcept { return m_ends.load() != m_endsAtBegin; }
    int perform();
    [[gnu::cold, gnu::noinline]] int failed();
    [[gnu::cold, gnu::noinline]] void cancelOwn();
    [[gnu::cold, gnu::noinline]] void awaitCancel();
    [[gnu::cold, gnu::noinline]] void keepWaiting(int code);

    // Another thread makes a pending transfer canceling for as long as it uses it, and holds the mutex meanwhile. Only the
    // thread that waits for the transfer makes it idle.
    enum class State : std::uint32_t { idle, pending, canceling };

    const std::atomic<EndCount>& m_ends;
    libusb_transfer* m_transfer = nullptr;
    EndCount m_endsAtBegin = 0;
    int m_completed = 0; // libusb reads it too
    std::atomic<State> m_state = State::idle;
    std::unique_ptr<unsigned char[]> m_controlBuffer;
    Mutex m_mutex;
};

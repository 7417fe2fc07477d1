// Atomic access to plain values that threads share without a lock: last errors, flags, rates.
//
// No other data is published through such a value, so relaxed memory order is enough.
#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>

namespace relaxed {

template <class T>
T load(const T& value) noexcept {
    static_assert(std::atomic_ref<T>::is_always_lock_free);
    return std::atomic_ref<T>(const_cast<T&>(value)).load(std::memory_order_relaxed);
}

template <class T>
void store(T& value, std::type_identity_t<T> newValue) noexcept {
    static_assert(std::atomic_ref<T>::is_always_lock_free);
    std::atomic_ref<T>(value).store(newValue, std::memory_order_relaxed);
}

// Copy a text to a buffer that threads share. A concurrent reader may see a mix of two texts, but always a
// terminated one, because the buffer's last byte stays zero.
template <std::size_t Size>
void storeText(char (&buffer)[Size], const char* text) noexcept {
    std::size_t i = 0;
    for (; i < Size - 1 && text[i] != '\0'; ++i) {
        store(buffer[i], text[i]);
    }
    store(buffer[i], '\0');
}

} // namespace relaxed

// Owner of an object that a function releases.
#pragma once

#include <utility>

// Like std::unique_ptr, except that the destructor lets exceptions pass. A thread that is canceled inside libusb is unwound
// by an exception, which must reach the guards of the mutexes.
template <class T, void (*releaseObject)(T*)>
class Owner {
public:
    Owner() noexcept = default;
    explicit Owner(T* object) noexcept
        : m_object(object) {}
    Owner(Owner&& other) noexcept
        : m_object(other.release()) {}
    ~Owner() noexcept(false) { reset(); }
    Owner& operator=(Owner&& other) noexcept(false) {
        reset();
        m_object = other.release();
        return *this;
    }

    [[nodiscard]] T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }

    // Give up ownership.
    [[nodiscard]] T* release() noexcept { return std::exchange(m_object, nullptr); }
    // Release the object now.
    void reset() {
        if (T* const object = release()) {
            releaseObject(object);
        }
    }

private:
    T* m_object = nullptr;
};

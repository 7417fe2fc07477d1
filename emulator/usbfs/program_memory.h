// Memory of the program, as umockdev provides it with an ioctl: copied when it is resolved, and written back
// when the ioctl completes.
//
// For umockdev's handler thread only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <umockdev.h>

namespace emulator {

// Owns a reference to such memory.
class ProgramMemory {
public:
    ProgramMemory() = default;
    explicit ProgramMemory(UMockdevIoctlData* data)
        : m_data(data) {}
    ProgramMemory(ProgramMemory&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)) {}
    ProgramMemory& operator=(ProgramMemory&& other) noexcept {
        std::swap(m_data, other.m_data);
        return *this;
    }
    ~ProgramMemory() {
        if (m_data != nullptr) {
            g_object_unref(m_data);
        }
    }

    // The `length` bytes behind the pointer at `offset`; empty if the pointer is invalid.
    static ProgramMemory at(UMockdevIoctlData* pointer, std::size_t offset, std::size_t length) {
        GError* error = nullptr;
        UMockdevIoctlData* data = umockdev_ioctl_data_resolve(pointer, offset, length, &error);
        g_clear_error(&error);
        return ProgramMemory(data);
    }

    explicit operator bool() const { return m_data != nullptr; }
    UMockdevIoctlData* get() const { return m_data; }
    std::uint8_t* bytes() const { return m_data->data; }
    std::size_t size() const { return static_cast<std::size_t>(m_data->data_len); }

    template <typename Record>
    Record as() const {
        Record record;
        std::memset(&record, 0, sizeof record);
        std::memcpy(&record, m_data->data, std::min(sizeof record, size()));
        return record;
    }
    void put(std::size_t offset, const void* bytes, std::size_t length) const {
        umockdev_ioctl_data_update(m_data, offset, static_cast<guint8*>(const_cast<void*>(bytes)),
                                   static_cast<gint>(length));
    }

private:
    UMockdevIoctlData* m_data = nullptr;
};

} // namespace emulator

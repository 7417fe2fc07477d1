// Memory of the program, as umockdev hands it out with an ioctl: read when it is made, written back when the
// ioctl that it belongs to is answered.
//
// Used in umockdev's handler thread only.

#ifndef GVUSB_EMULATOR_PROGRAM_MEMORY_H
#define GVUSB_EMULATOR_PROGRAM_MEMORY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <umockdev.h>

namespace emulator {

// Owns one reference to memory of the program.
class ProgramMemory {
public:
    ProgramMemory() = default;
    explicit ProgramMemory(UMockdevIoctlData* data)
        : data_(data) {}
    ProgramMemory(ProgramMemory&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)) {}
    ProgramMemory& operator=(ProgramMemory&& other) noexcept {
        std::swap(data_, other.data_);
        return *this;
    }
    ~ProgramMemory() {
        if (data_ != nullptr)
            g_object_unref(data_);
    }

    // `length` bytes that the pointer at `offset` leads to; empty where the program's pointer leads nowhere.
    static ProgramMemory at(UMockdevIoctlData* pointer, std::size_t offset, std::size_t length) {
        GError* error = nullptr;
        UMockdevIoctlData* data = umockdev_ioctl_data_resolve(pointer, offset, length, &error);
        g_clear_error(&error);
        return ProgramMemory(data);
    }

    explicit operator bool() const { return data_ != nullptr; }
    UMockdevIoctlData* get() const { return data_; }
    std::uint8_t* bytes() const { return data_->data; }
    std::size_t size() const { return static_cast<std::size_t>(data_->data_len); }

    template <typename Record>
    Record as() const {
        Record record;
        std::memset(&record, 0, sizeof record);
        std::memcpy(&record, data_->data, std::min(sizeof record, size()));
        return record;
    }
    void put(std::size_t offset, const void* bytes, std::size_t length) const {
        umockdev_ioctl_data_update(data_, offset, static_cast<guint8*>(const_cast<void*>(bytes)),
                                   static_cast<gint>(length));
    }

private:
    UMockdevIoctlData* data_ = nullptr;
};

} // namespace emulator

#endif

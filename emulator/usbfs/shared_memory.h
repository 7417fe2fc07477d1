// A record in memory that is shared with programs, which get its descriptor.
//
// The memory never shrinks, so that no program can take it away from the launcher. One thread at a time.
#pragma once

#include "usbfs/file_descriptor.h"

#include <atomic>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>

namespace emulator {

// Access a value that programs access too.
template <typename Value>
std::atomic_ref<Value> shared(Value& value) {
    return std::atomic_ref<Value>(value);
}

template <typename Record>
class SharedMemory {
public:
    // Zeroes. Throws std::system_error.
    explicit SharedMemory(const std::string& name)
        : m_descriptor(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING), name) {
        void* mapped = MAP_FAILED;
        if (::ftruncate(m_descriptor.get(), sizeof(Record)) == 0 &&
            ::fcntl(m_descriptor.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
            mapped =
                ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor.get(), 0);
        }
        if (mapped == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        m_record = static_cast<Record*>(mapped);
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    ~SharedMemory() { ::munmap(m_record, sizeof(Record)); }

    int descriptor() const { return m_descriptor.get(); }
    Record* operator->() const { return m_record; }
    Record& operator*() const { return *m_record; }

private:
    FileDescriptor m_descriptor;
    Record* m_record = nullptr;
};

} // namespace emulator

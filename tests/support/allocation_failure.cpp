#include "allocation_failure.h"

#include <cstdlib>
#include <new>

namespace {

// Initialized at compile time, because operator new runs before any constructor of this file.
constinit thread_local std::size_t counted = 0;
constinit thread_local std::size_t untilFailure = 0; // 0: none planned
constinit thread_local unsigned pauses = 0;
constinit thread_local bool failed = false;

} // namespace

namespace support {

std::size_t allocations() {
    return counted;
}

AllocationFailure::AllocationFailure(std::size_t n) {
    failed = false;
    untilFailure = n;
}

AllocationFailure::~AllocationFailure() {
    untilFailure = 0;
}

bool AllocationFailure::happened() const {
    return failed;
}

AllocationFailure failAllocation(std::size_t n) {
    return AllocationFailure(n);
}

AllocationPause::AllocationPause() {
    ++pauses;
}

AllocationPause::~AllocationPause() {
    --pauses;
}

} // namespace support

#ifndef GVUSB_TEST_KEEPS_SANITIZER_NEW

namespace {

bool shallFail() {
    if (pauses > 0) {
        return false;
    }
    ++counted;
    if (untilFailure == 0 || --untilFailure > 0) {
        return false;
    }
    failed = true;
    return true;
}

void* allocate(std::size_t size) noexcept {
    return shallFail() ? nullptr : std::malloc(size > 0 ? size : 1);
}

void* allocate(std::size_t size, std::align_val_t alignment) noexcept {
    void* memory = nullptr;
    if (shallFail() ||
        posix_memalign(&memory, static_cast<std::size_t>(alignment), size > 0 ? size : 1) != 0) {
        return nullptr;
    }
    return memory;
}

void* orThrow(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void* operator new(std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new[](std::size_t size) {
    return orThrow(allocate(size));
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return orThrow(allocate(size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return orThrow(allocate(size, alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, alignment);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}

#endif

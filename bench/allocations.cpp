#include "allocations.h"

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <malloc.h>

namespace {

std::atomic<std::size_t> allocationCount{0};
std::atomic<std::size_t> bytesInUse{0};

void* counted(void* block) noexcept {
    if (block != nullptr) {
        allocationCount.fetch_add(1, std::memory_order_relaxed);
        bytesInUse.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
    }
    return block;
}

void discounted(void* block) noexcept {
    if (block != nullptr) {
        bytesInUse.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
    }
}

} // namespace

Allocations allocations() noexcept {
    return {.count = allocationCount.load(std::memory_order_relaxed),
            .bytes = bytesInUse.load(std::memory_order_relaxed)};
}

// glibc's own entry points: they work before the first dlsym().
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t number, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    return counted(__libc_malloc(size));
}

void* calloc(std::size_t number, std::size_t size) {
    return counted(__libc_calloc(number, size));
}

void* realloc(void* block, std::size_t size) {
    const std::size_t before = block == nullptr ? 0 : malloc_usable_size(block);
    void* const moved = __libc_realloc(block, size);
    if (moved != nullptr || size == 0) {
        bytesInUse.fetch_sub(before, std::memory_order_relaxed);
    }
    return counted(moved);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return counted(__libc_memalign(alignment, size));
}

void* memalign(std::size_t alignment, std::size_t size) {
    return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = counted(__libc_memalign(alignment, size));
    return *block == nullptr ? ENOMEM : 0;
}

void free(void* block) {
    discounted(block);
    __libc_free(block);
}
}

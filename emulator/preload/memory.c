// Copies between the program's memory and ours as the kernel does: a bad pointer is an error, not a signal.
//
// A system call tries a byte in each page, and the C library's memcpy() then copies: no sanitizer replaces that one.
// process_vm_readv() would do both, but it is slow: it pins the pages, and takes a lock for which the other threads wait.

#include "preload.h"

#include <errno.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { page_size = 4096 }; // or a multiple of it

// Only in a program that valgrind runs.
extern void _vgnU_freeres(void) __attribute__((weak));

// Whether a system call has found no bad pointer. That the system does not allow the call says nothing about the pointer.
static bool accepts(long result) {
    return result >= 0 || errno != EFAULT;
}

// Linux reads the mask before it finds that there is no such process.
static bool can_read(const uint8_t* byte) {
    return accepts(library()->syscall(SYS_sched_setaffinity, -1L, 1UL, byte));
}

// Changes the byte.
static bool can_write(uint8_t* byte) {
    const long result = library()->syscall(SYS_getrandom, byte, 1UL, GRND_INSECURE);
    // Before Linux 5.6, there was no such flag.
    return accepts(result < 0 && errno == EINVAL ? library()->syscall(SYS_getrandom, byte, 1UL, GRND_NONBLOCK)
                                                 : result);
}

// Returns how many bytes can be used, from the first on. `tried` is the page that was tried last, or 0.
static size_t usable_bytes(void* memory, size_t size, bool write, uintptr_t* tried) {
    size_t position = 0;
    while (position < size) {
        uint8_t* const byte = (uint8_t*)memory + position;
        const uintptr_t page = (uintptr_t)byte - (uintptr_t)byte % page_size;
        const bool known = page == *tried && page != 0;
        if (!known && !(write ? can_write(byte) : can_read(byte))) {
            return position;
        }
        *tried = page;
        position += page_size - (uintptr_t)byte % page_size;
    }
    return size;
}

// valgrind knows what this call writes, also to memory that the launcher has changed. Returns how many bytes are copied.
static size_t copy_for_valgrind(void* to, const void* from, size_t size) {
    const struct iovec target = {.iov_base = to, .iov_len = size};
    const struct iovec source = {.iov_base = (void*)from, .iov_len = size};
    if (size == 0) {
        return 0;
    }
    const long moved =
        library()->syscall(SYS_process_vm_readv, (long)getpid(), &target, 1UL, &source, 1UL, 0UL);
    if (moved < 0 && accepts(moved)) {
        library()->memcpy(to, from, size);
        return size;
    }
    return moved < 0 ? 0 : (size_t)moved;
}

// Copies as many bytes as possible. Returns whether these are all.
static bool copy(void* to, const void* from, size_t size, bool to_program, uintptr_t* tried) {
    const int kept = errno;
    size_t copied = 0;
    if (_vgnU_freeres != NULL) {
        copied = copy_for_valgrind(to, from, size);
    } else {
        copied = usable_bytes(to_program ? to : (void*)from, size, to_program, tried);
        library()->memcpy(to, from, copied);
    }
    errno = kept;
    return copied == size;
}

bool copy_from_program(void* to, const void* program, size_t size) {
    uintptr_t tried = 0;
    return copy(to, program, size, false, &tried);
}

bool copy_pieces_to_program(const struct iovec* program, const struct iovec* from, size_t count) {
    uintptr_t tried = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!copy(program[i].iov_base, from[i].iov_base, from[i].iov_len, true, &tried)) {
            return false;
        }
    }
    return true;
}

bool copy_to_program(void* program, const void* from, size_t size) {
    uintptr_t tried = 0;
    return copy(program, from, size, true, &tried);
}

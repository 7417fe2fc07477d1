// Copies between the program's memory and ours as the kernel does: a bad pointer is an error, not a signal.
//
// A system call tries a byte in each page, and the C library's memcpy() then copies: no sanitizer replaces that one.
// process_vm_readv() would do both, but it is slow: it locks the pages, and takes a lock for which the other threads wait.

#include "preload.h"

#include <errno.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { page_size = 4096 }; // or a multiple of it

// Whether a system call has found no bad pointer. That the system does not allow the call says nothing about the pointer.
static bool accepts(long result) {
    return result >= 0 || errno != EFAULT;
}

// There is no such process, but the system looks at the memory first.
static bool can_read(const uint8_t* byte) {
    return accepts(library()->syscall(SYS_sched_setaffinity, -1L, 1UL, byte));
}

// Changes the byte. A tool such as valgrind knows that.
static bool can_write(uint8_t* byte) {
    return accepts(library()->syscall(SYS_getrandom, byte, 1UL, GRND_NONBLOCK));
}

// `tried` is the page that was tried last, or 0.
static bool can_use(void* memory, size_t size, bool write, uintptr_t* tried) {
    const int kept = errno;
    bool usable = true;
    for (size_t position = 0; usable && position < size;) {
        uint8_t* const byte = (uint8_t*)memory + position;
        const uintptr_t page = (uintptr_t)byte - (uintptr_t)byte % page_size;
        usable = (page == *tried && page != 0) || (write ? can_write(byte) : can_read(byte));
        *tried = page;
        position += page_size - (uintptr_t)byte % page_size;
    }
    errno = kept;
    return usable;
}

bool copy_from_program(void* to, const void* program, size_t size) {
    uintptr_t tried = 0;
    if (!can_use((void*)program, size, false, &tried)) {
        return false;
    }
    library()->memcpy(to, program, size);
    return true;
}

bool copy_pieces_to_program(const struct iovec* program, const struct iovec* from, size_t count) {
    uintptr_t tried = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!can_use(program[i].iov_base, from[i].iov_len, true, &tried)) {
            return false;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        library()->memcpy(program[i].iov_base, from[i].iov_base, from[i].iov_len);
    }
    return true;
}

bool copy_to_program(void* program, const void* from, size_t size) {
    const struct iovec own = {.iov_base = (void*)from, .iov_len = size};
    const struct iovec theirs = {.iov_base = program, .iov_len = size};
    return copy_pieces_to_program(&theirs, &own, 1);
}

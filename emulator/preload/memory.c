// Copies between the program's memory and ours as the kernel does: a bad pointer is an error, not a signal.

#include "preload.h"

#include <errno.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

// Reads from the process itself, also to copy to the program: valgrind knows what this call writes, but not what
// process_vm_writev() does. Returns the number of bytes, or -1 if the system does not allow the call.
static ssize_t move(const struct iovec* to, size_t to_count, const struct iovec* from, size_t from_count) {
    const int error = errno;
    const ssize_t moved = syscall(SYS_process_vm_readv, getpid(), to, to_count, from, from_count, 0UL);
    const int failure = errno;
    errno = error;
    if (moved >= 0) {
        return moved;
    }
    return failure == ENOSYS || failure == EPERM ? -1 : 0;
}

bool copy_from_program(void* to, const void* program, size_t size) {
    const struct iovec own = {.iov_base = to, .iov_len = size};
    const struct iovec theirs = {.iov_base = (void*)program, .iov_len = size};
    const ssize_t moved = size == 0 ? 0 : move(&own, 1, &theirs, 1);
    if (moved < 0) {
        memcpy(to, program, size);
        return true;
    }
    return (size_t)moved == size;
}

bool copy_pieces_to_program(const struct iovec* program, const struct iovec* from, size_t count) {
    size_t size = 0;
    for (size_t i = 0; i < count; ++i) {
        size += from[i].iov_len;
    }
    const ssize_t moved = size == 0 ? 0 : move(program, count, from, count);
    for (size_t i = 0; moved < 0 && i < count; ++i) {
        memcpy(program[i].iov_base, from[i].iov_base, from[i].iov_len);
    }
    return moved < 0 || (size_t)moved == size;
}

bool copy_to_program(void* program, const void* from, size_t size) {
    const struct iovec own = {.iov_base = (void*)from, .iov_len = size};
    const struct iovec theirs = {.iov_base = program, .iov_len = size};
    return copy_pieces_to_program(&theirs, &own, 1);
}

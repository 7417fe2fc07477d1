#include "requests.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

// In a program with the thread sanitizer, which does not see what a kernel or the launcher does: everything before a
// request happened before its completion.
extern void __tsan_release(void* address) __attribute__((weak));
extern void __tsan_acquire(void* address) __attribute__((weak));

static void happens_before(struct opening_memory* memory) {
    if (__tsan_release != NULL) {
        __tsan_release(memory);
    }
}
static void happened_before(struct opening_memory* memory) {
    if (__tsan_acquire != NULL) {
        __tsan_acquire(memory);
    }
}

// How often a waiting thread makes sure that the launcher is still there.
enum { look_every_ms = 1000 };

static uint32_t number_of(const struct opening_memory* memory, const struct opening_request* request) {
    return (uint32_t)(request - memory->requests);
}

// ---- places and room

struct opening_request* take_request(struct opening_memory* memory) {
    for (uint32_t word = 0; word < opening_words; ++word) {
        uint64_t used = __atomic_load_n(&memory->used[word], __ATOMIC_RELAXED);
        while (used != UINT64_MAX) {
            const int bit = __builtin_ctzll(~used);
            if (__atomic_compare_exchange_n(&memory->used[word], &used, used | UINT64_C(1) << bit, false,
                                            __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
                struct opening_request* const request = &memory->requests[word * 64 + (uint32_t)bit];
                memset(request, 0, offsetof(struct opening_request, data));
                return request;
            }
        }
    }
    return NULL;
}

static bool in_blocks(uint32_t length) {
    return length > opening_inline_size;
}

static uint32_t blocks_for(uint32_t length) {
    return (length + opening_block_size - 1) / opening_block_size;
}

// A run of free blocks, from `first` on. Returns how many of them are free, at most `count`.
static uint32_t free_run(const struct opening_memory* memory, uint32_t first, uint32_t count) {
    uint32_t run = 0;
    while (run < count) {
        const uint32_t block = first + run;
        const uint64_t used = __atomic_load_n(&memory->used_blocks[block / 64], __ATOMIC_RELAXED);
        if ((used >> block % 64 & 1) != 0) {
            break;
        }
        ++run;
    }
    return run;
}

static void free_blocks(struct opening_memory* memory, uint32_t first, uint32_t count) {
    for (uint32_t block = first; block < first + count; ++block) {
        __atomic_fetch_and(&memory->used_blocks[block / 64], ~(UINT64_C(1) << block % 64), __ATOMIC_RELEASE);
    }
}

// False if another thread has taken one of them meanwhile.
static bool take_blocks(struct opening_memory* memory, uint32_t first, uint32_t count) {
    for (uint32_t block = first; block < first + count; ++block) {
        const uint64_t bit = UINT64_C(1) << block % 64;
        if ((__atomic_fetch_or(&memory->used_blocks[block / 64], bit, __ATOMIC_ACQUIRE) & bit) != 0) {
            free_blocks(memory, first, block - first);
            return false;
        }
    }
    return true;
}

bool take_room(struct opening_memory* memory, struct opening_request* request, uint32_t length) {
    request->length = length;
    if (!in_blocks(length)) {
        request->offset = (uint32_t)((uintptr_t)request->data - (uintptr_t)memory);
        return true;
    }
    const uint32_t count = blocks_for(length);
    for (uint32_t first = 0; first + count <= opening_blocks;) {
        const uint32_t run = free_run(memory, first, count);
        if (run == count && take_blocks(memory, first, count)) {
            request->offset =
                (uint32_t)(offsetof(struct opening_memory, blocks) + (size_t)first * opening_block_size);
            return true;
        }
        first += run < count ? run + 1 : 0; // after a lost race, look at the same place again
    }
    request->length = 0;
    return false;
}

uint8_t* room_of(struct opening_memory* memory, const struct opening_request* request) {
    return (uint8_t*)memory + request->offset;
}

void free_request(struct opening_memory* memory, struct opening_request* request) {
    if (in_blocks(request->length)) {
        const size_t offset = request->offset - offsetof(struct opening_memory, blocks);
        free_blocks(memory, (uint32_t)(offset / opening_block_size), blocks_for(request->length));
    }
    const uint32_t number = number_of(memory, request);
    __atomic_fetch_and(&memory->used[number / 64], ~(UINT64_C(1) << number % 64), __ATOMIC_RELEASE);
}

// ---- calls

static uint64_t nanoseconds_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

void post_request(struct opening_memory* memory, struct opening_request* request) {
    const uint32_t number = number_of(memory, request);
    happens_before(memory);
    request->time = nanoseconds_now();
    request->ticket = __atomic_add_fetch(&memory->last_ticket, 1, __ATOMIC_SEQ_CST);
    __atomic_store_n(&request->state, opening_filled, __ATOMIC_RELEASE);
    __atomic_fetch_or(&memory->filled[number / 64], UINT64_C(1) << number % 64, __ATOMIC_SEQ_CST);
    __atomic_fetch_or(&memory->filled_words, UINT64_C(1) << number / 64, __ATOMIC_SEQ_CST);
    ring_bell(memory);
}

// Returns 0 or an errno. Not a cancellation point, unlike the C library's functions that wait.
static int wait_for_change(uint32_t* word, uint32_t seen, long milliseconds) {
    const struct timespec time = {.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1000000};
    const int kept = errno;
    const int error = syscall(SYS_futex, word, FUTEX_WAIT, seen, &time, NULL, 0) == 0 ? 0 : errno;
    errno = kept;
    return error;
}

static bool launcher_gone(const struct opening_memory* memory) {
    const int kept = errno;
    const bool gone = kill(memory->launcher, 0) != 0 && errno == ESRCH;
    errno = kept;
    return gone;
}

static long milliseconds_now(void) {
    return (long)(nanoseconds_now() / 1000000);
}

int await_request(struct opening_memory* memory, struct opening_request* request, uint32_t timeout_ms,
                  bool interruptible) {
    const long end = timeout_ms != 0 ? milliseconds_now() + timeout_ms : 0;
    while (__atomic_load_n(&request->state, __ATOMIC_ACQUIRE) == opening_filled) {
        long wait = look_every_ms;
        if (timeout_ms != 0) {
            const long left = end - milliseconds_now();
            if (left <= 0) {
                return ETIMEDOUT;
            }
            wait = left < wait ? left : wait;
        }
        const int error = wait_for_change(&request->state, opening_filled, wait);
        if (error == EINTR && interruptible) {
            return EINTR;
        }
        if (error == ETIMEDOUT && launcher_gone(memory)) {
            return ENODEV;
        }
    }
    happened_before(memory);
    return 0;
}

int call_launcher(struct opening_memory* memory, struct opening_request* request) {
    post_request(memory, request);
    const int error = await_request(memory, request, 0, false);
    const int result = error != 0 ? -error : request->result;
    free_request(memory, request);
    return result;
}

int call_with(struct opening_memory* memory, enum opening_operation operation, uint32_t argument,
              uint64_t value) {
    struct opening_request* const request = take_request(memory);
    if (request == NULL) {
        return -ENOMEM;
    }
    request->operation = operation;
    request->argument = argument;
    request->value = value;
    request->process = getpid();
    return call_launcher(memory, request);
}

// ---- completed URBs

static bool ring_is_empty(const struct opening_memory* memory) {
    return __atomic_load_n(&memory->head, __ATOMIC_SEQ_CST) ==
           __atomic_load_n(&memory->tail, __ATOMIC_SEQ_CST);
}

// The library's functions are cancellation points, and a thread that is cancelled between the steps would leave the
// pipe in the wrong state.
static void write_byte(int descriptor) {
    syscall(SYS_write, descriptor, "", 1);
}

static long open_read_end(int descriptor) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
    return syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC, 0);
}

// Without a reader, writing would end the program with SIGPIPE; for the moment this is one.
static void write_byte_after_unplug(int descriptor) {
    const long reading = open_read_end(descriptor);
    if (reading >= 0) {
        write_byte(descriptor);
        syscall(SYS_close, reading);
    }
}

static void take_byte_back(int descriptor) {
    char byte;
    const long reading = open_read_end(descriptor);
    if (reading >= 0) {
        syscall(SYS_read, reading, &byte, 1);
        syscall(SYS_close, reading);
    }
}

static bool change_signal(struct opening_memory* memory, uint32_t from, uint32_t to) {
    return __atomic_compare_exchange_n(&memory->signal, &from, to, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// Called when there is nothing to reap.
static void stop_signal(struct opening_memory* memory, int descriptor) {
    const int kept = errno;
    if (ring_is_empty(memory) && change_signal(memory, opening_ready, opening_filling)) {
        if (__atomic_load_n(&memory->gone, __ATOMIC_SEQ_CST) != 0) {
            write_byte_after_unplug(descriptor);
        } else {
            write_byte(descriptor);
        }
        const bool ring = !change_signal(memory, opening_filling, opening_idle);
        if (ring && !change_signal(memory, opening_wanted, opening_idle)) {
            take_byte_back(descriptor); // the launcher has not waited any longer
        }
        if (ring || !ring_is_empty(memory)) {
            ring_bell(memory);
        }
    }
    errno = kept;
}

struct opening_request* take_completed(struct opening_memory* memory, int descriptor) {
    uint32_t head = __atomic_load_n(&memory->head, __ATOMIC_SEQ_CST);
    uint32_t number = 0;
    do {
        if (head == __atomic_load_n(&memory->tail, __ATOMIC_ACQUIRE)) {
            stop_signal(memory, descriptor); // a URB may have been reaped before it was signalled
            return NULL;
        }
        number = __atomic_load_n(&memory->ring[head % opening_requests], __ATOMIC_RELAXED);
    } while (!__atomic_compare_exchange_n(&memory->head, &head, head + 1, false, __ATOMIC_SEQ_CST,
                                          __ATOMIC_SEQ_CST));
    happened_before(memory);
    stop_signal(memory, descriptor);
    return &memory->requests[number % opening_requests];
}

int await_completion(struct opening_memory* memory, uint32_t seen) {
    __atomic_fetch_add(&memory->waiting, 1, __ATOMIC_SEQ_CST);
    int error = ETIMEDOUT;
    while (error == ETIMEDOUT && !launcher_gone(memory)) {
        error = wait_for_change(&memory->completed, seen, look_every_ms);
    }
    __atomic_fetch_sub(&memory->waiting, 1, __ATOMIC_SEQ_CST);
    return error == EINTR ? EINTR : 0;
}

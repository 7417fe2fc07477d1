// Puts entries into the ring. No system call per entry, unless the ring is full.

#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static struct recording_memory* memory; // null until it is mapped
static int tried;
static int32_t process;
static uint64_t process_number;

// Set while this thread adds an entry: a signal handler that interrupts it must not wait for it.
static __thread bool is_busy __attribute__((tls_model("initial-exec")));
static __thread int32_t thread __attribute__((tls_model("initial-exec")));

static void enter_process(void) {
    process = (int32_t)getpid();
    process_number = __atomic_add_fetch(&memory->processes, 1, __ATOMIC_RELAXED);
    thread = 0;
    is_busy = false;
}

static void enter_child(void) {
    if (memory != NULL) {
        enter_process();
    }
}

static struct recording_memory* map(const char* name) {
    const char* const colon = strrchr(name, ':');
    char path[64];
    if (colon == NULL || (size_t)(colon - name) >= sizeof path) {
        return NULL;
    }
    memcpy(path, name, (size_t)(colon - name));
    path[colon - name] = '\0';
    const int file = next()->open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return NULL;
    }
    struct stat status;
    void* mapped = MAP_FAILED;
    if (next()->fstat(file, &status) == 0 && status.st_size == (off_t)sizeof *memory) {
        mapped = mmap(NULL, sizeof *memory, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    }
    next()->close(file);
    if (mapped == MAP_FAILED) {
        return NULL;
    }
    madvise(mapped, sizeof *memory, MADV_DONTDUMP);
    struct recording_memory* const candidate = mapped;
    if (candidate->magic != RECORDING_MAGIC || candidate->key != strtoull(colon + 1, NULL, 16)) {
        munmap(mapped, sizeof *memory);
        return NULL;
    }
    return candidate;
}

static void attach(void) {
    const char* const name = environ != NULL ? getenv(recording_variable) : NULL;
    int first = 0;
    if (environ == NULL ||
        !__atomic_compare_exchange_n(&tried, &first, 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
        return; // a sanitizer that starts before the C library does
    }
    const int kept = errno;
    struct recording_memory* const mapped = name != NULL ? map(name) : NULL;
    if (mapped != NULL) {
        __atomic_store_n(&memory, mapped, __ATOMIC_RELEASE);
        enter_process();
        pthread_atfork(NULL, NULL, enter_child);
    }
    errno = kept;
}

__attribute__((constructor)) static void attach_at_load(void) {
    if (!__atomic_load_n(&tried, __ATOMIC_RELAXED)) {
        attach();
    }
}

bool is_recording(void) {
    if (!__atomic_load_n(&tried, __ATOMIC_RELAXED)) {
        attach();
    }
    const struct recording_memory* const present = __atomic_load_n(&memory, __ATOMIC_ACQUIRE);
    return present != NULL && !__atomic_load_n(&present->closed, __ATOMIC_RELAXED);
}

bool is_recorded_process(void) {
    return (int32_t)getpid() == process;
}

uint64_t process_bits(void) {
    return process_number << 48;
}

static uint64_t padded(uint64_t size) {
    return (size + recording_alignment - 1) / recording_alignment * recording_alignment;
}

static void lose(void) {
    __atomic_add_fetch(&memory->lost, 1, __ATOMIC_RELAXED);
}

// Waits for the recorder. Returns false if it takes no more, or has exited.
static bool wait_for_room(void) {
    const struct timespec moment = {.tv_nsec = 500000};
    const int error = pthread_mutex_trylock(&memory->recording);
    if (error == EBUSY) {
        syscall(SYS_nanosleep, &moment, NULL); // not a cancellation point
        return is_recording();
    }
    __atomic_store_n(&memory->closed, 1, __ATOMIC_RELAXED);
    if (error == EOWNERDEAD) {
        pthread_mutex_consistent(&memory->recording);
    }
    if (error == 0 || error == EOWNERDEAD) {
        pthread_mutex_unlock(&memory->recording);
    }
    return false;
}

// Lock the ring with room for an entry at one piece. Returns the position, or UINT64_MAX.
static uint64_t lock_with_room(uint64_t size) {
    for (;;) {
        const int error = pthread_mutex_lock(&memory->writing);
        if (error == EOWNERDEAD) {
            pthread_mutex_consistent(&memory->writing); // what it wrote was not counted
        } else if (error != 0) {
            return UINT64_MAX;
        }
        uint64_t written = memory->written;
        const uint64_t left = recording_ring_size - written % recording_ring_size;
        const uint64_t skipped = left < size ? left : 0;
        const uint64_t taken = __atomic_load_n(&memory->taken, __ATOMIC_ACQUIRE);
        if (written + skipped + size - taken <= recording_ring_size) {
            if (skipped != 0) {
                // The smallest rest has room for these two members.
                struct recording_entry* const rest =
                    (struct recording_entry*)(void*)(memory->ring + written % recording_ring_size);
                rest->size = (uint32_t)skipped;
                rest->kind = recording_skip;
                written += skipped;
            }
            return written;
        }
        pthread_mutex_unlock(&memory->writing);
        if (!wait_for_room()) {
            return UINT64_MAX;
        }
    }
}

static void fill_in(struct recording_entry* entry, uint64_t size, size_t data_size) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (thread == 0) {
        thread = (int32_t)syscall(SYS_gettid);
    }
    entry->size = (uint32_t)size;
    entry->time = memory->clock_offset + (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
    entry->process = process;
    entry->thread = thread;
    entry->data_size = (uint32_t)data_size;
}

void record_two(struct recording_entry* entry, const void* data, size_t size, const void* more,
                size_t more_size) {
    if (!is_recording()) {
        return;
    }
    if (is_busy) {
        lose(); // a signal handler
        return;
    }
    const int kept = errno;
    is_busy = true;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    const uint64_t whole = padded(sizeof *entry + size + more_size);
    const uint64_t position = lock_with_room(whole);
    if (position != UINT64_MAX) {
        fill_in(entry, whole, size + more_size);
        unsigned char* const place = memory->ring + position % recording_ring_size;
        memcpy(place, entry, sizeof *entry);
        if (size != 0) {
            memcpy(place + sizeof *entry, data, size);
        }
        if (more_size != 0) {
            memcpy(place + sizeof *entry + size, more, more_size);
        }
        __atomic_store_n(&memory->written, position + whole, __ATOMIC_RELEASE);
        pthread_mutex_unlock(&memory->writing);
    }
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    is_busy = false;
    errno = kept;
}

void record(struct recording_entry* entry, const void* data, size_t size) {
    record_two(entry, data, size < recording_most_data ? size : recording_most_data, NULL, 0);
}

#include "recorder/ring.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>

#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

namespace recorder {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void makeMutex(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
}

std::int64_t nanoseconds(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    constexpr std::int64_t second = 1'000'000'000;
    return now.tv_sec * second + now.tv_nsec;
}

} // namespace

Ring::Ring() {
    m_file = ::memfd_create("gvusb-record", MFD_CLOEXEC);
    if (m_file < 0) {
        fail("memfd_create");
    }
    if (::ftruncate(m_file, sizeof(recording_memory)) != 0) {
        fail("ftruncate");
    }
    void* const mapped =
        ::mmap(nullptr, sizeof(recording_memory), PROT_READ | PROT_WRITE, MAP_SHARED, m_file, 0);
    if (mapped == MAP_FAILED) {
        fail("mmap");
    }
    m_memory = static_cast<recording_memory*>(mapped);
    makeMutex(m_memory->writing);
    makeMutex(m_memory->recording);
    ::pthread_mutex_lock(&m_memory->recording);
    if (::getrandom(&m_memory->key, sizeof m_memory->key, 0) != sizeof m_memory->key) {
        fail("getrandom");
    }
    m_memory->clock_offset = nanoseconds(CLOCK_REALTIME) - nanoseconds(CLOCK_MONOTONIC);
    m_memory->magic = RECORDING_MAGIC;
    std::array<char, 80> name{};
    std::snprintf(name.data(), name.size(), "/proc/%d/fd/%d:%llx", ::getpid(), m_file,
                  static_cast<unsigned long long>(m_memory->key));
    m_name = name.data();
}

Ring::~Ring() {
    close();
    ::pthread_mutex_unlock(&m_memory->recording);
    ::munmap(m_memory, sizeof(recording_memory));
    ::close(m_file);
}

void Ring::take(const Take& take) {
    std::uint64_t taken = m_memory->taken;
    const std::uint64_t written = __atomic_load_n(&m_memory->written, __ATOMIC_ACQUIRE);
    while (taken < written) {
        const unsigned char* const place = m_memory->ring + taken % recording_ring_size;
        const std::uint64_t room = recording_ring_size - taken % recording_ring_size;
        std::uint32_t size = 0;
        std::memcpy(&size, place, sizeof size);
        if (size < recording_alignment || size % recording_alignment != 0 || size > room ||
            size > written - taken) {
            close(); // a program has written over the ring
            return;
        }
        recording_entry entry{};
        std::memcpy(&entry, place, std::min<std::size_t>(sizeof entry, size));
        if (entry.kind != recording_skip) {
            if (size < sizeof entry || entry.data_size > size - sizeof entry) {
                close();
                return;
            }
            take(entry, {place + sizeof entry, entry.data_size});
        }
        taken += size;
        __atomic_store_n(&m_memory->taken, taken, __ATOMIC_RELEASE);
    }
}

void Ring::close() {
    __atomic_store_n(&m_memory->closed, 1U, __ATOMIC_RELAXED);
}

bool Ring::isClosed() const {
    return __atomic_load_n(&m_memory->closed, __ATOMIC_RELAXED) != 0;
}

std::uint64_t Ring::lost() const {
    return __atomic_load_n(&m_memory->lost, __ATOMIC_RELAXED);
}

} // namespace recorder

#include "base/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

int g_GvUsbDebugLevel = 0;
struct timeval g_GvUsbStarttime = {};

namespace {

constexpr int none = -1;

// Where the log goes instead of standard output. The other members are set first.
constinit std::atomic<int> logDescriptor = none;
dev_t logDevice = 0;
ino_t logInode = 0;

// A program may close every descriptor, and then get the same number for another file.
bool isStillLog(int descriptor) {
    struct stat status = {};
    return descriptor == STDERR_FILENO ||
           (fstat(descriptor, &status) == 0 && status.st_dev == logDevice && status.st_ino == logInode);
}

iovec part(const char* text) {
    return {.iov_base = const_cast<char*>(text), .iov_len = std::strlen(text)};
}

// In one call, so that lines of several processes do not mix.
void writeLine(int descriptor, const char* stamp, const char* tag, const char* text) {
    const iovec parts[] = {part(stamp), part(" :: gvusb: ["), part(tag), part("] "), part(text), part("\n")};
    if (isStillLog(descriptor)) {
        // There is nobody to tell about a failure.
        [[maybe_unused]] const ssize_t written = writev(descriptor, parts, std::size(parts));
    }
}

// Open a file without the numbers of the standard streams, which the program may have closed.
int openAppending(const char* path) {
    const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (opened < 0 || opened > STDERR_FILENO) {
        return opened;
    }
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int failure = errno;
    close(opened);
    errno = failure;
    return moved;
}

} // namespace

void openLogFile(const char* path) noexcept {
    closeLogFile();
    if (std::strcmp(path, "stderr") == 0) {
        logDescriptor.store(STDERR_FILENO, std::memory_order_release);
        return;
    }
    const int descriptor = openAppending(path);
    struct stat status = {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        char reason[128];
        std::fprintf(stderr, "gvusb: cannot open the log file %s: %s\n", path,
                     strerror_r(errno, reason, sizeof reason));
        if (descriptor >= 0) {
            close(descriptor);
        }
        return;
    }
    logDevice = status.st_dev;
    logInode = status.st_ino;
    logDescriptor.store(descriptor, std::memory_order_release);
}

void closeLogFile() noexcept {
    const int descriptor = logDescriptor.exchange(none, std::memory_order_relaxed);
    if (descriptor > STDERR_FILENO && isStillLog(descriptor)) {
        close(descriptor);
    }
}

void GVLOG_SetLevel(int level) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    relaxed::store(g_GvUsbStarttime.tv_sec, now.tv_sec);
    relaxed::store(g_GvUsbStarttime.tv_usec, now.tv_usec);
    relaxed::store(g_GvUsbDebugLevel, level);
}

void GVLOG_Msg(const char* tag, const char* text) {
    if (GVLOG_Level() <= 0) {
        return;
    }
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    auto seconds = now.tv_sec - relaxed::load(g_GvUsbStarttime.tv_sec);
    auto microseconds = now.tv_usec - relaxed::load(g_GvUsbStarttime.tv_usec);
    if (microseconds < 0) {
        microseconds += 1000000;
        seconds -= 1;
    }
    if (seconds < 0) { // the clock was set back
        seconds = 0;
        microseconds = 0;
    }
    const auto wholeSeconds = static_cast<unsigned long>(seconds);
    const int fraction = static_cast<int>(microseconds);
    const int descriptor = logDescriptor.load(std::memory_order_acquire);
    if (descriptor == none) {
        std::printf("%2lu.%06d :: gvusb: [%s] %s\n", wholeSeconds, fraction, tag, text);
        return;
    }
    char stamp[40];
    std::snprintf(stamp, sizeof stamp, "%2lu.%06d", wholeSeconds, fraction);
    writeLine(descriptor, stamp, tag, text);
}

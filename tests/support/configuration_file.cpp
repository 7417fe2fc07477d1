#include "configuration_file.h"

#include "allocation_failure.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::string_view configurationPath = "/etc/gavo/gvusb.conf";

enum class Kind { missing, text, unreadable, another };

struct Configuration {
    std::mutex mutex;
    Kind kind = Kind::missing;
    std::string text; // or the path of another file
    int opens = 0;

    Configuration() {
        const char* initial =
            gvusbTestInitialConfiguration != nullptr ? gvusbTestInitialConfiguration() : nullptr;
        if (initial != nullptr) {
            kind = Kind::text;
            text = initial;
        }
    }
};

// Never destroyed: the library may open files during process exit.
Configuration& configuration() {
    static Configuration& instance = *[] {
        const support::AllocationPause pause;
        return new Configuration;
    }();
    return instance;
}

void set(Kind kind, std::string text = {}) {
    const support::AllocationPause pause;
    Configuration& present = configuration();
    const std::lock_guard lock(present.mutex);
    present.kind = kind;
    present.text = std::move(text);
    present.opens = 0;
}

int realOpen(const char* path, int flags, mode_t mode) {
    using Open = int (*)(const char*, int, ...);
    static const Open real = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "open"));
    return real(path, flags, mode);
}

// An anonymous file: reading more than one buffer works as on disk, and a missing close() shows in the
// descriptor count.
int openText(const std::string& text) {
    const int descriptor = memfd_create("gvusb.conf", MFD_CLOEXEC);
    if (descriptor < 0) {
        return -1;
    }
    if (write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(descriptor, 0, SEEK_SET) != 0) {
        close(descriptor);
        errno = EIO;
        return -1;
    }
    return descriptor;
}

int openConfiguration(int flags) {
    const support::AllocationPause pause;
    Configuration& present = configuration();
    const std::lock_guard lock(present.mutex);
    ++present.opens;
    if ((flags & O_ACCMODE) != O_RDONLY) {
        errno = EROFS;
        return -1;
    }
    switch (present.kind) {
    case Kind::text:
        return openText(support::inParallelSuite() ? present.text + "\ngvusb_parallel=1\n" : present.text);
    case Kind::unreadable:
        errno = EACCES;
        return -1;
    case Kind::another:
        return realOpen(present.text.c_str(), flags, 0);
    case Kind::missing:
        break;
    }
    errno = ENOENT;
    return -1;
}

int openAny(const char* path, int flags, va_list arguments) {
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const auto mode = creates ? va_arg(arguments, mode_t) : 0;
    return path == configurationPath ? openConfiguration(flags) : realOpen(path, flags, mode);
}

} // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int descriptor = openAny(path, flags, arguments);
    va_end(arguments);
    return descriptor;
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int descriptor = openAny(path, flags, arguments);
    va_end(arguments);
    return descriptor;
}

namespace support {

bool inParallelSuite() {
    static const bool parallel = std::getenv("GVUSB_TEST_PARALLEL") != nullptr;
    return parallel;
}

void setConfigurationText(std::optional<std::string> text) {
    if (text) {
        set(Kind::text, std::move(*text));
    } else {
        set(Kind::missing);
    }
}

void makeConfigurationUnreadable() {
    set(Kind::unreadable);
}

void setConfigurationPath(std::string path) {
    set(Kind::another, std::move(path));
}

int configurationOpens() {
    Configuration& present = configuration();
    const std::lock_guard lock(present.mutex);
    return present.opens;
}

} // namespace support

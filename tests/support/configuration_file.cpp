#include "configuration_file.h"

#include "allocation_failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::string_view configurationPath = "/etc/gavo/gvusb.conf";

enum class Kind { missing, text, unreadable, directory };

struct Configuration {
    std::mutex mutex;
    Kind kind = Kind::missing;
    std::string text;
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

// Never destroyed: the library may open files while the program ends.
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

std::FILE* realOpen(const char* path, const char* mode) {
    using Fopen = std::FILE* (*)(const char*, const char*);
    static const Fopen real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}

// A file without a name rather than fmemopen: an empty text behaves as an empty file, reads past a buffer's
// size work as they do on disk, and closing is checked by the descriptor count.
std::FILE* openText(const std::string& text, const char* mode) {
    const int descriptor = memfd_create("gvusb.conf", MFD_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    if (write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(descriptor, 0, SEEK_SET) != 0) {
        close(descriptor);
        errno = EIO;
        return nullptr;
    }
    return fdopen(descriptor, mode);
}

std::FILE* openConfiguration(const char* mode) {
    const support::AllocationPause pause;
    Configuration& present = configuration();
    const std::lock_guard lock(present.mutex);
    ++present.opens;
    if (std::strchr(mode, 'r') == nullptr || std::strchr(mode, '+') != nullptr) {
        errno = EROFS;
        return nullptr;
    }
    switch (present.kind) {
    case Kind::text:
        return openText(present.text, mode);
    case Kind::unreadable:
        errno = EACCES;
        return nullptr;
    case Kind::directory:
        return realOpen("/", mode);
    case Kind::missing:
        break;
    }
    errno = ENOENT;
    return nullptr;
}

} // namespace

extern "C" std::FILE* fopen(const char* path, const char* mode) {
    return path == configurationPath ? openConfiguration(mode) : realOpen(path, mode);
}

extern "C" std::FILE* fopen64(const char* path, const char* mode) {
    return fopen(path, mode);
}

namespace support {

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

void makeConfigurationADirectory() {
    set(Kind::directory);
}

int configurationOpens() {
    Configuration& present = configuration();
    const std::lock_guard lock(present.mutex);
    return present.opens;
}

} // namespace support

#include "scratch_folder.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace emulator {

namespace {

namespace fs = std::filesystem;

// In memory if possible: on a disk, plugging and unplugging take ten times as long.
constexpr const char* memoryFolder = "/dev/shm";
constexpr const char* diskFolder = "/tmp";
constexpr std::uint64_t enoughMemory = std::uint64_t{32} << 20;

constexpr const char* prefix = "gvusb-";
constexpr const char* lockName = "lock";

bool isInMemory(const char* folder) {
    struct statfs status {};
    return ::statfs(folder, &status) == 0 && status.f_type == TMPFS_MAGIC &&
           static_cast<std::uint64_t>(status.f_bavail) * static_cast<std::uint64_t>(status.f_bsize) >=
               enoughMemory;
}

// What the lock file of this very folder contains. A copy of the folder is another one.
std::string markOf(const fs::path& folder) {
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::geteuid()) {
        return {};
    }
    return "scratch folder " + std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) +
           " of gvusb-emulate, which removes it with everything in it\n";
}

// Locks a folder's lock file; -1 if it is missing or, unless `wait`, locked by another process.
int lockFolder(const fs::path& folder, int flags, bool wait) {
    const int lock = ::open((folder / lockName).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    if (lock >= 0 && ::flock(lock, wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
        ::close(lock);
        return -1;
    }
    return lock;
}

bool isMarked(const fs::path& folder, int lock) {
    const std::string mark = markOf(folder);
    std::string text(mark.size() + 1, '\0');
    const ssize_t length = ::pread(lock, text.data(), text.size(), 0);
    return !mark.empty() && length == static_cast<ssize_t>(mark.size()) &&
           text.compare(0, mark.size(), mark) == 0;
}

bool abandoned(const fs::path& folder) {
    const int lock = lockFolder(folder, 0, false);
    if (lock < 0) {
        return false;
    }
    const bool marked = isMarked(folder, lock);
    ::close(lock);
    return marked;
}

void removeAbandoned(const char* parent) {
    std::error_code error;
    for (fs::directory_iterator entry(parent, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code ignored;
        if (entry->path().filename().string().starts_with(prefix) && abandoned(entry->path())) {
            fs::remove_all(entry->path(), ignored);
        }
    }
}

} // namespace

ScratchFolder::ScratchFolder() {
    std::vector<const char*> parents;
    if (isInMemory(memoryFolder)) {
        parents.push_back(memoryFolder);
    }
    parents.push_back(diskFolder);
    for (const char* parent : parents) {
        removeAbandoned(parent);
        std::string name = std::string(parent) + "/" + prefix + "XXXXXX";
        if (::mkdtemp(name.data()) != nullptr) {
            m_path = fs::canonical(name); // the preload compares it with paths that the kernel reports
            break;
        }
        if (parent == parents.back()) {
            throw std::system_error(errno, std::generic_category(),
                                    "cannot create a folder in " + std::string(parent));
        }
    }
    // Another launcher may have locked it for a moment, to find that it is not marked yet.
    m_lock = lockFolder(m_path, O_CREAT | O_EXCL, true);
    const std::string mark = markOf(m_path);
    if (m_lock < 0 || ::write(m_lock, mark.data(), mark.size()) != static_cast<ssize_t>(mark.size())) {
        const int failure = errno;
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
        throw std::system_error(failure, std::generic_category(), "cannot write to " + m_path.string());
    }
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
    if (m_lock >= 0) {
        ::close(m_lock);
    }
}

} // namespace emulator

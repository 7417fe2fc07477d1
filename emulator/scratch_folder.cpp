#include "scratch_folder.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace emulator {

namespace {

namespace fs = std::filesystem;

constexpr const char* parentFolder = "/tmp";
constexpr const char* prefix = "gvusb-";
constexpr const char* lockName = "lock";

// Locks a folder's lock file; -1 if it is missing or locked by another process.
int lockFolder(const fs::path& folder, int flags) {
    const int lock = ::open((folder / lockName).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
    if (lock >= 0 && ::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        ::close(lock);
        return -1;
    }
    return lock;
}

bool abandoned(const fs::path& folder) {
    // A folder that is just being created has no lock yet.
    constexpr std::chrono::minutes minimumAge{1};
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != ::geteuid()) {
        return false;
    }
    const auto changed = std::chrono::system_clock::from_time_t(status.st_mtime);
    if (std::chrono::system_clock::now() - changed < minimumAge) {
        return false;
    }
    const int lock = lockFolder(folder, 0);
    if (lock < 0) {
        return false;
    }
    ::close(lock);
    return true;
}

void removeAbandoned() {
    std::error_code error;
    for (fs::directory_iterator entry(parentFolder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (entry->path().filename().string().starts_with(prefix) && abandoned(entry->path())) {
            fs::remove_all(entry->path(), ignored);
        }
    }
}

} // namespace

ScratchFolder::ScratchFolder() {
    removeAbandoned();
    std::string name = std::string(parentFolder) + "/" + prefix + "XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot create a folder in " + std::string(parentFolder));
    }
    m_path = name;
    m_lock = lockFolder(m_path, O_CREAT);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
    if (m_lock >= 0) {
        ::close(m_lock);
    }
}

} // namespace emulator

// A folder in memory, or in /tmp, that is removed with everything in it when its owner is destroyed.
//
// It ignores TMPDIR, because it holds sockets, whose paths have at most 107 characters. One thread at a time.
#pragma once

#include <filesystem>

namespace emulator {

class ScratchFolder {
public:
    // Also removes the folders that killed launchers of this user have left. Throws std::system_error.
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
    int m_lock = -1; // held while the owner exists, so that others leave the folder alone
};

} // namespace emulator

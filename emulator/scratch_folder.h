// A folder in /tmp that is gone, with all that is in it, when its owner ends.
//
// Its path is short whatever TMPDIR says, for sockets live in it and a socket's path has at most 107
// characters. One thread at a time.
#pragma once

#include <filesystem>

namespace emulator {

class ScratchFolder {
public:
    // Throws std::system_error. Takes the opportunity to remove folders that killed launchers of this user
    // left.
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
    int m_lock = -1; // held as long as the owner lives, which is how others know
};

} // namespace emulator

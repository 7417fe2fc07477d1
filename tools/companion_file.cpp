#include "companion_file.h"

namespace fs = std::filesystem;

std::optional<fs::path> companionFile(const std::string& name) {
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& candidate : {folder / name, folder.parent_path() / GVUSB_COMPANION_FOLDER / name}) {
        if (fs::exists(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

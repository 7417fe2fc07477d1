#include "doctor/node_users.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

std::string nameOf(const fs::path& process) {
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return name;
}

// The launcher of virtual readers has their nodes open, too, but uses no reader.
bool isLauncher(const std::string& name) {
    constexpr const char* virtualReaders = "GVUSB_EMULATE_SOCKET"; // set by the launcher for its programs
    return name == "gvusb-emulate" && std::getenv(virtualReaders) != nullptr;
}

// Compares files rather than paths: a container may have another path for the node.
bool isSameFile(const fs::path& descriptor, const struct stat& node) {
    std::error_code error;
    const std::string target = fs::read_symlink(descriptor, error).string();
    // Only what looks like a node is examined: stat() on a file of a dead network file system would hang.
    if (error || target.find("/bus/usb/") == std::string::npos) {
        return false;
    }
    struct stat opened = {};
    return ::stat(descriptor.c_str(), &opened) == 0 && opened.st_dev == node.st_dev &&
           opened.st_ino == node.st_ino;
}

} // namespace

std::vector<NodeUser> findNodeUsers(const std::string& node) {
    std::vector<NodeUser> users;
    struct stat properties = {};
    if (::stat(node.c_str(), &properties) != 0) {
        return users;
    }
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        const std::string text = entry.path().filename().string();
        pid_t process = 0;
        const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), process);
        if (error != std::errc{} || *stop != '\0' || process == ::getpid()) {
            continue;
        }
        std::error_code refused;
        fs::directory_iterator descriptors(entry.path() / "fd", refused);
        for (; !refused && descriptors != fs::directory_iterator(); descriptors.increment(refused)) {
            if (isSameFile(descriptors->path(), properties)) {
                const std::string name = nameOf(entry.path());
                if (!isLauncher(name)) {
                    users.push_back({.process = process, .name = name});
                }
                break;
            }
        }
    }
    return users;
}

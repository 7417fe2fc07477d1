// Which processes have a device node open.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

struct NodeUser {
    pid_t process;
    std::string name;
};

// Without this process, and without those that this user may not look into.
std::vector<NodeUser> findNodeUsers(const std::string& node);

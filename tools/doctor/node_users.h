// The processes that have a device node open.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

struct NodeUser {
    pid_t process;
    std::string name;
};

// Leaves out this process, the launcher of virtual readers, and processes that this user may not inspect.
std::vector<NodeUser> findNodeUsers(const std::string& node);

// Files that the tool needs at run time.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

// The path of a file that belongs to the tool: beside it in a build folder, otherwise in the installation's library
// folder. Nothing if it is in neither.
std::optional<std::filesystem::path> companionFile(const std::string& name);

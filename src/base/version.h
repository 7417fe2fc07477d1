// The version that the library reports.
#pragma once

namespace version {

inline constexpr unsigned int major = 7;
inline constexpr unsigned int minor = 1;
inline constexpr unsigned int patch = 0;

} // namespace version

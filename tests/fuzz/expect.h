// Checks that abort the process when they fail, which the fuzzer reports.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

inline void expect(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "failed: %s\n", what);
        std::abort();
    }
}

inline void expectEmpty(const std::string& text, const char* what) {
    if (!text.empty()) {
        std::fprintf(stderr, "%s:\n%s\n", what, text.c_str());
        std::abort();
    }
}

} // namespace fuzz

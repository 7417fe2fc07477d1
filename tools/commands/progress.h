// A progress line for a long run of exchanges. It is shown only if standard error is a terminal, and
// overwritten in place.
#pragma once

#include <chrono>
#include <cstddef>

class Progress {
public:
    Progress(std::size_t total, bool wanted);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void show(std::size_t done, std::size_t failed);

    // Erase the line, so that other output can take its place.
    void clear();

private:
    std::size_t m_total;
    bool m_wanted;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_next;
};

// How far a long run of exchanges is: one line on standard error that is written over, where that is a
// terminal.
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

    // Takes the line away, so that something else can be printed.
    void clear();

private:
    std::size_t total_;
    bool wanted_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

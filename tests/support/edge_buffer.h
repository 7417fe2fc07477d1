// A buffer of exactly the given size in front of an inaccessible page: a read or write past its end ends the
// test at once, with or without sanitizers. The destructor detects writes before the start.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support {

class EdgeBuffer {
public:
    static constexpr unsigned char filling = 0xA5;

    explicit EdgeBuffer(std::size_t size)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE)))
        , usable_((size / page_ + 1) * page_)
        , size_(size) {
        void* const mapped =
            mmap(nullptr, usable_ + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        memory_ = static_cast<unsigned char*>(mapped);
        if (mprotect(memory_ + usable_, page_, PROT_NONE) != 0) {
            const int cause = errno;
            munmap(memory_, usable_ + page_);
            throw std::system_error(cause, std::generic_category(), "mprotect");
        }
        std::memset(memory_, filling, usable_);
    }

    // The content without trailing bytes.
    explicit EdgeBuffer(std::string_view content)
        : EdgeBuffer(content.size()) {
        std::ranges::copy(content, bytes());
    }

    ~EdgeBuffer() {
        EXPECT_TRUE(std::all_of(memory_, bytes(), [](unsigned char byte) { return byte == filling; }))
            << "written before a buffer of " << size_ << " bytes";
        munmap(memory_, usable_ + page_);
    }
    EdgeBuffer(const EdgeBuffer&) = delete;
    EdgeBuffer& operator=(const EdgeBuffer&) = delete;

    unsigned char* bytes() { return memory_ + usable_ - size_; }
    char* text() { return reinterpret_cast<char*>(bytes()); }
    template <class Record>
    Record* record() {
        return reinterpret_cast<Record*>(bytes());
    }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    std::size_t page_;
    std::size_t usable_;
    std::size_t size_;
    unsigned char* memory_ = nullptr;
};

} // namespace support

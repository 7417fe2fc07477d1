// A buffer with guard bytes on both sides. The destructor detects writes to them. The address sanitizer also
// detects reads.
#pragma once

#include "expect.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GVUSB_FUZZ_POISON
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define GVUSB_FUZZ_POISON
#endif
#ifdef GVUSB_FUZZ_POISON
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace fuzz {

class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t size)
        : m_size(size)
        , m_memory(std::make_unique<unsigned char[]>(guard + size + guard)) {
        std::memset(m_memory.get(), filling, guard + size + guard);
        ASAN_POISON_MEMORY_REGION(m_memory.get(), guard);
        ASAN_POISON_MEMORY_REGION(m_memory.get() + guard + m_size, guard);
    }
    explicit GuardedBuffer(std::string_view content)
        : GuardedBuffer(content.size()) {
        std::ranges::copy(content, text());
    }
    ~GuardedBuffer() {
        ASAN_UNPOISON_MEMORY_REGION(m_memory.get(), guard);
        ASAN_UNPOISON_MEMORY_REGION(m_memory.get() + guard + m_size, guard);
        const auto untouched = [](unsigned char byte) { return byte == filling; };
        expect(std::all_of(m_memory.get(), m_memory.get() + guard, untouched),
               "nothing is written before a buffer");
        const unsigned char* const after = m_memory.get() + guard + m_size;
        expect(std::all_of(after, after + guard, untouched), "nothing is written after a buffer");
    }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    unsigned char* bytes() { return m_memory.get() + guard; }
    char* text() { return reinterpret_cast<char*>(bytes()); }
    [[nodiscard]] const char* text() const { return reinterpret_cast<const char*>(m_memory.get() + guard); }
    [[nodiscard]] std::size_t size() const { return m_size; }

    // The text in the buffer. Fail if it is not terminated.
    std::string_view terminatedText() {
        const std::size_t length = strnlen(text(), m_size);
        expect(length < m_size, "the text in a buffer is terminated");
        return {text(), length};
    }

private:
    static constexpr std::size_t guard = 32;
    static constexpr unsigned char filling = 0xA5;

    std::size_t m_size;
    std::unique_ptr<unsigned char[]> m_memory;
};

// A terminated copy of a text, up to its first zero byte.
class GuardedText {
public:
    explicit GuardedText(std::string_view content)
        : m_buffer(std::string(content.substr(0, content.find('\0'))) + '\0') {}

    [[nodiscard]] const char* text() const { return m_buffer.text(); }

private:
    GuardedBuffer m_buffer;
};

} // namespace fuzz

#include "base/own_process.h"

#include <cstddef>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t markSize = 1; // a page

unsigned char* makeMark() noexcept {
    void* const page = mmap(nullptr, markSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        return nullptr;
    }
    if (madvise(page, markSize, MADV_WIPEONFORK) != 0) {
        munmap(page, markSize);
        return nullptr;
    }
    auto* const mark = static_cast<unsigned char*>(page);
    *mark = 1;
    return mark;
}

} // namespace

OwnProcess::OwnProcess() noexcept
    : m_mark(makeMark())
    , m_id(getpid()) {
}

OwnProcess::~OwnProcess() {
    if (m_mark != nullptr) {
        munmap(m_mark, markSize);
    }
}

bool OwnProcess::isCurrent() const noexcept {
    return getpid() == m_id && (m_mark == nullptr || *m_mark != 0);
}

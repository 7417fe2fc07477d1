// Collects lines, because each output::print() is a system call.
#pragma once

#include "output.h"

#include <cstddef>
#include <string>
#include <string_view>

class BufferedOutput {
public:
    void add(std::string_view text) {
        constexpr std::size_t most = std::size_t{1} << 16;
        m_text += text;
        if (m_text.size() >= most) {
            flush();
        }
    }

    void flush() {
        output::print(m_text);
        m_text.clear();
    }

private:
    std::string m_text;
};

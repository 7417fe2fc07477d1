#include "usbip/output.h"

#include <algorithm>

namespace emulator::usbip {

std::size_t Output::describe(std::span<iovec> pieces, std::size_t most) const {
    std::size_t described = 0;
    std::size_t skipped = m_sent;
    for (const Bytes& piece : m_pieces) {
        const Input bytes = Input(piece).subspan(skipped);
        skipped = 0;
        const std::size_t count = std::min(bytes.size(), most);
        if (count == 0 || described == pieces.size()) {
            break;
        }
        pieces[described++] = {.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = count};
        most -= count;
    }
    return described;
}

void Output::sent(std::size_t count) {
    m_size -= count;
    m_sent += count;
    while (!m_pieces.empty() && m_sent >= m_pieces.front().size()) {
        m_sent -= m_pieces.front().size();
        if (m_pieces.size() == 1 && m_pieces.front().capacity() == pieceSize) {
            m_pieces.front().clear(); // for the next reply
            return;
        }
        m_memory -= m_pieces.front().capacity();
        m_pieces.pop_front();
    }
}

} // namespace emulator::usbip

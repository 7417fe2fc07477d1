// The bytes that a client has not read yet, in pieces, so that long data is moved and not copied.
//
// One thread at a time.
#pragma once

#include "usbip/messages.h"

#include <deque>
#include <span>
#include <utility>

#include <sys/uio.h>

namespace emulator::usbip {

class Output {
public:
    bool empty() const { return m_size == 0; }
    std::size_t size() const { return m_size; }
    std::size_t memory() const { return m_memory; }

    // Append a reply, whose bytes `write` appends to its argument. It has headerSize bytes at most.
    template <typename Write>
    void write(Write write) {
        Bytes& piece = tail();
        const std::size_t before = piece.size();
        write(piece);
        m_size += piece.size() - before;
    }

    void append(Bytes data) {
        const std::size_t size = data.size();
        if (!m_pieces.empty() && size <= room(m_pieces.back())) {
            m_pieces.back().insert(m_pieces.back().end(), data.begin(), data.end());
        } else if (size != 0) {
            if (empty()) {
                clear();
            }
            add(std::move(data));
        }
        m_size += size;
    }

    // The first bytes, or none if there are none.
    Input front() const { return m_size == 0 ? Input() : Input(m_pieces.front()).subspan(m_sent); }

    // Describe at most `most` bytes, from the first, and return in how many of `pieces`.
    std::size_t describe(std::span<iovec> pieces, std::size_t most) const;

    // Remove the first `count` bytes, of which there are as many.
    void sent(std::size_t count);

    void clear() { *this = {}; }

private:
    static constexpr std::size_t pieceSize = 4096;

    static std::size_t room(const Bytes& piece) { return piece.capacity() - piece.size(); }
    void add(Bytes piece) {
        m_memory += piece.capacity();
        m_pieces.push_back(std::move(piece));
    }
    Bytes& tail() {
        if (m_pieces.empty() || room(m_pieces.back()) < headerSize) {
            Bytes piece;
            piece.reserve(pieceSize);
            add(std::move(piece));
        }
        return m_pieces.back();
    }

    std::deque<Bytes> m_pieces;
    std::size_t m_sent = 0; // of the first piece
    std::size_t m_size = 0;
    std::size_t m_memory = 0;
};

} // namespace emulator::usbip

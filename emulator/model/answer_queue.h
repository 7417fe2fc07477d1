// The answers of a reader that the host has not read yet, oldest first.
//
// An answer that exceeds the limit is lost, so that a client that only sends cannot exhaust the emulator's
// memory. One thread at a time.
#pragma once

#include "model/transfer.h"

#include <cstddef>
#include <deque>
#include <utility>

namespace emulator {

struct WaitingAnswer {
    Bytes data;
    std::size_t sent = 0; // how many bytes the host has read
    std::size_t room = 0; // its share of the limit
    Time due = {};        // when the host can read it
};

class AnswerQueue {
public:
    static constexpr std::size_t mostRoom = std::size_t{17} << 20; // longer than the longest transfer

    void push(Bytes data, Time due = {}) {
        constexpr std::size_t overhead = 64; // an empty answer needs memory too
        const std::size_t room = data.size() + overhead;
        if (room > mostRoom - m_taken) {
            return;
        }
        m_taken += room;
        m_answers.push_back({.data = std::move(data), .sent = 0, .room = room, .due = due});
    }

    bool empty() const { return m_answers.empty(); }
    bool ready(Time now) const { return !empty() && m_answers.front().due <= now; }
    std::size_t size() const { return m_answers.size(); }
    std::size_t taken() const { return m_taken; } // of the limit
    WaitingAnswer& front() { return m_answers.front(); }
    const WaitingAnswer& front() const { return m_answers.front(); }

    void pop() {
        m_taken -= m_answers.front().room;
        m_answers.pop_front();
    }

    void clear() {
        m_answers.clear();
        m_taken = 0;
    }

private:
    std::deque<WaitingAnswer> m_answers;
    std::size_t m_taken = 0;
};

} // namespace emulator

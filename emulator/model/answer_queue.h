// The answers that a reader has ready and nobody has fetched yet, oldest first.
//
// Room is limited: an answer that does not fit is lost, so that a client that only sends cannot use up the emulator's
// memory. One thread at a time.

#pragma once

#include "text.h"

#include <cstddef>
#include <deque>
#include <utility>

namespace emulator {

struct WaitingAnswer {
    Bytes data;
    std::size_t sent = 0; // of its bytes
    std::size_t room = 0; // that it was given
};

class AnswerQueue {
public:
    static constexpr std::size_t mostRoom = std::size_t{64} << 20;

    void push(Bytes data) {
        constexpr std::size_t overhead = 64; // an empty answer takes memory too
        const std::size_t room = data.size() + overhead;
        if (room > mostRoom - taken_)
            return;
        taken_ += room;
        answers_.push_back({.data = std::move(data), .sent = 0, .room = room});
    }

    bool empty() const { return answers_.empty(); }
    std::size_t size() const { return answers_.size(); }
    WaitingAnswer& front() { return answers_.front(); }

    void pop() {
        taken_ -= answers_.front().room;
        answers_.pop_front();
    }

    void clear() {
        answers_.clear();
        taken_ = 0;
    }

private:
    std::deque<WaitingAnswer> answers_;
    std::size_t taken_ = 0;
};

} // namespace emulator

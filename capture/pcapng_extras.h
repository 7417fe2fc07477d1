// What a pcapng file holds besides the packets that libpcap reads: comments of packets, and remarks of our recorder.
//
// Any thread.
#pragma once

#include "capture/pcapng_writer.h"

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace capture {

struct Extras {
    struct Comment {
        std::size_t packet; // from 0
        std::string_view text;
    };
    struct Remark {
        std::size_t packetsBefore;
        Time time;
        Json value; // an object
    };
    // In the order of the file. The texts are part of it.
    std::vector<Comment> comments;
    std::vector<Remark> remarks;
};

// Reads up to the first block that is damaged. A file in another format has no extras.
Extras readExtras(std::span<const std::uint8_t> file);

} // namespace capture

// The remarks about calls of the library's functions.
//
// Any thread.
#pragma once

#include "capture/pcapng_writer.h"
#include "recorder/recording_memory.h"

#include <string_view>

namespace recorder {

// The function and its arguments, as C has them. Frames are given by their length.
capture::Json callRemark(const recording_entry& entry, std::string_view text);

// The result, and the text that the function has handed out.
capture::Json returnRemark(const recording_entry& entry, std::string_view text);

} // namespace recorder

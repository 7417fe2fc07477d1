// The names of a reader's pipes.
//
// Any thread.
#pragma once

#include "model/description.h"
#include "model/faults.h"

#include <string_view>
#include <vector>

namespace emulator {

// The pipes that a name stands for: "in" and "out" (of frames, bulk and control), "control", "all" or an endpoint such
// as "0x81". Throws TextError.
std::vector<Pipe> pipesNamed(const ReaderDescription& reader, std::string_view name);

} // namespace emulator

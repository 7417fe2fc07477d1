// The script for gnuplot that draws the exchanges of a conversation over time, in a lane for each reader.
#pragma once

#include "show/conversation.h"

#include <cstddef>
#include <string>
#include <vector>

// A box of a lane: what took from `begin` to `end`, as high as its duration is long.
struct PlotBox {
    double begin = 0; // in seconds
    double end = 0;
    double duration = 0;
};

// At most about as many boxes as fit beside each other: of exchanges that begin in the same of `columns` parts of the time,
// one box from the first begin to the last end, as high as the longest. Boxes are in the order of their begin.
std::vector<PlotBox> merged(const std::vector<PlotBox>& boxes, double seconds, std::size_t columns);

// A text as a string of gnuplot, in which nothing is replaced.
std::string gnuplotString(const std::string& text);

// Of the readers that `shown` has as true. Writes SVG to standard output.
std::string plotScript(const Conversation& conversation, const std::vector<bool>& shown,
                       const std::string& title);

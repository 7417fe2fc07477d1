// Prints a conversation, as text or as objects in JSON.
#pragma once

#include "show/conversation.h"
#include "show/summary.h"

#include "capture/capture.h"

#include <vector>

struct ShownRecording {
    const capture::Capture& capture;
    const Conversation& conversation;
    std::vector<bool> shown; // by reader
    bool isFiltered = false; // not every reader is shown
    bool all = false;        // each control transfer in bytes
};

void printText(const ShownRecording& recording);
void printTextSummary(const ShownRecording& recording);

// An object in each line.
void printJson(const ShownRecording& recording);
void printJsonSummary(const ShownRecording& recording);

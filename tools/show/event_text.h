// Events of a recording, and what control transfers asked for, in words.
#pragma once

#include "show/conversation.h"

#include "capture/capture.h"

#include <string>

// Whether it happens in every session and tells nothing: a canceled transfer, a kernel driver that is not there.
bool isRoutine(const capture::Event& event);

// "opened", "claim of interface 0 failed [EBUSY]". Not of calls.
std::string eventText(const capture::Event& event);

// "GVUSB_Transceive(1, 02)".
std::string callText(const capture::Event& call);

// " returned -1130 (GVUSB_ERR_TIMEOUT)"; of a call without a result, " did not return".
std::string resultText(const capture::Event& call);

// "5 control requests in 1.9 ms: device descriptor, strings 1, 3, 5". What failed is named.
std::string requestsText(const capture::Capture& capture, const Requests& requests);

// "02 00 07", or what stands in its place if it was redacted, cut or empty.
std::string dataText(const capture::Transfer& transfer);

// The texts of the error codes.
//
// All threads share one buffer for the text of an unknown code, so a thread may see another thread's text. An
// UnknownErrorText has a copy of its own.
#pragma once

extern char g_cGvusbErrorText[256];

class GvUsbErrorText {
public:
    // Return null for a code without a text.
    static const char* getErrorText(int code);
};

// The text of an unknown code. The constructor also stores the text in g_cGvusbErrorText, and
// GVUSB_ERR_UNKNOWN_ERROR_CODE as the manager's last error.
struct UnknownErrorText {
    explicit UnknownErrorText(int code) noexcept;
    char text[64];
};

// Return the text of any code; for an unknown code, g_cGvusbErrorText.
const char* GvusbGetErrorText(int code);

// The texts of the error codes.
//
// The table is constant. The text of an unknown code is made in one buffer that all threads share, so a
// thread may see another's; whoever needs its own asks for an UnknownErrorText.
#pragma once

extern char g_cGvusbErrorText[256];

class GvUsbErrorText {
public:
    // Null for a code without text.
    static const char* getErrorText(int code);
};

// The text of a code that has none in the table. Making it leaves a copy in g_cGvusbErrorText and records
// GVUSB_ERR_UNKNOWN_ERROR_CODE as the manager's last error.
struct UnknownErrorText {
    explicit UnknownErrorText(int code) noexcept;
    char text[64];
};

// The text of any code; that of an unknown code stands in g_cGvusbErrorText.
const char* GvusbGetErrorText(int code);

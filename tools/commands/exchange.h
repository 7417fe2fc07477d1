// An exchange of a frame and its answer, with its duration.
#pragma once

#include "hexadecimal.h"

#include <chrono>

class Exchanger {
public:
    // Sets the time-out of the reader's transfers.
    Exchanger(int handle, unsigned int timeoutMilliseconds);

    struct Result {
        int code = 0; // negative if the exchange failed
        Bytes answer;
        double milliseconds = 0;
    };
    // An answer of any length: whatever does not fit into the buffer is received after it.
    Result exchange(const Bytes& frame);

    // Drop answers to earlier frames: wait so long for the first one, and then until no other follows. Returns 0, or
    // the code of a failure that keeps the reader from being used.
    int dropAnswers(std::chrono::milliseconds wait);

private:
    void setTimeout(unsigned int milliseconds);
    int receive();

    int m_handle;
    unsigned int m_timeout;
    Bytes m_buffer;
};

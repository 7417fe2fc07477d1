// An exchange of a frame and its answer, with its duration.
#pragma once

#include "hexadecimal.h"

class Exchanger {
public:
    explicit Exchanger(int handle);

    struct Result {
        int code = 0; // negative if the exchange failed
        Bytes answer;
        double milliseconds = 0;
    };
    Result exchange(const Bytes& frame);

private:
    int m_handle;
    Bytes m_buffer;
};

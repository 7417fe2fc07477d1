// One frame and its answer, timed.
#pragma once

#include "hexadecimal.h"

class Exchanger {
public:
    explicit Exchanger(int handle);

    struct Result {
        int code = 0; // below 0: the library's failure
        Bytes answer;
        double milliseconds = 0;
    };
    Result exchange(const Bytes& frame);

private:
    int handle_;
    Bytes buffer_;
};

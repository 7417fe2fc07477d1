// SIGINT and SIGTERM as a wish to end: noticed where it suits, so that a command can close its reader and tell
// what it has found out. A second signal ends the process at once.
#pragma once

class Interruption {
public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    bool wished() const;

    // Becomes readable with the signal, to be waited for beside other descriptors.
    int descriptor() const;
};

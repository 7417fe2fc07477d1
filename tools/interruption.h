// SIGINT and SIGTERM as a request to stop. A command checks for it where it can still close its reader and
// print its summary. A second signal ends the process at once.
#pragma once

class Interruption {
public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    bool requested() const;

    // Becomes readable when a signal arrives, for poll().
    int descriptor() const;
};

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

    // While it exists, a signal prints this text on standard error at once. Only one may exist at a time.
    class Notice {
    public:
        explicit Notice(const char* text);
        Notice(const Notice&) = delete;
        Notice& operator=(const Notice&) = delete;
        ~Notice();
    };

    // Becomes readable when a signal arrives, for poll().
    int descriptor() const;
};

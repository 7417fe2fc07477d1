// The frames of `gvusb send`, sent one after the other: from the command line or from standard input, with the answers,
// the failures and a summary as output.
#pragma once

#include "commands/progress.h"
#include "commands/statistics.h"
#include "exit_status.h"
#include "failure.h"
#include "hexadecimal.h"
#include "interruption.h"
#include "json.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <poll.h>

struct SendingOptions {
    std::string id; // of the reader, as on the command line
    std::vector<std::string> words;
    std::optional<std::size_t> repeat;
    bool keepGoing = false;
    bool json = false;
};

// Add the argument HEX and the options of sending, which are the same for all readers.
void addSendingArguments(CLI::App& command, SendingOptions& options);

// The help of it.
extern const char* const sendingHelp;

// Whether somebody types the frames.
bool isInteractive(const SendingOptions& options);

// What is printed at once when a signal arrives during an exchange.
const char* stoppingNotice();

// The reader that the frames are sent to.
class Counterpart {
public:
    struct Result {
        Bytes answer;
        double milliseconds = 0;
        std::optional<Problem> problem;
        Json details = Json::object(); // further members of the object that is printed
    };

    // For messages.
    virtual const std::string& title() const = 0;
    // The first members of each object that is printed.
    virtual Json identity() const { return Json::object(); }
    virtual Result exchange(const Bytes& frame) = 0;
    // Wait until one of these descriptors is ready.
    virtual void wait(std::span<pollfd> descriptors);

protected:
    ~Counterpart() = default;
};

class Sending {
public:
    Sending(const SendingOptions& options, Counterpart& counterpart, const Interruption& interruption);

    // Send all frames. Throws Failure after printing the summary if standard input has a line that is no frame.
    ExitStatus run();

private:
    Bytes argumentFrame() const;
    void sendStandardInput();
    void prompt() const;
    void rejectLine(unsigned int number, const std::string& line);
    bool sendRepeatedly(const Bytes& frame);
    bool sendOnce(const Bytes& frame);
    void printAnswer(const Bytes& answer);
    void reportFailure(const Problem& problem);
    Json object(const Bytes& frame, const Counterpart::Result& result) const;
    void printSummary();
    Json summaryObject() const;
    std::string summaryTable() const;

    const SendingOptions& m_options;
    Counterpart& m_counterpart;
    const Interruption& m_interruption;
    Progress m_progress;
    bool m_isInteractive;
    ExchangeTimes m_times;
    std::optional<Bytes> m_lastPrinted;
    std::size_t m_failed = 0;
    ExitStatus m_status = ExitStatus::ok;
};

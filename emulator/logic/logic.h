// The command that plays one reader: its process, and the lines to and from it.
//
// The model calls the functions of ReaderLogic in any thread. All others are for the launcher's main thread.
#pragma once

#include "logic/messages.h"
#include "process.h"
#include "usbfs/file_descriptor.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

// Collects the bytes of a stream into lines. A longer line than `longest` is dropped.
class LineBuffer {
public:
    explicit LineBuffer(std::size_t longest)
        : m_longest(longest) {}

    void append(std::string_view bytes);

    // Remove and return the next whole line; empty if there is none.
    std::optional<std::string> take();

    // What came after the last line end.
    std::string takeRest() { return std::exchange(m_partial, {}); }

    // Whether a line has been dropped since the last call.
    bool tookTooLong() { return std::exchange(m_tooLong, false); }

private:
    std::size_t m_longest;
    std::string m_partial;
    std::deque<std::string> m_lines;
    bool m_dropping = false;
    bool m_tooLong = false;
};

class Logic final : public ReaderLogic {
public:
    // A frame is taken only while fewer bytes than this wait for the command.
    static constexpr std::size_t fullOutput = std::size_t{64} << 10;
    // Events are lost while more bytes than this wait.
    static constexpr std::size_t mostOutput = std::size_t{1} << 20;
    static constexpr std::size_t longestLine = std::size_t{4} << 20;

    // Start `command` in a shell. `wake` is called, in any thread, when lines begin to wait because the command
    // does not read. Throws std::system_error.
    Logic(std::string name, const std::string& command, const Environment& environment, const sigset_t& mask,
          std::function<void()> wake);
    ~Logic() override; // kills the command if it still runs

    // ---- for the model
    bool takesFrames() const override;
    void take(std::uint8_t endpoint, const Bytes& frame) override;
    void note(ReaderEvent event, std::uint8_t value) override;

    // ---- for the launcher
    const std::string& name() const { return m_name; } // of the reader
    pid_t process() const { return m_process; }
    int input() const { return m_input.get(); }   // -1 once it is closed
    int output() const { return m_output.get(); } // likewise
    int error() const { return m_error.get(); }   // likewise

    void send(std::string line);

    // Send waiting lines as far as the command reads them. Returns whether the model may take frames again.
    bool flush();
    bool hasWaiting() const;

    // Whether the command has read anything.
    bool hasRead() const;

    // The command reads nothing from now on, or sees that the run is over.
    void closeInput();

    // Read what is there, up to a limit, and close the stream at its end. Return whether there may be more.
    bool readOutput();
    bool readError(); // and pass it on to standard error

    // The next line of the command's output.
    std::optional<std::string> takeLine() { return m_lines.take(); }
    bool tookTooLongLine() { return m_lines.tookTooLong(); }

    // Pass a text on to standard error, with the reader's name before each line.
    void print(std::string_view text) const;

    // Kill what is left of the command, wait for its end, and read the rest of its output.
    void finish();
    bool ended() const { return m_process < 0; }

    // How it ended, such as "ended with exit status 3"; empty for exit status 0.
    const std::string& failure() const { return m_failure; }

private:
    void sendLocked(std::string line);
    bool writeLocked();

    std::string m_name;
    std::function<void()> m_wake;
    pid_t m_process = -1;
    FileDescriptor m_output;
    FileDescriptor m_error;
    LineBuffer m_lines{longestLine};
    LineBuffer m_errorLines{std::size_t{64} << 10};
    std::string m_failure;

    mutable std::mutex m_mutex; // of all below
    FileDescriptor m_input;     // changed by the main thread only
    bool m_isOpen = true;       // the input
    std::deque<std::string> m_waiting;
    std::size_t m_waitingSize = 0;
    std::size_t m_sent = 0; // of the first waiting line
    std::uint64_t m_written = 0;
    std::uint64_t m_frames = 0;
    std::uint64_t m_lostEvents = 0;
    mutable bool m_refused = false; // a frame, for which the model has to be told
};

} // namespace emulator

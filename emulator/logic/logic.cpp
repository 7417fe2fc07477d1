#include "logic/logic.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace emulator {

namespace {

constexpr std::size_t readAtOnce = std::size_t{64} << 10;

// What a command that has ended can have left in a pipe.
constexpr int mostReadsAtEnd = 32;

struct Pipe2 {
    explicit Pipe2() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        reading = FileDescriptor(ends[0]);
        writing = FileDescriptor(ends[1]);
    }

    FileDescriptor reading;
    FileDescriptor writing;
};

void setNonblocking(const FileDescriptor& descriptor) {
    ::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK);
}

bool readInto(FileDescriptor& descriptor, LineBuffer& lines) {
    if (!descriptor) {
        return false;
    }
    std::array<char, readAtOnce> buffer;
    const ssize_t count = ::read(descriptor.get(), buffer.data(), buffer.size());
    if (count > 0) {
        lines.append({buffer.data(), static_cast<std::size_t>(count)});
        return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        descriptor.reset();
    }
    return false;
}

} // namespace

void LineBuffer::append(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t end = std::min(bytes.find('\n'), bytes.size());
        if (!m_dropping && m_partial.size() + end > m_longest) {
            m_dropping = m_tooLong = true;
            m_partial = {};
        }
        if (!m_dropping) {
            m_partial += bytes.substr(0, end);
        }
        if (end == bytes.size()) {
            return;
        }
        if (!m_dropping) {
            m_lines.push_back(std::exchange(m_partial, {}));
        }
        m_dropping = false;
        bytes.remove_prefix(end + 1);
    }
}

std::optional<std::string> LineBuffer::take() {
    if (m_lines.empty()) {
        return std::nullopt;
    }
    std::string line = std::move(m_lines.front());
    m_lines.pop_front();
    return line;
}

Logic::Logic(std::string name, const std::string& command, const Environment& environment,
             const sigset_t& mask, std::function<void()> wake)
    : m_name(std::move(name))
    , m_wake(std::move(wake)) {
    Pipe2 input;
    Pipe2 output;
    Pipe2 error;
    const StartedProcess started = startProcess({.arguments = {"/bin/sh", "-c", command},
                                                 .environment = environment,
                                                 .mask = mask,
                                                 .input = input.reading.get(),
                                                 .output = output.writing.get(),
                                                 .error = error.writing.get(),
                                                 .ownGroup = true});
    m_process = started.id;
    if (started.error != 0) {
        finish();
        throw std::system_error(started.error, std::generic_category(), "/bin/sh");
    }
    m_input = std::move(input.writing);
    m_output = std::move(output.reading);
    m_error = std::move(error.reading);
    setNonblocking(m_input);
    setNonblocking(m_output);
    setNonblocking(m_error);
}

Logic::~Logic() {
    finish();
}

// ---- for the model

bool Logic::takesFrames() const {
    const std::lock_guard lock(m_mutex);
    const bool takes = m_isOpen && m_waitingSize < fullOutput;
    m_refused |= !takes;
    return takes;
}

void Logic::take(std::uint8_t endpoint, const Bytes& frame) {
    const std::lock_guard lock(m_mutex);
    sendLocked(frameLine(++m_frames, endpoint, frame));
}

void Logic::note(ReaderEvent event, std::uint8_t value) {
    const std::lock_guard lock(m_mutex);
    if (m_waitingSize >= mostOutput) {
        ++m_lostEvents;
    } else {
        sendLocked(eventLine(event, value));
    }
}

// ---- for the launcher

void Logic::send(std::string line) {
    const std::lock_guard lock(m_mutex);
    sendLocked(std::move(line));
}

void Logic::sendLocked(std::string line) {
    if (!m_isOpen) {
        return;
    }
    const bool waited = !m_waiting.empty();
    m_waitingSize += line.size();
    m_waiting.push_back(std::move(line));
    if (!waited && !writeLocked()) {
        m_wake();
    }
}

// Whether nothing is waiting any more.
bool Logic::writeLocked() {
    while (!m_waiting.empty()) {
        const std::string& line = m_waiting.front();
        const ssize_t count = ::write(m_input.get(), line.data() + m_sent, line.size() - m_sent);
        if (count < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                return false;
            }
            m_isOpen = false; // the command has closed it
            m_waiting.clear();
            m_waitingSize = m_sent = 0;
            return true;
        }
        m_written += static_cast<std::size_t>(count);
        m_sent += static_cast<std::size_t>(count);
        m_waitingSize -= static_cast<std::size_t>(count);
        if (m_sent == line.size()) {
            m_waiting.pop_front();
            m_sent = 0;
        }
    }
    return true;
}

bool Logic::flush() {
    const std::lock_guard lock(m_mutex);
    if (!m_isOpen) {
        return false;
    }
    writeLocked();
    if (m_lostEvents != 0 && m_waitingSize < mostOutput) {
        sendLocked(lostEventsLine(std::exchange(m_lostEvents, 0)));
    }
    return m_waitingSize < fullOutput && std::exchange(m_refused, false);
}

bool Logic::hasWaiting() const {
    const std::lock_guard lock(m_mutex);
    return !m_waiting.empty();
}

bool Logic::hasRead() const {
    const std::lock_guard lock(m_mutex);
    int unread = 0;
    return m_isOpen && ::ioctl(m_input.get(), FIONREAD, &unread) == 0 &&
           static_cast<std::uint64_t>(unread) < m_written;
}

void Logic::closeInput() {
    const std::lock_guard lock(m_mutex);
    m_input.reset();
    m_isOpen = false;
    m_waiting.clear();
    m_waitingSize = m_sent = 0;
}

bool Logic::readOutput() {
    const bool more = readInto(m_output, m_lines);
    if (!m_output) {
        const std::string rest = m_lines.takeRest();
        if (!rest.empty()) {
            m_lines.append(rest + "\n");
        }
    }
    return more;
}

bool Logic::readError() {
    const bool more = readInto(m_error, m_errorLines);
    while (const std::optional<std::string> line = m_errorLines.take()) {
        print(*line);
    }
    if (m_errorLines.tookTooLong()) {
        print("(a line that is too long to be shown)");
    }
    const std::string rest = m_error ? std::string() : m_errorLines.takeRest();
    if (!rest.empty()) {
        print(rest);
    }
    return more;
}

void Logic::print(std::string_view text) const {
    std::string lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines += m_name;
        lines += ": ";
        lines += text.substr(0, end);
        lines += '\n';
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    std::cerr << lines;
}

void Logic::finish() {
    if (m_process < 0) {
        return;
    }
    // Before the wait, because another process group may get this number after it.
    ::kill(-m_process, SIGKILL);
    ::kill(m_process, SIGKILL);
    int status = 0;
    ::waitpid(std::exchange(m_process, -1), &status, 0);
    if (WIFSIGNALED(status)) {
        const char* const name = ::sigdescr_np(WTERMSIG(status));
        m_failure = "was killed by signal " + std::to_string(WTERMSIG(status)) +
                    (name != nullptr ? std::string(" (") + name + ")" : std::string());
    } else if (WEXITSTATUS(status) != 0) {
        m_failure = "ended with exit status " + std::to_string(WEXITSTATUS(status));
    }
    for (int i = 0; i < mostReadsAtEnd && readOutput(); ++i) {
    }
    for (int i = 0; i < mostReadsAtEnd && readError(); ++i) {
    }
    m_output.reset();
    m_error.reset();
    closeInput();
}

} // namespace emulator

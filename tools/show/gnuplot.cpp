#include "show/gnuplot.h"

#include "failure.h"
#include "output.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Descriptor {
public:
    explicit Descriptor(int number)
        : m_number(number) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    int number() const { return m_number; }

    // Returns false if what was written before could not be stored.
    bool close() {
        const int number = std::exchange(m_number, -1);
        return number < 0 || ::close(number) == 0;
    }

private:
    int m_number;
};

Failure systemFailure(const std::string& what, int error) {
    return Failure(what + ": " + std::generic_category().message(error));
}

// The tool's own, with the locale in which gnuplot takes texts in UTF-8.
std::vector<std::string> environment() {
    constexpr std::string_view locale = "LC_ALL=";
    std::vector<std::string> variables = {std::string(locale) + "C.UTF-8"};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (!std::string_view(*variable).starts_with(locale)) {
            variables.emplace_back(*variable);
        }
    }
    return variables;
}

pid_t start(int input, int drawing) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, drawing, STDOUT_FILENO);
    sigset_t defaults;
    ::sigemptyset(&defaults);
    ::sigaddset(&defaults, SIGPIPE); // which the tool ignores
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::string name = "gnuplot";
    std::string option = "--default-settings"; // the user's own could change the drawing
    std::array<char*, 3> arguments = {name.data(), option.data(), nullptr};
    std::vector<std::string> variables = environment();
    std::vector<char*> pointers;
    for (std::string& variable : variables) {
        pointers.push_back(variable.data());
    }
    pointers.push_back(nullptr);
    pid_t process = 0;
    const int error =
        ::posix_spawnp(&process, name.c_str(), &actions, &attributes, arguments.data(), pointers.data());
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error == ENOENT) {
        throw Failure("gnuplot is not installed; --plot needs it", ExitStatus::failure,
                      "On Debian, it is in the package gnuplot-nox.");
    }
    if (error != 0) {
        throw systemFailure("gnuplot", error);
    }
    return process;
}

// Returns false, with errno, if not all of it could be written.
bool write(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::string contents(int descriptor) {
    std::string text;
    std::array<char, 65536> part{};
    for (ssize_t count = 0;
         (count = ::pread(descriptor, part.data(), part.size(), static_cast<off_t>(text.size()))) > 0;) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

bool succeeded(pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void run(const std::string& script, int drawing) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw systemFailure("pipe", errno);
    }
    Descriptor input(ends[0]);
    Descriptor own(ends[1]);
    const pid_t process = start(input.number(), drawing);
    input.close();
    write(own.number(), script); // if gnuplot ends before, its exit status says so
    own.close();
    if (!succeeded(process)) {
        throw Failure("gnuplot failed; see above");
    }
}

} // namespace

// The file is opened when the drawing is complete, so that a failure leaves an earlier drawing as it was.
void runGnuplot(const std::string& script, const std::string& path) {
    const Descriptor drawing(::memfd_create("drawing", MFD_CLOEXEC));
    if (drawing.number() < 0) {
        throw systemFailure("memfd_create", errno);
    }
    run(script, drawing.number());
    if (path == "-") {
        output::print(contents(drawing.number()));
        return;
    }
    constexpr mode_t everybody = 0666;
    Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, everybody));
    if (file.number() < 0 || !write(file.number(), contents(drawing.number())) || !file.close()) {
        throw systemFailure(path, errno);
    }
}

#include "output.h"

#include <initializer_list>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int ownOutput = -1;

// System calls by number, for no other library is initialised when this runs.
void leadLogToStandardError(int, char**, char**) {
    constexpr long firstFree = 3;
    ownOutput = static_cast<int>(::syscall(SYS_fcntl, STDOUT_FILENO, F_DUPFD_CLOEXEC, firstFree));
    // A standard descriptor that is closed would go to the next file that is opened, a reader's node say, and
    // the log would be written there.
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::syscall(SYS_fcntl, standard, F_GETFD, 0L) < 0)
            ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR, 0);
    }
    ::syscall(SYS_dup3, STDERR_FILENO, STDOUT_FILENO, 0);
}

// The library logs while it is loaded, before main() and before every constructor of ours. What stands in
// this section runs before that.
using Initialiser = void (*)(int, char**, char**);
[[gnu::section(".preinit_array"), gnu::used]] const Initialiser initialiser = leadLogToStandardError;

} // namespace

int output::descriptor() {
    return ownOutput;
}

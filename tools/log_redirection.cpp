#include "output.h"

#include <initializer_list>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int ownOutput = -1;

// Makes raw system calls: no library is initialized yet.
void redirectLogToStandardError(int, char**, char**) {
    constexpr long firstFree = 3;
    ownOutput = static_cast<int>(::syscall(SYS_fcntl, STDOUT_FILENO, F_DUPFD_CLOEXEC, firstFree));
    // The next file to be opened, such as a reader's node, would take the number of a closed standard
    // descriptor and receive the log.
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::syscall(SYS_fcntl, standard, F_GETFD, 0L) < 0) {
            ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR, 0);
        }
    }
    ::syscall(SYS_dup3, STDERR_FILENO, STDOUT_FILENO, 0);
}

// The library logs while it is loaded, before main() and before the constructors of the program. The
// functions in this section run even earlier.
using Initializer = void (*)(int, char**, char**);
[[gnu::section(".preinit_array"), gnu::used]] const Initializer initializer = redirectLogToStandardError;

} // namespace

int output::descriptor() {
    return ownOutput;
}

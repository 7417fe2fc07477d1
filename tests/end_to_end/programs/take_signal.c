/*
 * Receives SIGTERM through signalfd(), as services do: main() blocks the signal and reads the descriptor. A
 * thread that was created before main() without blocking the signal would receive it instead, which would end
 * the process.
 *
 * Built with and without the library.
 */
#ifdef GVUSB_TEST_WITH_LIBRARY
#include <gvusb.h>
#endif

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <unistd.h>

int main(void) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, NULL);
    const int descriptor = signalfd(-1, &term, SFD_CLOEXEC);
#ifdef GVUSB_TEST_WITH_LIBRARY
    GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
#endif
    kill(getpid(), SIGTERM);
    struct pollfd readable = {.fd = descriptor, .events = POLLIN};
    if (poll(&readable, 1, 60000) != 1) {
        return 1;
    }
    struct signalfd_siginfo taken;
    if (read(descriptor, &taken, sizeof taken) != sizeof taken || taken.ssi_signo != SIGTERM) {
        return 2;
    }
    printf("taken\n");
    return 0;
}
